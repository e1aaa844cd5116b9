// The list of connected VPN clients, as the box's script prints it.
#pragma once

#include <string_view>

#include "common/json.h"

// The JSON array for `output`, whose tokens, split at ";", come three at a time: count, format and
// address. As with strtok() there are no empty tokens, and every other character, a line's end too,
// belongs to its token. What is left after the last full triple is dropped.
json_ptr vpn_devices_parse(std::string_view output);
