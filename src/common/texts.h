// Small helpers on texts.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

bool nimbrelc_utils_is_null_or_empty(const char *text);
const char *nimbrelc_utils_empty_if_null(const char *text);

// The value as it may stand in a generated file or in a line of the log: "_" for each control
// character.
std::string printable(std::string_view value);

// kept: nothing here calls the following five.

// Every double quote gets a backslash before it; nothing for null.
std::optional<std::string> nimbrelc_utils_escape_quotes(const char *text);

// Appends to a buffer that is kept within `capacity`, its terminator included; where the two do not
// fit, the capacity is doubled once. Null changes nothing. False, with nothing changed, for a text
// as long as the capacity or longer.
bool safe_append_string(std::string &buffer, size_t &capacity, const char *text);

// The first occurrence of `find` replaced.
std::string copy_replace_str(std::string_view text, std::string_view find,
                             std::string_view replacement);

// The characters from index `first` to index `last` inclusive, `last` clamped to the final one;
// nothing for null, first > last, or a first beyond the end.
std::optional<std::string> copy_substring(const char *text, size_t first, size_t last);

// Without leading and trailing white space; nothing for null.
std::optional<std::string> copy_trim_str(const char *text);
