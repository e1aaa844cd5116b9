// The daemon's sign of life on the bus.
#include <utility>

#include "common/json.h"
#include "common/msg_bus/message_bus.h"
#include "daemon/nimbrelc.h"

namespace {

constexpr const char *log_category = "app_info";

// kept: the status is a text here, unlike the numbers of the other web replies.
void get_application_status_callback(const message_bus_args & /*args*/,
                                     message_bus_request request) {
    const json_ptr status(cJSON_CreateObject());
    cJSON_AddStringToObject(status.get(), "status", "STARTED");
    message_bus_send_string_reply(std::move(request), print_json_unformatted(status.get()).c_str());
}

constexpr message_bus_method methods[] = {
    {.member = "getApplicationStatus", .handler = get_application_status_callback},
};

}  // namespace

bool app_info_start() {
    return message_bus_add_methods(log_category, "/ws/core/info", "com.kelvanto.nimbrel.app",
                                   methods);
}

bool app_info_stop() {
    return true;
}
