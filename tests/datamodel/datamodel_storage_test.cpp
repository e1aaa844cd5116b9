#include "datamodel/datamodel_storage.h"

#include <gtest/gtest.h>

#include "helpers.h"

namespace {

TEST(datamodel_storage, builds_a_physical_medium) {
    const json_ptr devices = parse(R"([
        {"syspath": "/a", "vendor": "Acme", "model": "Stick", "serial": "s\"1",
         "connection_type": "USB"},
        {"syspath": "/b", "vendor": 5, "device_type": "LTE"}, 7, null])");
    const json_ptr partitions = parse(R"([
        {"disk_syspath": "/a", "capacity": 1048576},
        {"disk_syspath": "/b", "capacity": "1"},
        {"disk_syspath": "/a", "capacity": 525311}, 3])");
    EXPECT_EQ(build_physical_medium(devices.get(), partitions.get(), 1),
              R"({"Name":"Acme Stick","Vendor":"Acme","Model":"Stick","SerialNumber":"s\"1",)"
              R"("ConnectionType":"USB","Removable":true,"Status":"Online","Capacity":1536})");
    for (const uint32_t index : {2U, 3U, 4U}) {
        EXPECT_EQ(build_physical_medium(devices.get(), partitions.get(), index),
                  R"({"Name":" ","Vendor":"","Model":"","SerialNumber":"",)"
                  R"("ConnectionType":"","Removable":true,"Status":"Online","Capacity":0})");
    }
    for (const uint32_t index : {0U, 5U, 0x7fffffffU, 0x80000000U, 0x80000001U, 0xffffffffU}) {
        EXPECT_EQ(build_physical_medium(devices.get(), partitions.get(), index), "");
    }
}

TEST(datamodel_storage, builds_a_logical_volume) {
    const json_ptr devices = parse(R"([{"syspath": "/a"}, {"syspath": "/b"}, {"syspath": "/b"}])");
    const json_ptr partitions = parse(R"([
        {"mount_point": "/m/1", "disk_syspath": "/b", "label": "One", "type": "vfat",
         "capacity": 2049, "free": 1024},
        {"mount_point": "", "disk_syspath": "/b"}, null,
        {"disk_syspath": "/b", "label": "unmounted too"},
        {"mount_point": "/m/2", "disk_syspath": "/a", "label": "Two", "type": "fat32",
         "capacity": 4294967296000, "free": 4294967297024},
        {"mount_point": "/m/3"},
        {"mount_point": "/m/4", "disk_syspath": "/gone"},
        {"mount_point": "/m/5", "disk_syspath": "/a", "capacity": 1e400, "free": 1e400}])");
    const auto build = [&](uint32_t index) {
        return build_logical_volume(devices.get(), partitions.get(), index);
    };
    EXPECT_EQ(build(1), R"({"Name":"One","Status":"Online","Enable":true,)"
                        R"("PhysicalReference":"Device.StorageService.1.PhysicalMedium.2.",)"
                        R"("FileSystem":"X_KELVANTO-COM_vfat","Capacity":2,"UsedSpace":1})");
    EXPECT_EQ(build(2), R"({"Name":"Two","Status":"Online","Enable":true,)"
                        R"("PhysicalReference":"Device.StorageService.1.PhysicalMedium.1.",)"
                        R"("FileSystem":"FAT32","Capacity":4194304000,"UsedSpace":-1})");
    EXPECT_EQ(build(5), R"({"Name":"","Status":"Online","Enable":true,)"
                        R"("PhysicalReference":"Device.StorageService.1.PhysicalMedium.1.",)"
                        R"("FileSystem":"X_KELVANTO-COM_","Capacity":0,"UsedSpace":0})");
    for (const uint32_t index : {0U, 3U, 4U, 6U, 0xffffffffU}) {
        EXPECT_EQ(build(index), "") << index;
    }
}

}  // namespace
