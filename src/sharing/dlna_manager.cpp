// Keeps the box's media server told whether it may stream the shared media: only while the user's
// switch and central storage are both on. One call at a time; later changes wait for its reply, and
// a server that is not ready is asked again every five seconds.
#include <utility>

#include "common/logger.h"
#include "common/msg_bus/message_bus.h"
#include "common/timer.h"
#include "config/config.h"
#include "sharing/share_settings.h"
#include "sharing/sharing.h"

namespace {

constexpr const char *log_category = "dlna_manager";

constexpr const char *media_streaming_path = "dlna.mediaStreamingEnabled";

constexpr const char *done_reply = R"({"status":200})";
constexpr const char *failure_reply = R"({"status":500,"error":"Error saving configuration"})";

constexpr int retry_seconds = 5;
// Where too many calls are unanswered: as often as a server is asked that lets each time out.
constexpr int unsent_retry_seconds = 30;

struct {
    bool desired = false;
    bool last_sent = false;
    bool in_flight = false;   // a call awaits its reply
    bool retry = false;       // an unchanged state is to be sent again
    int retry_scheduled = 0;  // the seconds for which the retry timer runs
    timer_ptr retry_timer;    // made on first use
} dms;

void send_state(bool state);

bool is_media_streaming_enabled() {
    return get_config_flag(media_streaming_path);
}

void apply_state() {
    send_state(file_services_request_handler_is_central_storage_enabled() &&
               is_media_streaming_enabled());
}

void retry_timer_callback() {
    dms.retry_scheduled = 0;
    dms.retry = true;
    send_state(dms.desired);
}

// A timer that runs already serves a later failure too: timers of their own, one for each change
// that an absent server missed, would go on asking it in turns.
void schedule_retry(int seconds) {
    LOG_WARN("DMS manager not ready, scheduling reconfiguration");
    if (!dms.retry_timer) {
        dms.retry_timer = timer_new(retry_timer_callback);
    }
    if (dms.retry_scheduled == 0 || dms.retry_scheduled > seconds) {
        dms.retry_scheduled = timer_start(*dms.retry_timer, seconds) ? seconds : 0;
    }
}

void dms_streaming_state_reply(const message_bus_args &args) {
    dms.in_flight = false;
    if (!args.are("b") || !args[0].boolean()) {
        schedule_retry(retry_seconds);
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
        dms.in_flight = false;
        schedule_retry(unsent_retry_seconds);
    }
}

void set_media_streaming_state_callback(const message_bus_args &args, message_bus_request request) {
    const bool enabled = args[0].boolean();
    if (enabled == is_media_streaming_enabled()) {
        LOG_INFO("Media streaming configuration has not been changed");
        message_bus_send_string_reply(std::move(request), failure_reply);  // kept: an error
        return;
    }
    set_config_flag(media_streaming_path, enabled);
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

void get_media_streaming_state_callback(const message_bus_args & /*args*/,
                                        message_bus_request request) {
    message_bus_send_string_reply(std::move(request),
                                  is_media_streaming_enabled()
                                      ? R"({"status":200,"data":{"mediaStreamingEnabled":true}})"
                                      : R"({"status":200,"data":{"mediaStreamingEnabled":false}})");
}

constexpr message_bus_method methods[] = {
    // kept: the refusal names another handler.
    {.member = "setMediaStreamingState",
     .handler = set_media_streaming_state_callback,
     .args = "b",
     .refusal_text = "Bad params passed to pam_auth_request_callback",
     .arrival_text = "Change of media streaming state requested"},
    {.member = "getMediaStreamingState", .handler = get_media_streaming_state_callback},
};

}  // namespace

bool dlna_manager_start() {
    const bool served =
        message_bus_add_methods(log_category, "/ws/dlna", "com.kelvanto.nimbrel.dlna", methods,
                                "Failed to add method listener");
    apply_state();
    return served;
}

bool dlna_manager_stop() {
    send_state(false);
    return true;
}
