// Date-times in the form "%FT%TZ", which deliberately holds local time behind a literal "Z".
#pragma once

#include <ctime>
#include <optional>
#include <string>

// -1 when the text does not parse.
time_t parse_datetime(const char *text);
std::optional<std::string> print_datetime(time_t time);
bool is_datetime(const char *text);
