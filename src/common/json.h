// Dotted-path access to JSON trees, and merging of stored values into a template. Items are
// borrowed unless stated; key lookups ignore case, as the JSON library's do.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>

#include "common/json_ptr.h"

// Reads and parses a file; none when either fails (logged).
json_ptr nimbrelc_utils_read_file_and_parse_json(const char *path);

// The item at a dotted path ("centralStorage.enabled"; empty segments are skipped), or null.
// `parent` (may be null) receives the object in which the last looked-up segment was searched.
cJSON *nimbrelc_utils_get_json_object(cJSON *root, std::string_view path, cJSON **parent);

// The item at a dotted path if it is an object, else null. Borrowed.
cJSON *nimbrelc_utils_get_json_section(cJSON *root, std::string_view path);

// Deletes the item at the path; false if there is none.
bool nimbrelc_utils_remove_json_object(cJSON *root, std::string_view path);

// Replaces the item at the path, in its place and under its own key; false, with nothing changed,
// if there is none.
bool nimbrelc_utils_replace_json_object(cJSON *root, std::string_view path, json_ptr value);

// True for null, for an item without a string value, and for "".
bool nimbrelc_utils_json_is_null_or_empty(const cJSON *item);

// The item's string value, "" when it has none. Borrowed.
const char *nimbrelc_utils_empty_if_null_json(const cJSON *item);

// The same for a member of an object. Borrowed.
const char *nimbrelc_utils_get_json_text(const cJSON *object, const char *name);

double nimbrelc_utils_zero_if_null(const cJSON *item);

// For every member of object `target` that `source` has too: takes the source's value if the kinds
// agree (null agrees with all), objects member by member. An object of the target always stays one.
// Source arrays are taken only with `copy_arrays`.
void nimbrelc_utils_copy_values_to_json(const cJSON *source, cJSON *target, bool copy_arrays);

// The members of an object, found without a walk: the first one of a name, or null.
class json_members {
public:
    explicit json_members(const cJSON *object);
    cJSON *find(std::string_view name) const;
    void replaced(cJSON *member);  // stands now where another of its name did

private:
    std::unordered_map<std::string, cJSON *> members_;  // by the name in small letters
};

// A tree in which many paths are looked up: each object is walked once. Nobody else may change it
// meanwhile.
class json_index {
public:
    explicit json_index(cJSON *root) : root_(root) {}
    // As nimbrelc_utils_get_json_object(), but for a parent.
    cJSON *find(std::string_view path);
    // As nimbrelc_utils_replace_json_object().
    bool replace(std::string_view path, json_ptr value);

private:
    cJSON *find(std::string_view path, cJSON *&parent);

    cJSON *root_;
    std::unordered_map<const cJSON *, json_members> objects_;
};

// JSON text, indented or without white space; none when there is nothing printable.
std::optional<std::string> nimbrelc_utils_print_json(const cJSON *item);
std::optional<std::string> nimbrelc_utils_print_json_unformatted(const cJSON *item);

// The item's type number as it stands in log lines: false 0, true 1, null 2, number 3, string 4,
// array 5, object 6.
int nimbrelc_utils_json_type(const cJSON *item);
