// Conversion of the disk daemon's records, a dictionary notation with bare keys and single-quoted
// strings ({syspath: '/sys/block/sda', partitions_count: 1}), to JSON.
#pragma once

#include <string>
#include <string_view>

// One pass that adds the missing double quotes; it does not parse.
std::string convert_ddm_respone_data_to_json_str(std::string_view text);
