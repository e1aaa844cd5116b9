#include "platform/service_manager.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <string>

#include "helpers.h"

namespace {

// A stand-in "sudo", first in PATH, runs the given script.
class service_manager : public testing::Test {
protected:
    void SetUp() override {
        setenv("PATH", (directory.path() + ":" + old_path).c_str(), 1);
    }
    void TearDown() override {
        setenv("PATH", old_path.c_str(), 1);
    }

    void sudo(const std::string &script) const {
        const std::string path = directory / "sudo";
        std::ofstream(path) << "#!/bin/sh\n" << script;
        std::filesystem::permissions(path, std::filesystem::perms::owner_all);
    }

    const temporary_directory directory;
    const std::string old_path = getenv("PATH");
};

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
    }
}

}  // namespace
