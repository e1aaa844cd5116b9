#include "common/utf8.h"

#include <dbus/dbus.h>
#include <gtest/gtest.h>

#include <string>

// Every sequence of up to five bytes around the edges of the rules, against the library that would
// end the process if the two disagreed.
TEST(utf8, agrees_with_the_bus_library) {
    const std::string edges =
        "a\x7F\x80\x8F\x90\x9F\xA0\xBF\xC0\xC1\xC2\xDF\xE0\xE1\xED\xEE\xEF\xF0\xF1\xF4\xF5\xF8\xFF";
    std::string text;
    size_t valid = 0;
    const auto extend = [&](const auto &self) -> void {
        const bool expected = dbus_validate_utf8(text.c_str(), nullptr) != 0;
        valid += expected ? 1 : 0;
        ASSERT_EQ(utf8_is_valid(text), expected) << testing::PrintToString(text);
        const std::string repaired = utf8_repaired(text);
        ASSERT_TRUE(dbus_validate_utf8(repaired.c_str(), nullptr)) << testing::PrintToString(text);
        ASSERT_EQ(repaired == text, expected);
        if (text.size() == 4) {
            return;
        }
        for (const char byte : edges) {
            text += byte;
            self(self);
            text.pop_back();
        }
    };
    extend(extend);
    EXPECT_GT(valid, 100U);
    EXPECT_TRUE(utf8_is_valid("\xEF\xBF\xBF and \xF4\x8F\xBF\xBF"));  // noncharacters
}

TEST(utf8, replaces_each_wrong_byte) {
    const std::string mark = "\xEF\xBF\xBD";
    EXPECT_EQ(utf8_repaired("caf\xE9!"), "caf" + mark + "!");
    EXPECT_EQ(utf8_repaired("\xE2\x82"), mark + mark);                                  // cut off
    EXPECT_EQ(utf8_repaired("\xC3\xA9\xED\xA0\x80"), "\xC3\xA9" + mark + mark + mark);  // surrogate
    EXPECT_EQ(utf8_repaired("\xE2\xC3\xA9"), mark + "\xC3\xA9");  // a new start inside
}
