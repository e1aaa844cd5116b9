// Date-times in the form "%FT%TZ". kept: it is local time that stands before the literal "Z".
#pragma once

#include <ctime>
#include <optional>
#include <string>

// -1 when the text does not parse.
time_t parse_datetime(const char *text);

// The same as `now` would have it: whether summer time applies is taken from then, not from the
// date. Nothing when the text does not parse, -1 for a date that has no time.
std::optional<time_t> parse_datetime_as_of(const char *text, time_t now);

std::optional<std::string> print_datetime(time_t time);
bool is_datetime(const char *text);
