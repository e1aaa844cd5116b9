// Persistent logging that ends by itself, in simulated time.
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

#include "common/dates.h"
#include "config/config.h"
#include "helpers.h"
#include "maintenance/maintenance.h"
#include "simulated/simulated_box.h"

namespace {

using simulated_box::pass;

constexpr time_t now = 1700000000;

class syslog_utils : public testing::Test {
protected:
    // The options file is on a medium of this process alone.
    static void SetUpTestSuite() {
        ASSERT_EQ(unshare(geteuid() == 0 ? CLONE_NEWNS : CLONE_NEWNS | CLONE_NEWUSER), 0);
        ASSERT_EQ(mount("", "/", nullptr, MS_REC | MS_PRIVATE, nullptr), 0);
        ASSERT_EQ(mount("medium", "/media", "tmpfs", 0, nullptr), 0);
    }
    void SetUp() override {
        simulated_box::reset(now);
    }

    const stored_document document{R"({"syslog": {"numberOfFiles": 5, "maxFileSize": 512,
        "persistent": true, "activationDuration": 1, "activationDate": null}})"};
    recorded_log log;
};

TEST_F(syslog_utils, fires_every_timer_and_ends_with_the_first) {
    ASSERT_TRUE(syslog_utils_configure());
    EXPECT_EQ(document.saved("syslog.activationDate"), '"' + *print_datetime(now) + '"');
    pass(10);
    for (int files : {6, 7}) {
        set_config_item("syslog.numberOfFiles", json_ptr(cJSON_CreateNumber(files)));
        ASSERT_TRUE(syslog_utils_configure());
        pass(10);
    }
    EXPECT_EQ(simulated_box::timers(), 3U);
    pass(29);
    EXPECT_EQ(content("/media/s6log.opts"), "s524288 n7 /media/syslog");
    // The first one cancels the third; the second finds none left.
    pass(60);
    EXPECT_EQ(content("/media/s6log.opts"), "s524288 n7 /var/log/syslog");
    EXPECT_EQ(document.saved("syslog.persistent"), "false");
    EXPECT_EQ(document.saved("syslog.activationDate"), "null");
    const std::string lines = log.text.substr(log.text.find("Stopping persistent"));
    EXPECT_EQ(lines.find("Persistent logging stopped"), lines.rfind("Persistent logging stopped"));
    EXPECT_TRUE(log.has("Failed to remove the timer: "));
    EXPECT_EQ(simulated_box::timers(), 0U);
}

TEST_F(syslog_utils, continues_a_period_for_what_is_left_of_it) {
    const auto start_again = [] {
        set_config_flag("syslog.persistent", true);
        set_config_text("syslog.activationDate", print_datetime(now - 40)->c_str());
        return syslog_utils_configure();
    };
    ASSERT_TRUE(start_again());
    pass(19);
    EXPECT_TRUE(get_config_flag("syslog.persistent"));
    pass(1);
    EXPECT_EQ(document.saved("syslog.persistent"), "false");
    ASSERT_TRUE(start_again());
    EXPECT_FALSE(get_config_flag("syslog.persistent"));  // nothing is left
}

}  // namespace
