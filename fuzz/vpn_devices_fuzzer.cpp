// The script's list of connected clients: a device for every three tokens.
#include "remote_access/vpn_devices.h"

#include <cstring>

#include "fuzz.h"

void fuzz(std::string_view input) {
    std::string output = fields(input, 1)[0];
    const json_ptr devices = vpn_devices_parse(output);
    must_read_back(devices.get());
    std::vector<std::string> tokens;
    for (const char *token = strtok(output.data(), ";"); token != nullptr;
         token = strtok(nullptr, ";")) {
        tokens.emplace_back(token);
    }
    must(static_cast<size_t>(cJSON_GetArraySize(devices.get())) == tokens.size() / 3,
         "three tokens make a device");
    size_t next = 0;
    const cJSON *device = nullptr;
    cJSON_ArrayForEach(device, devices.get()) {
        const cJSON *time = cJSON_GetObjectItem(device, "connectionTime");
        must(nimbrelc_utils_get_json_text(time, "count") == tokens[next] &&
                 nimbrelc_utils_get_json_text(time, "format") == tokens[next + 1] &&
                 nimbrelc_utils_get_json_text(device, "ipAddress") == tokens[next + 2],
             "a device has its tokens");
        next += 3;
    }
}
