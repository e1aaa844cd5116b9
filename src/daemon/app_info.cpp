#include "daemon/app_info.h"

#include "common/json.h"
#include "common/json_ptr.h"
#include "common/msg_bus/message_bus.h"

namespace {

// Kept: the status is a text here, unlike the numbers of the other web replies.
void get_application_status_callback(int32_t, const message_bus_arg *,
                                     message_bus_request request) {
    const json_ptr status(cJSON_CreateObject());
    cJSON_AddStringToObject(status.get(), "status", "STARTED");
    if (const auto text = nimbrelc_utils_print_json_unformatted(status.get())) {
        message_bus_send_string_reply(std::move(request), text->c_str());
    }
}

}  // namespace

bool app_info_start(event_base *) {
    return message_bus_add_method_listener("/ws/core/info", "com.kelvanto.nimbrel.app",
                                           "getApplicationStatus", get_application_status_callback);
}

bool app_info_stop() {
    return true;
}
