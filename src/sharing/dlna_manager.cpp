#include "sharing/dlna_manager.h"

#include <utility>

#include "common/json.h"
#include "common/json_ptr.h"
#include "common/logger.h"
#include "common/msg_bus/message_bus.h"
#include "config/config.h"
#include "sharing/file_services_request_handler.h"

namespace {

constexpr const char *log_category = "dlna_manager";

constexpr const char *media_streaming_path = "dlna.mediaStreamingEnabled";

constexpr const char *done_reply = R"({"status":200})";
constexpr const char *failure_reply = R"({"status":500,"error":"Error saving configuration"})";

constexpr timeval retry_delay = {.tv_sec = 5, .tv_usec = 0};

struct {
    event_base *base = nullptr;
    bool desired = false;
    bool last_sent = false;
    bool in_flight = false;        // a call awaits its reply
    bool retry = false;            // an unchanged state is to be sent again
    bool retry_scheduled = false;  // the retry timer runs
} dms;

void send_state(bool state);

bool is_media_streaming_enabled() {
    return cJSON_IsTrue(get_config_item(media_streaming_path)) != 0;
}

void apply_state() {
    send_state(file_services_request_handler_is_central_storage_enabled() &&
               is_media_streaming_enabled());
}

void retry_timer_callback(evutil_socket_t /*fd*/, short /*events*/, void * /*context*/) {
    dms.retry_scheduled = false;
    dms.retry = true;
    send_state(dms.desired);
}

// A timer that runs already serves a later failure too: timers of their own, one for each change
// that an absent server missed, would go on asking it in turns.
void schedule_retry() {
    if (!dms.retry_scheduled) {
        dms.retry_scheduled = event_base_once(dms.base, -1, EV_TIMEOUT, retry_timer_callback,
                                              nullptr, &retry_delay) == 0;
    }
}

void dms_streaming_state_reply(int32_t argc, const message_bus_arg *args) {
    dms.in_flight = false;
    if (argc != 1 || args[0].type != MB_ARG_BOOLEAN || !args[0].boolean()) {
        LOG_WARN("DMS manager not ready, scheduling reconfiguration");
        schedule_retry();
        return;
    }
    LOG_INFO("DMS manager configuration delivered successfully");
    dms.retry = false;
    if (dms.desired != dms.last_sent) {
        send_state(dms.desired);
    }
}

void send_state(bool state) {
    dms.desired = state;
    if (dms.in_flight || (!dms.retry && dms.last_sent == state)) {
        return;
    }
    dms.in_flight = true;
    dms.last_sent = state;
    if (!message_bus_call_method_with_args("com.kelvanto.dlna", "/com/kelvanto/dlna",
                                           "com.kelvanto.dlna", "DmsStreamingState",
                                           dms_streaming_state_reply, {mb_boolean(state)})) {
        // No reply will come, and one that is waited for would hold back every later state.
        dms_streaming_state_reply(-1, nullptr);
    }
}

void set_media_streaming_state_callback(int32_t argc, const message_bus_arg *args,
                                        message_bus_request request) {
    LOG_INFO("Change of media streaming state requested");
    if (!message_bus_validate_params(request, argc, args, {MB_ARG_BOOLEAN})) {
        LOG_WARN("Bad params passed to pam_auth_request_callback");  // kept: names another handler
        return;
    }
    const bool enabled = args[0].boolean();
    if (enabled == is_media_streaming_enabled()) {
        LOG_INFO("Media streaming configuration has not been changed");
        message_bus_send_string_reply(std::move(request), failure_reply);  // kept: an error
        return;
    }
    // A configuration without the switch stays without it.
    nimbrelc_utils_replace_json_object(get_config_root(), media_streaming_path,
                                       json_ptr(cJSON_CreateBool(enabled ? 1 : 0)));
    if (!nimbrelc_config_save()) {
        LOG_ERROR("Error saving media streaming configuration");
        message_bus_send_string_reply(std::move(request), failure_reply);
        return;
    }
    if (file_services_request_handler_is_central_storage_enabled()) {
        apply_state();
    } else {
        LOG_WARN("Media streaming state changed but central storage is off, no need to notify DMS");
    }
    message_bus_send_string_reply(std::move(request), done_reply);
}

void get_media_streaming_state_callback(int32_t /*argc*/, const message_bus_arg * /*args*/,
                                        message_bus_request request) {
    message_bus_send_string_reply(std::move(request),
                                  is_media_streaming_enabled()
                                      ? R"({"status":200,"data":{"mediaStreamingEnabled":true}})"
                                      : R"({"status":200,"data":{"mediaStreamingEnabled":false}})");
}

bool add_method_listener(const char *member, message_bus_method_handler handler) {
    return message_bus_add_method_listener("/ws/dlna", "com.kelvanto.nimbrel.dlna", member,
                                           handler);
}

}  // namespace

bool dlna_manager_start(event_base *base) {
    dms.base = base;
    const bool served =
        add_method_listener("setMediaStreamingState", set_media_streaming_state_callback) &&
        add_method_listener("getMediaStreamingState", get_media_streaming_state_callback);
    if (!served) {
        LOG_ERROR("Failed to add method listener");
    }
    apply_state();
    return served;
}

bool dlna_manager_stop() {
    send_state(false);
    return true;
}
