// Values inside shell command lines.
#pragma once

#include <string>
#include <string_view>

// The value as one literal piece of a shell command line. Values without shell-active characters
// come back as they are; blanks are never touched.
std::string launch_escape_quoted(std::string_view value);    // to stand inside double quotes
std::string launch_escape_unquoted(std::string_view value);  // to stand outside quotes
