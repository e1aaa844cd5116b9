// The script's list of connected clients: a device for every three tokens.
#include "remote_access/vpn_devices.h"

#include <cstring>

#include "fuzz.h"

void fuzz(std::string_view input) {
    std::string output = fields(input, 1)[0];
    const json_ptr devices = vpn_devices_parse(output);
    must_read_back(devices.get());
    int tokens = 0;
    for (char *rest = output.data(); strtok(rest, ";") != nullptr; rest = nullptr) {
        ++tokens;
    }
    must(cJSON_GetArraySize(devices.get()) == tokens / 3, "three tokens make a device");
}
