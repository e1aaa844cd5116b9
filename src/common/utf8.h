// UTF-8 as the bus library accepts it: no surrogates, no overlong forms, nothing above U+10FFFF;
// noncharacters are fine. A text that breaks these rules would end the process inside the library.
#pragma once

#include <string>
#include <string_view>

bool utf8_is_valid(std::string_view text);

// A copy in which each wrong byte became U+FFFD; valid text comes back as it is.
std::string utf8_repaired(std::string_view text);
