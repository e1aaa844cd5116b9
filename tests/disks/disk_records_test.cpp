#include "disks/disks.h"

#include <gtest/gtest.h>

#include "helpers.h"

TEST(disk_records, adds_the_missing_quotes) {
    const std::pair<const char *, const char *> rows[] = {
        {"{a: 'x', b: 2}", R"({"a": "x", "b": 2})"},
        {R"({"a": 'x', "b": 2})", R"({"a": "x", "b": 2})"},
        {"[{a: 1}, {b: '12:30', c: 'AA:BB'}]", R"([{"a": 1}, "{"b": "12:30", "c": "AA:BB"}])"},
        {"{sizeMB: 1, n1: 2}", R"({"sizeMB: 1, "n1: 2})"},  // kept: such a key stays open
        {"{a: 'it's, so'}", R"({"a": "it"s, "so"})"},
        {"{a: 'c:/x'}", R"({"a": "c":/x"})"},
        {"a,b,\"c\", \"d\"", R"(a,b,"c", "d")"},
        {":", "\":"},
        {", ", ", \""},
        {"", ""},
    };
    for (const auto &[text, json] : rows) {
        EXPECT_EQ(convert_ddm_respone_data_to_json_str(text), json);
    }
    // Never reads behind its input.
    EXPECT_EQ(convert_ddm_respone_data_to_json_str(std::string_view("{\"", 1)), "{\"");
    EXPECT_EQ(convert_ddm_respone_data_to_json_str(std::string_view(", \"", 2)), ", \"");
}
