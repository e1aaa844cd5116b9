// When the file services are started, stopped, reloaded and restarted, in simulated time.
#include "sharing/file_services_manager.h"

#include <gtest/gtest.h>

#include "config/config.h"
#include "disks/disk_lists.h"
#include "helpers.h"
#include "sharing/sharing.h"
#include "simulated/simulated_box.h"

namespace {

using simulated_box::pass;

class file_services_manager : public testing::Test {
protected:
    void SetUp() override {
        simulated_box::reset();
        disk_lists_reset();
        file_services_manager_start();
    }
    // Nothing is pending for ever.
    void TearDown() override {
        pass(60);
        EXPECT_EQ(simulated_box::timers(), 0U);
    }

    static void plug(const std::string &name) {
        disk_lists_add_partition(
            parse(R"({"syspath": ")" + name + R"(", "mount_point": "/media/)" + name + "\"}"));
        file_services_manager_update_file_services();
    }
    static void unplug(const char *name) {
        disk_lists_remove_partition(name);
        file_services_manager_update_file_services();
    }

    const stored_document document{R"({"centralStorage": {"enabled": true}})"};
    simulated_box::service &samba = simulated_box::services[0];
    simulated_box::service &afp = simulated_box::services[1];
    simulated_box::service &avahi = simulated_box::services[2];
};

TEST_F(file_services_manager, collapses_bursts_and_waits_for_the_action_before) {
    plug("a");
    pass(2);
    plug("b");
    pass(2);
    EXPECT_EQ(samba.done, "");
    pass(2);
    plug("c");  // while the start is watched
    pass(20);
    EXPECT_EQ(samba.done, "5+ 11~ ");
    EXPECT_EQ(afp.done, "5+ 18~ ");
    plug("d");
    pass(1);
    unplug("d");
    pass(60);
    EXPECT_EQ(avahi.done, "5+ 11~ 30~ ");
}

TEST_F(file_services_manager, shares_a_disk_that_comes_back) {
    plug("a");
    pass(20);
    unplug("a");
    pass(10);  // the stop is verified after eight
    plug("a");
    pass(10);
    EXPECT_EQ(samba.done, "3+ 23- 33+ ");
    // Within the three seconds: the server starts again, for it may have held on to the old disk.
    unplug("a");
    pass(2);
    plug("a");
    pass(20);
    EXPECT_EQ(samba.done, "3+ 23- 33+ 45- 50+ ");
    EXPECT_TRUE(samba.running && afp.running && avahi.running);
    // While a restart is half done: stopped, so that it starts anew with what is there then.
    file_services_manager_reload_file_services();
    pass(4);
    unplug("a");
    plug("a");
    pass(60);
    EXPECT_EQ(samba.done, "3+ 23- 33+ 45- 50+ 65- 70+ 76- 81+ ");
}

}  // namespace
