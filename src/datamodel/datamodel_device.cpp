// Logs as "datamodel".
#include "datamodel/datamodel_device.h"

#include <arpa/inet.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/sysinfo.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <optional>
#include <utility>

#include "common/logger.h"

namespace {

constexpr const char *log_category = "datamodel";
constexpr const char *lan_interface = "eth1";

// What the kernel says about the LAN interface for `question` (SIOCGIF...).
std::optional<ifreq> ask_interface(uint16_t question) {
    const int descriptor = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (descriptor == -1) {
        return std::nullopt;
    }
    ifreq data = {};
    strncpy(data.ifr_name, lan_interface, IFNAMSIZ - 1);
    const bool answered = ioctl(descriptor, question, &data) == 0;
    close(descriptor);
    return answered ? std::optional(data) : std::nullopt;
}

void bootloader_version_callback(const message_bus_args &args, message_bus_request request) {
    if (args.count() == 3 && args[2].type == MB_ARG_STRING) {
        message_bus_send_string_reply(std::move(request), args[2].string);
    } else {
        message_bus_send_no_reply(std::move(request));
    }
}

void disk_sleep_callback(const message_bus_args &args, message_bus_request request) {
    if (args.are("b")) {
        message_bus_send_bool_reply(std::move(request), args[0].boolean());
    } else {
        message_bus_send_no_reply(std::move(request));
    }
}

bool call_disk_sleep(message_bus_request &request, const char *method,
                     std::initializer_list<message_bus_arg> args) {
    return message_bus_call_method_for_request("com.kelvanto.ddm", "/sleep", "com.kelvanto.ddm",
                                               method, request, disk_sleep_callback, args);
}

}  // namespace

void datamodel_uptime_getter(message_bus_request request) {
    struct sysinfo info = {};
    sysinfo(&info);
    message_bus_send_reply(std::move(request), {mb_uint32(static_cast<uint32_t>(info.uptime))});
}

void datamodel_lan_ip_getter(message_bus_request request) {
    in_addr address = {};
    if (const std::optional<ifreq> data = ask_interface(SIOCGIFADDR)) {
        sockaddr_in found = {};
        memcpy(&found, &data->ifr_addr, sizeof data->ifr_addr);
        address = found.sin_addr;
    } else {
        LOG_WARN("Failed to get local IP address");
    }
    char text[INET_ADDRSTRLEN] = "";
    inet_ntop(AF_INET, &address, text, sizeof text);
    message_bus_send_string_reply(std::move(request), text);
}

void datamodel_lan_mac_getter(message_bus_request request) {
    char text[sizeof "00:00:00:00:00:00"] = "";
    if (const std::optional<ifreq> data = ask_interface(SIOCGIFHWADDR)) {
        unsigned char bytes[6] = {};
        memcpy(bytes, data->ifr_hwaddr.sa_data, sizeof bytes);
        if (snprintf(text, sizeof text, "%.2x:%.2x:%.2x:%.2x:%.2x:%.2x", bytes[0], bytes[1],
                     bytes[2], bytes[3], bytes[4], bytes[5]) < 0) {
            LOG_WARN("Failed to format MAC address: %s", strerror(errno));
        }
    } else {
        LOG_WARN("Failed to get MAC address");
    }
    message_bus_send_string_reply(std::move(request), text);
}

void datamodel_bootloader_version_getter(message_bus_request request) {
    if (!message_bus_call_method_for_request("com.kelvanto.hardware", "/info",
                                             "com.kelvanto.systemcalls", "HardwareInfoRequest",
                                             request, bootloader_version_callback, {})) {
        message_bus_send_no_reply(std::move(request));
    }
}

void datamodel_disk_sleep_enabled_getter(message_bus_request request) {
    if (!call_disk_sleep(request, "IsDiskSleepEnabled", {})) {
        message_bus_send_no_reply(std::move(request));
    }
}

bool datamodel_disk_sleep_enabled_setter(const message_bus_arg &value,
                                         message_bus_request request) {
    // The disk daemon's answer becomes the caller's.
    return (value.type == MB_ARG_BOOLEAN &&
            call_disk_sleep(request, "SetDiskSleepEnabled", {mb_boolean(value.boolean())})) ||
           message_bus_send_bool_reply(std::move(request), false);
}
