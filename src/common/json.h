// Dotted-path access to JSON trees, and merging of stored values into a template. Items are
// borrowed unless stated; key lookups ignore case, as the JSON library's do.
#pragma once

#include <cjson/cJSON.h>

#include <string>
#include <string_view>

#include "common/handle.h"

using json_ptr = handle<cJSON, cJSON_Delete>;

// Reads and parses a file; none when either fails (logged).
json_ptr nimbrelc_utils_read_file_and_parse_json(const char *path);

// The item at a dotted path ("centralStorage.enabled"; empty segments are skipped), or null.
// `parent` (may be null) receives the object in which the last looked-up segment was searched.
cJSON *nimbrelc_utils_get_json_object(cJSON *root, std::string_view path, cJSON **parent);

// The item at a dotted path if it is an object, else null. Borrowed.
cJSON *json_section(cJSON *root, std::string_view path);

// Deletes the item at the path; false if there is none.
bool nimbrelc_utils_remove_json_object(cJSON *root, std::string_view path);

// Replaces the item at the path, in its place and under its own key; false, with nothing changed,
// if there is none.
bool json_replace(cJSON *root, std::string_view path, json_ptr value);

// Gives the object's member this value, in its place under its own key, or adds it; nothing for
// what is no object.
void json_set(cJSON *object, const char *name, json_ptr value);

// True for null, for an item without a string value, and for "".
bool nimbrelc_utils_json_is_null_or_empty(const cJSON *item);

// The item's string value, "" when it has none. Borrowed.
const char *nimbrelc_utils_empty_if_null_json(const cJSON *item);

// The same for a member of an object. Borrowed.
const char *json_text(const cJSON *object, const char *name);

double nimbrelc_utils_zero_if_null(const cJSON *item);

// For every member of object `target` that `source` has too: takes the source's value if the kinds
// agree (null agrees with all), objects member by member. An object of the target always stays one.
// Source arrays are taken only with `copy_arrays`.
void nimbrelc_utils_copy_values_to_json(const cJSON *source, cJSON *target, bool copy_arrays);

// JSON text, indented or without white space; "" when there is nothing printable.
std::string print_json(const cJSON *item);
std::string print_json_unformatted(const cJSON *item);

// The item's type number as it stands in log lines: false 0, true 1, null 2, number 3, string 4,
// array 5, object 6.
int json_type(const cJSON *item);
