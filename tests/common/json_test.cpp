#include "common/json.h"

#include <gtest/gtest.h>

#include <string>

#include "helpers.h"

namespace {

TEST(json, walks_dotted_paths) {
    const json_ptr root = parse(R"({"a":{"b":{"c":1}},"list":[{"x":1}],"text":"t"})");
    cJSON *a = cJSON_GetObjectItem(root.get(), "a");
    cJSON *b = cJSON_GetObjectItem(a, "b");
    cJSON *c = cJSON_GetObjectItem(b, "c");
    const struct {
        const char *path;
        cJSON *item;
        cJSON *parent;
    } rows[] = {
        {"a..B.c.", c, b},
        {".a", a, root.get()},
        {"a.x.c", nullptr, a},  // the walk stops where the first key is missing
        {"a b c", nullptr, root.get()},
        {"a.b.c.d", nullptr, nullptr},  // nothing to search in
        {"list.x", nullptr, nullptr},
        {"", nullptr, nullptr},
        {"..", nullptr, nullptr},
    };
    for (const auto &row : rows) {
        cJSON *parent = root.get();
        EXPECT_EQ(nimbrelc_utils_get_json_object(root.get(), row.path, &parent), row.item)
            << row.path;
        EXPECT_EQ(parent, row.parent) << row.path;
    }
    EXPECT_EQ(nimbrelc_utils_get_json_object(nullptr, "a", nullptr), nullptr);
}

TEST(json, merges_stored_values) {
    const struct {
        const char *source;
        const char *target;
        bool copy_arrays;
        const char *result;
    } rows[] = {
        {R"({"b":2,"a":1})", R"({"a":0,"b":0,"c":0})", false, R"({"a":1,"b":2,"c":0})"},
        {R"({"x":2,"NAME":"n"})", R"({"a":0,"name":""})", false, R"({"a":0,"name":"n"})"},
        {R"({"a":1,"b":"1"})", R"({"a":true,"b":1})", false, R"({"a":true,"b":1})"},
        {R"({"a":null,"b":1})", R"({"a":{"b":2},"b":null})", false, R"({"a":{"b":2},"b":1})"},
        {R"({"a":null,"b":null})", R"({"a":"x","b":[1]})", false, R"({"a":null,"b":null})"},
        {R"({"o":{"k":1,"l":[1]}})", R"({"o":{"k":0,"l":[],"m":0}})", false,
         R"({"o":{"k":1,"l":[],"m":0}})"},
        {R"({"o":{"k":1,"l":[1]}})", R"({"o":{"k":0,"l":[],"m":0}})", true,
         R"({"o":{"k":1,"l":[1],"m":0}})"},
        {R"({"a":[1]})", R"({"a":null})", false, R"({"a":null})"},
        {R"({"a":{"k":[1]}})", R"({"a":null})", false, R"({"a":{"k":[1]}})"},
        {R"({"a":1})", R"({"a":7,"A":8})", false, R"({"a":1,"A":1})"},
    };
    for (const auto &row : rows) {
        const json_ptr source = parse(row.source);
        const json_ptr target = parse(row.target);
        nimbrelc_utils_copy_values_to_json(source.get(), target.get(), row.copy_arrays);
        EXPECT_EQ(print(target), row.result) << row.source;
        EXPECT_EQ(print(source), row.source);
    }
}

}  // namespace
