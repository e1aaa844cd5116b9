// Date-times in the form "%FT%TZ". kept: it is local time that stands before the literal "Z".
#pragma once

#include <ctime>
#include <optional>
#include <string>

// Nothing when the text does not parse, -1 for a date that has no time in a time_t. The second one
// takes from `now`, not from the date, whether summer time applies.
std::optional<time_t> parse_datetime(const char *text);
std::optional<time_t> parse_datetime_as_of(const char *text, time_t now);

std::optional<std::string> print_datetime(time_t time);
bool is_datetime(const char *text);
