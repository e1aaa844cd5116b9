#include "service_manager.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <string>

namespace {

// A stand-in "sudo", first in PATH, records its arguments and runs the given script.
class service_manager : public testing::Test {
protected:
    void SetUp() override {
        char pattern[] = "/tmp/service_manager_test.XXXXXX";
        directory = mkdtemp(pattern);
        old_path = getenv("PATH");
        setenv("PATH", (directory + ":" + old_path).c_str(), 1);
        sudo("exit 0");
    }
    void TearDown() override {
        setenv("PATH", old_path.c_str(), 1);
        std::filesystem::remove_all(directory);
    }

    void sudo(const std::string &script) const {
        const std::string path = directory + "/sudo";
        std::ofstream(path) << "#!/bin/sh\necho \"$*\" >> " << directory << "/calls\n" << script;
        std::filesystem::permissions(path, std::filesystem::perms::owner_all);
    }

    // What was run since the last call.
    std::string calls() const {
        std::ifstream file(directory + "/calls");
        const std::string text{std::istreambuf_iterator<char>(file), {}};
        unlink((directory + "/calls").c_str());
        return text;
    }

    std::string directory;
    std::string old_path;
};

TEST_F(service_manager, runs_the_control_commands) {
    const struct {
        std::function<int()> run;
        const char *calls;
    } rows[] = {
        {[] { return service_manager_start_one("smbd"); }, "s6-svc -u /run/service/smbd\n"},
        {[] { return service_manager_stop_one("smbd"); }, "s6-svc -d /run/service/smbd\n"},
        {[] { return service_manager_start("dropbear"); }, "s6-rc -u change dropbear\n"},
        {[] { return service_manager_stop("dropbear"); }, "s6-rc -d change dropbear\n"},
        {[] { return service_manager_signal("smbd", 15); }, "s6-svc -t /run/service/smbd\n"},
        {[] { return service_manager_signal("smbd", 1); }, "s6-svc -h /run/service/smbd\n"},
        {[] { return service_manager_restart("smbd"); },
         "s6-svc -d /run/service/smbd\ns6-svc -u /run/service/smbd\n"},
    };
    for (const auto &row : rows) {
        EXPECT_EQ(row.run(), 0);
        EXPECT_EQ(calls(), row.calls);
    }
    EXPECT_EQ(service_manager_signal("smbd", 13), -1);
    EXPECT_EQ(calls(), "");
}

TEST_F(service_manager, failures_are_negative) {
    sudo("exit 100");
    EXPECT_EQ(service_manager_start("dropbear"), -1);
    calls();
    EXPECT_EQ(service_manager_restart("smbd"), -1);
    EXPECT_EQ(calls(), "s6-svc -d /run/service/smbd\n");
    sudo("kill -KILL $PPID");
    EXPECT_EQ(service_manager_start_one("smbd"), -3);
}

TEST_F(service_manager, reads_the_state) {
    const struct {
        const char *script;
        int result;
        bool up;
    } rows[] = {
        {"echo 'up (pid 120) 33 seconds'", 0, true},
        {"echo 'down (exitcode 0) 3 seconds, ready 3 seconds'", 0, false},
        {"echo 'up (pid 120)'; exit 1", -1, false},
        {"echo 's6-svstat: fatal'", -1, false},
        {"", -1, false},
        {"kill -KILL $PPID", -3, false},
    };
    for (const auto &row : rows) {
        sudo(row.script);
        for (const bool before : {false, true}) {
            bool up = before;
            EXPECT_EQ(service_manager_is_up("smbd", &up), row.result) << row.script;
            EXPECT_EQ(up, row.result == 0 ? row.up : before) << row.script;
        }
        EXPECT_EQ(calls(), "s6-svstat /run/service/smbd\ns6-svstat /run/service/smbd\n");
    }
    EXPECT_EQ(service_manager_is_up("smbd", nullptr), -2);
    EXPECT_EQ(calls(), "");
}

}  // namespace
