#include "common/json.h"

#include <gtest/gtest.h>

#include <array>
#include <string>

#include "helpers.h"

namespace {

TEST(json, walks_dotted_paths) {
    const json_ptr root = parse(R"({"a":{"b":{"c":1}},"list":[{"x":1}],"text":"t"})");
    const std::string all = print(root);
    const std::array<std::string, 3> rows[] = {
        // Path, item, parent.
        {"a..B.c.", "1", R"({"c":1})"},
        {".a", R"({"b":{"c":1}})", all},
        {"a.x.c", "nothing", R"({"b":{"c":1}})"},  // stops where the first key is missing
        {"a b c", "nothing", all},
        {"a.b.c.d", "nothing", "nothing"},  // nothing to search in
        {"list.x", "nothing", "nothing"},
        {"..", "nothing", "nothing"},
    };
    for (const auto &[path, item, found_in] : rows) {
        cJSON *parent = root.get();
        EXPECT_EQ(print(nimbrelc_utils_get_json_object(root.get(), path, &parent)), item);
        EXPECT_EQ(print(parent), found_in) << path;
    }
}

TEST(json, merges_stored_values) {
    const std::string source =
        R"({"b":2,"a":1,"none":2,"NAME":"n","flag":1,"number":"1",)"
        R"("section":null,"null1":1,"text":null,"list":null,)"
        R"("null2":{"k":[1]},"twin":1,"null3":[1],"o":{"k":1,"l":[1],"m":true}})";
    const std::string target = R"({"a":0,"b":0,"c":0,"name":"","flag":true,"number":1,)"
                               R"("section":{"b":2},"null1":null,"text":"x","list":[1],)"
                               R"("null2":null,"twin":7,"Twin":8,"null3":null,)"
                               R"("o":{"k":0,"l":[],"m":0}})";
    const std::string merged = R"({"a":1,"b":2,"c":0,"name":"n","flag":true,"number":1,)"
                               R"("section":{"b":2},"null1":1,"text":null,"list":null,)"
                               R"("null2":{"k":[1]},"twin":1,"Twin":1,"null3":)";
    for (const bool copy_arrays : {false, true}) {
        const json_ptr from = parse(source);
        const json_ptr to = parse(target);
        nimbrelc_utils_copy_values_to_json(from.get(), to.get(), copy_arrays);
        EXPECT_EQ(print(to), merged + (copy_arrays ? R"([1],"o":{"k":1,"l":[1],"m":0}})"
                                                   : R"(null,"o":{"k":1,"l":[],"m":0}})"));
        EXPECT_EQ(print(from), source);
    }
}

}  // namespace
