#include "datamodel/datamodel_storage.h"

#include <gtest/gtest.h>

#include "helpers.h"

TEST(datamodel_storage, builds_media_and_volumes) {
    const json_ptr devices = parse(R"([
        {"syspath": "/a", "vendor": "Acme", "model": "Stick", "serial": "s\"1",
         "connection_type": "USB"},
        {"syspath": "/b", "vendor": 5, "device_type": "LTE"}, {"syspath": "/b"}])");
    const json_ptr partitions = parse(R"([
        {"mount_point": "/m/1", "disk_syspath": "/a", "label": "One", "type": "vfat",
         "capacity": 2049, "free": 1024},
        {"mount_point": "", "disk_syspath": "/b"}, null,
        {"disk_syspath": "/a", "label": "unmounted too", "capacity": 1048},
        {"mount_point": "/m/2", "disk_syspath": "/b", "label": "Two", "type": "fat32",
         "capacity": 4294967296000, "free": 4294967297024},
        {"mount_point": "/m/3"},
        {"mount_point": "/m/4", "disk_syspath": "/gone"},
        {"mount_point": "/m/5", "disk_syspath": "/b", "capacity": 1e400, "free": 1e400}])");
    const std::string rows[][2] = {
        {R"({"Name":"Acme Stick","Vendor":"Acme","Model":"Stick","SerialNumber":"s\"1",)"
         R"("ConnectionType":"USB","Removable":true,"Status":"Online","Capacity":3})",
         R"({"Name":"One","Status":"Online","Enable":true,)"
         R"("PhysicalReference":"Device.StorageService.1.PhysicalMedium.1.",)"
         R"("FileSystem":"X_KELVANTO-COM_vfat","Capacity":2,"UsedSpace":1})"},
        {R"({"Name":" ","Vendor":"","Model":"","SerialNumber":"",)"
         R"("ConnectionType":"","Removable":true,"Status":"Online","Capacity":0})",
         R"({"Name":"Two","Status":"Online","Enable":true,)"
         R"("PhysicalReference":"Device.StorageService.1.PhysicalMedium.2.",)"
         R"("FileSystem":"FAT32","Capacity":4194304000,"UsedSpace":-1})"}};
    for (uint32_t i = 0; i < 2; ++i) {
        EXPECT_EQ(build_physical_medium(devices.get(), partitions.get(), i + 1), rows[i][0]);
        EXPECT_EQ(build_logical_volume(devices.get(), partitions.get(), i + 1), rows[i][1]);
    }
    EXPECT_TRUE(build_logical_volume(devices.get(), partitions.get(), 5)
                    .ends_with(R"("FileSystem":"X_KELVANTO-COM_","Capacity":0,"UsedSpace":0})"));
    for (const uint32_t index : {0U, 4U, 0x80000000U, 0x80000001U, 0xffffffffU}) {
        EXPECT_EQ(build_physical_medium(devices.get(), partitions.get(), index), "") << index;
        EXPECT_EQ(build_logical_volume(devices.get(), partitions.get(), index), "") << index;
    }
    EXPECT_EQ(build_logical_volume(devices.get(), partitions.get(), 3), "");  // of no disk
}
