#include "datamodel/datamodel_handler.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>

namespace {

constexpr uint32_t untouched = 4711;

// "family index"; the family is empty when no indexed one answered.
std::string find_indexed(const std::string &key) {
    uint32_t index = untouched;
    const datamodel_handler *handler = find_handler(key.c_str(), &index);
    const bool indexed = handler != nullptr && handler->name_format != nullptr;
    return (indexed ? handler->name_format : "") + (" " + std::to_string(index));
}

TEST(datamodel, finds_indexed_families_by_their_beginning) {
    const std::string media = "Device.StorageService.1.PhysicalMedium.";
    const std::pair<const char *, const char *> numbers[] = {{"2", "2"},
                                                             {"2.Vendor", "2"},
                                                             {"0", "0"},
                                                             {"17anything", "17"},
                                                             {"+3", "3"},
                                                             {"-1", "4294967295"},
                                                             {"4294967295", "4294967295"}};
    for (const auto &[number, index] : numbers) {
        EXPECT_EQ(find_indexed(media + number), media + "%u " + index);
    }
    for (const char *no_number : {"", ".1", "Vendor", "%u", "-"}) {
        EXPECT_EQ(find_indexed(media + no_number).substr(0, 1), " ") << no_number;
    }
    EXPECT_EQ(find_indexed("Device.StorageService.1.LogicalVolume.5.Name"),
              "Device.StorageService.1.LogicalVolume.%u 5");
}

}  // namespace
