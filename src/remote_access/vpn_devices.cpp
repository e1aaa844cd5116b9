#include "remote_access/vpn_devices.h"

#include <algorithm>
#include <string>

namespace {

constexpr char separator = ';';

// Cuts the next token off `rest`; empty when there is none.
std::string take_token(std::string_view &rest) {
    rest.remove_prefix(std::min(rest.find_first_not_of(separator), rest.size()));
    const std::string_view token = rest.substr(0, rest.find(separator));
    rest.remove_prefix(token.size());
    return std::string(token);
}

}  // namespace

json_ptr vpn_devices_parse(std::string_view output) {
    json_ptr devices(cJSON_CreateArray());
    while (true) {
        const std::string count = take_token(output);
        const std::string format = take_token(output);
        const std::string address = take_token(output);
        if (address.empty()) {
            return devices;
        }
        json_ptr device(cJSON_CreateObject());
        cJSON_AddStringToObject(device.get(), "ipAddress", address.c_str());
        cJSON *connection_time = cJSON_AddObjectToObject(device.get(), "connectionTime");
        cJSON_AddStringToObject(connection_time, "count", count.c_str());
        cJSON_AddStringToObject(connection_time, "format", format.c_str());
        cJSON_AddItemToArray(devices.get(), device.release());
    }
}
