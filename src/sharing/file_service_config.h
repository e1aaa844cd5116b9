// What the generated configuration files of Samba and AFP have in common. Values come from disks
// and settings: no value can add a line or a section to a file, or change what another line means.
#pragma once

#include <cjson/cJSON.h>

#include <functional>
#include <string>
#include <string_view>

// A value as it is written without quotes: control characters and a backslash at its end (which
// would join the next line to it) become "_".
std::string file_service_written_value(std::string_view value);

// Two blanks, the key, " = ", the value (in double quotes when it contains a blank), a newline.
void file_service_write_line(std::string &text, const char *key, std::string_view value);

// One line per {"directive": text, "args": [texts]}: two blanks, the directive, " = ", the
// arguments joined by blanks. No quoting here; an entry without a directive makes no line.
void file_service_write_directives(std::string &text, const cJSON *directives);

// A section per share of the list, `can_serve` as in share_names_of(); `write_lines` adds the lines
// below its header.
void file_service_write_shares(std::string &text, const cJSON *partitions,
                               bool (*can_serve)(const cJSON *partition),
                               const std::function<void(const cJSON *partition)> &write_lines);
