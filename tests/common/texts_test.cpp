#include "common/texts.h"

#include <gtest/gtest.h>

namespace {

TEST(texts, cuts_and_replaces_text) {
    std::string buffer = "ab";
    size_t capacity = 6;
    EXPECT_TRUE(safe_append_string(buffer, capacity, nullptr));
    EXPECT_FALSE(safe_append_string(buffer, capacity, "as long"));
    EXPECT_TRUE(safe_append_string(buffer, capacity, "cde"));
    EXPECT_TRUE(safe_append_string(buffer, capacity, "f"));
    EXPECT_EQ(capacity, 12U);
    EXPECT_EQ(buffer, "abcdef");
    EXPECT_EQ(copy_substring("abc", 1, 10), "bc");
    EXPECT_EQ(copy_substring("abc", 2, 1), std::nullopt);
    EXPECT_EQ(copy_substring("abc", 3, 4), std::nullopt);
    EXPECT_EQ(copy_trim_str("\t a b\r\n"), "a b");
    EXPECT_EQ(copy_replace_str("a-b-c", "-", "++"), "a++b-c");
    EXPECT_EQ(nimbrelc_utils_escape_quotes("say \"\\\""), "say \\\"\\\\\"");
    EXPECT_EQ(printable("a\nb\x7F\x1F \xC3\xA9"), "a_b__ \xC3\xA9");
}

}  // namespace
