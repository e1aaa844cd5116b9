#include "datamodel.h"

#include <gtest/gtest.h>

#include <string>

namespace {

constexpr uint32_t untouched = 4711;

struct found {
    std::string family;  // "" when no indexed family answered
    uint32_t index;
};

found find_indexed(const std::string &key) {
    uint32_t index = untouched;
    const datamodel_handler *handler = find_handler(key.c_str(), &index);
    return {handler != nullptr && handler->name_format != nullptr ? handler->name_format : "",
            index};
}

TEST(Datamodel, FindsExactNamesOnly) {
    const char *key = "Device.X_KELVANTO-COM_DeviceManagement.Debug.Segfault.DumpNumberOfEntries";
    uint32_t index = untouched;
    const datamodel_handler *handler = find_handler(key, nullptr);
    ASSERT_NE(handler, nullptr);
    EXPECT_STREQ(handler->name, key);
    EXPECT_EQ(find_handler(key, &index), handler);
    EXPECT_EQ(index, untouched);
    for (const std::string &bad :
         {std::string(), std::string("Device."), std::string(key) + ".", std::string(key, 20),
          std::string("device.LAN.IPAddress"), std::string(1000000, 'D')}) {
        EXPECT_EQ(find_handler(bad.c_str(), &index), nullptr) << bad.substr(0, 80);
    }
    // Indexed families answer only where an index is asked for.
    EXPECT_EQ(find_handler("Device.StorageService.1.PhysicalMedium.1", nullptr), nullptr);
}

TEST(Datamodel, FindsIndexedFamiliesByTheirBeginning) {
    const std::string media = "Device.StorageService.1.PhysicalMedium.";
    const struct {
        const char *number;
        uint32_t index;
    } numbers[] = {
        {"2", 2},  {"2.Vendor", 2},    {"0", 0}, {"17anything", 17}, {"4294967295", 4294967295U},
        {"+3", 3}, {"-1", 4294967295U}};
    for (const auto &[number, index] : numbers) {
        const found result = find_indexed(media + number);
        EXPECT_EQ(result.family, media + "%u") << number;
        EXPECT_EQ(result.index, index) << number;
    }
    for (const char *no_number : {"", ".1", "Vendor", "%u", "-"}) {
        EXPECT_EQ(find_indexed(media + no_number).family, "") << no_number;
    }
    EXPECT_EQ(find_indexed("Device.StorageService.1.LogicalVolume.5.Name").family,
              "Device.StorageService.1.LogicalVolume.%u");
    EXPECT_EQ(find_indexed("Device.X_KELVANTO-COM_DeviceManagement.Debug.Segfault.Dump.12").index,
              12U);
}

}  // namespace
