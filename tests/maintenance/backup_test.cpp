#include "maintenance/backup.h"

#include <gtest/gtest.h>

#include "helpers.h"

namespace {

TEST(backup, restores_values_by_the_backups_kind) {
    const json_ptr config =
        parse(R"({"dlna":{"mediaStreamingEnabled":false},"devices":{"usbMode":"host"},)"
              R"("storage":{"enabled":false,"username":"old","password4":"p"},)"
              R"("vpn":{"username":["a list"],"password4":"","presharedkey4":"","enable":2.7},)"
              R"("nas":{"afp":true},"list":[2]})");
    EXPECT_TRUE(backup_restore(
        config.get(),
        parse(
            R"({"config":{"dlna.mediaStreamingEnabled":true,"devices.usbMode":2.7,)"
            R"("storage.username":"new","storage.password4":"q","storage.password":"plain",)"
            R"("vpn.password4":"v","vpn.presharedkey4":null,"no.such.field":1,)"
            R"("list":1,"nas":null,"nas.afp":1,"":1,"vpn.enable":[1],"storage.enabled":{"a":1}}})")
            .get()));
    // Lists and what is not there are left out; a secret that does not decrypt is carried as none.
    EXPECT_EQ(print(backup_create(config.get())),
              R"({"version":"","config":{"dlna.mediaStreamingEnabled":true,"devices.usbMode":2,)"
              R"("storage.enabled":false,"storage.username":"new","storage.password4":"q",)"
              R"("vpn.enable":2,"vpn.password4":"v","vpn.presharedkey4":null,)"
              R"("storage.password":"","vpn.password":"","vpn.presharedkey":""}})");
    EXPECT_EQ(print(config), R"({"dlna":{"mediaStreamingEnabled":true},"devices":{"usbMode":2},)"
                             R"("storage":{"enabled":false,"username":"new","password4":"q"},)"
                             R"("vpn":{"username":["a list"],"password4":"v",)"
                             R"("presharedkey4":null,"enable":2.7},"nas":null,"list":1})");
}

}  // namespace
