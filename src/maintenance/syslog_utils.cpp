// Keeps the options of the box's log service in line with the configuration, and ends persistent
// logging (the log on the persistent medium instead of RAM) when its time is over.
//
// Options file, one line without a newline: "sSIZE nCOUNT DIRECTORY", SIZE in bytes.
#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <list>
#include <utility>

#include "common/dates.h"
#include "common/files.h"
#include "common/json.h"
#include "common/logger.h"
#include "common/msg_bus/message_bus.h"
#include "common/timer.h"
#include "config/config.h"
#include "maintenance/maintenance.h"
#include "platform/service_manager.h"

namespace {

constexpr const char *log_category = "syslog_utils";

constexpr const char *options_file = "/media/s6log.opts";
constexpr const char *persistent_directory = "/media/syslog";
constexpr const char *volatile_directory = "/var/log/syslog";

constexpr const char *number_of_files_path = "syslog.numberOfFiles";
constexpr const char *max_file_size_path = "syslog.maxFileSize";
constexpr const char *persistent_path = "syslog.persistent";
constexpr const char *activation_duration_path = "syslog.activationDuration";
constexpr const char *activation_date_path = "syslog.activationDate";

// The number's integer copy, which everybody reads, is from `first` to `last`.
template <int first, int last>
cJSON_bool is_between(const cJSON *item) {
    return cJSON_IsNumber(item) && item->valueint >= first && item->valueint <= last;
}

// Every member is looked up when it is needed: a restore may have replaced it since.
constexpr config_rule rules[] = {
    {number_of_files_path, is_between<1, 99>},
    {max_file_size_path, is_between<1, INT_MAX>},
    {persistent_path, nullptr},
    {activation_duration_path, is_between<1, INT_MAX>},
    {activation_date_path, nullptr},
};

struct stop_timer {
    timer_ptr handle;
};

// All timers that are still to fire, and the latest of them, which is the one that can be
// cancelled.
std::list<stop_timer> stop_timers;
stop_timer *current_timer = nullptr;

bool is_persistent() {
    return get_config_flag(persistent_path);
}

bool is_activation_date_set() {
    const cJSON *date = get_config_item(activation_date_path);
    return date != nullptr && !cJSON_IsNull(date);
}

const char *log_directory() {
    return is_persistent() ? persistent_directory : volatile_directory;
}

bool clear_persistent_state() {
    if (!is_activation_date_set() && !is_persistent()) {
        return true;
    }
    set_config_item(activation_date_path, json_ptr(cJSON_CreateNull()));
    set_config_flag(persistent_path, false);
    return nimbrelc_config_save();
}

bool restart_log_service() {
    return or_log(log_category, service_manager_restart("syslogd-log") == 0,
                  "Failed to restart syslogd-log service");
}

bool reconfigure_log_service() {
    // Wide enough for the bytes of any number of KiB.
    char options[64];
    snprintf(options, sizeof options, "s%lld n%d %s",
             static_cast<long long>(get_config_number(max_file_size_path)) * 1024,
             get_config_number(number_of_files_path), log_directory());
    switch (cmp_file_content(options_file, options)) {
        case CMP_FILE_EQUAL:
            LOG_INFO("syslogd-log already run with the right options");
            return true;
        case CMP_FILE_DIFFERENT:
            break;
        default:
            LOG_ERROR("Failed to compare the files");
            return false;
    }
    return or_log(log_category, safe_dump_string_to_file(options_file, options),
                  "Failed to write syslog opts file") &&
           or_log(log_category, restart_log_service(), "Failed to restart syslogd-log");
}

void forget_timer(const stop_timer *timer) {
    stop_timers.remove_if([timer](const stop_timer &other) { return &other == timer; });
}

// kept: a timer stops the logging although a later one was started after it, and cancels that one.
// Timers that were started between the two find nothing left to remove.
bool remove_current_timer() {
    if (current_timer == nullptr || !timer_stop(*current_timer->handle)) {
        // The event library sets no error.
        LOG_ERROR("Failed to remove the timer: %s", strerror(EINVAL));
        return false;
    }
    forget_timer(std::exchange(current_timer, nullptr));
    return true;
}

void stop_persistent_logging(const stop_timer *fired) {
    LOG_INFO("Stopping persistent logging...");
    const bool removed = remove_current_timer();
    forget_timer(fired);
    if (!removed) {
        return;
    }
    or_log(log_category, clear_persistent_state(), "Failed to cleanup configuration after timeout");
    if (or_log(log_category, reconfigure_log_service(), "Failed to reconfigure syslogd-log")) {
        LOG_INFO("Persistent logging stopped");
    }
}

// Half of what a 32-bit clock can tell, some 34 years: leaves room for the time that it is added
// to.
int timer_seconds(int64_t seconds) {
    constexpr int64_t max_seconds = INT32_MAX / 2;
    return static_cast<int>(std::min(seconds, max_seconds));
}

// kept: an earlier timer is forgotten, not cancelled; it still fires.
bool start_stop_timer(int seconds) {
    LOG_INFO("Starting timer to stop persistent logging in %d sec.", seconds);
    stop_timer &timer = stop_timers.emplace_back();
    timer.handle = or_log(log_category, timer_new([&timer] { stop_persistent_logging(&timer); }),
                          "evtimer_new failed");
    if (!timer.handle ||
        !or_log(log_category, timer_start(*timer.handle, seconds), "evtimer_add failed")) {
        stop_timers.pop_back();
        return false;
    }
    current_timer = &timer;
    return true;
}

bool start_period(int64_t duration) {
    const auto now = print_datetime(timer_now());
    if (!now) {
        LOG_ERROR("strftime failed: %d %s", 4, strerror(errno));  // kept: no error number
        return false;
    }
    set_config_text(activation_date_path, now->c_str());
    return nimbrelc_config_save() && start_stop_timer(timer_seconds(duration));
}

// kept: whether summer time applies is taken from today, not from the stored date.
bool continue_period(int64_t duration) {
    const time_t now = timer_now();
    const auto date = parse_datetime_as_of(get_config_text(activation_date_path), now);
    if (!date) {
        // The parser itself sets no error.
        LOG_ERROR("strptime failed to parse the date: %s", strerror(EINVAL));
    }
    const time_t activated = date.value_or(-1);
    if (activated == -1) {
        LOG_ERROR("Failed to set persistent logs timer");
        return false;
    }
    const int64_t remaining = int64_t{activated} + duration - now;
    if (remaining <= 0) {
        return clear_persistent_state();
    }
    const int seconds = timer_seconds(remaining);
    LOG_INFO("Continuing persistent logging for next %d sec", seconds);
    return start_stop_timer(seconds);
}

bool setup_persistent_logging() {
    if (!is_persistent()) {
        return clear_persistent_state();
    }
    const int64_t duration = int64_t{get_config_number(activation_duration_path)} * 60;
    return is_activation_date_set() ? continue_period(duration) : start_period(duration);
}

void get_current_log_path_callback(const message_bus_args & /*args*/, message_bus_request request) {
    const char *path = log_directory();
    LOG_INFO("Returning current log path: %s", path);
    message_bus_send_string_reply(std::move(request), path);
}

constexpr message_bus_method methods[] = {
    {.member = "GetCurrentLogPath", .handler = get_current_log_path_callback},
};

}  // namespace

bool syslog_utils_configure() {
    if (!config_is_valid(log_category, rules)) {
        return false;
    }
    if (!or_log(log_category, setup_persistent_logging(), "Failed to setup persistent logging") ||
        !or_log(log_category, reconfigure_log_service(), "Failed to reconfigure syslogd-log")) {
        return false;
    }
    if (!message_bus_add_methods(log_category, "/com/kelvanto/nimbrel",
                                 "com.kelvanto.nimbrel.syslog", methods)) {
        LOG_WARN("Failed to registed GetCurrentLogPath dbus method handler");
        return false;
    }
    return true;
}
