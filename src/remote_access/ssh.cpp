// Remote access by SSH for a limited time: the server runs, a key is installed and an external port
// of the gateway is forwarded to it. The activation's start is kept in the configuration, so that
// it goes on, or ends, across a restart of the daemon.
#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <optional>
#include <string>
#include <utility>

#include "common/build_flavour.h"
#include "common/dates.h"
#include "common/json.h"
#include "common/logger.h"
#include "common/timer.h"
#include "config/config.h"
#include "platform/launch.h"
#include "platform/service_manager.h"
#include "remote_access/remote_access.h"

namespace {

constexpr const char *log_category = "ssh";

constexpr const char *authorized_key_path = "ssh.authorizedKey";
constexpr const char *enable_path = "ssh.enable";
constexpr const char *external_port_path = "ssh.externalNPPort";
constexpr const char *activation_duration_path = "ssh.activationDuration";
constexpr const char *activation_date_path = "ssh.activationDate";

constexpr const char *server = "dropbear";
constexpr int server_port = 22;
constexpr int max_external_port = 65534;
constexpr uint32_t max_release_minutes = 14400;  // ten days
constexpr const char *firewall_zone = "internal";
constexpr const char *firewall_slot = "100";

constexpr char set_forwarding_not_run[] = "Failed run set_port_forwarding.sh";
constexpr char endless_activation_text[] =
    "On devel builds activationDuration=0 means infinite ssh activation. No timer set up.";

timer_ptr stop_timer;

bool is_enabled() {
    return get_config_flag(enable_path);
}

bool is_activation_running() {
    const cJSON *date = get_config_item(activation_date_path);
    return date != nullptr && !cJSON_IsNull(date);
}

uint32_t granted_minutes(uint32_t minutes) {
    return is_release() ? std::min(minutes, max_release_minutes) : minutes;
}

// In seconds; wraps at 32 bits, like the box's own clock. The stored number may be beyond 31 bits;
// as everywhere its integer copy counts.
uint32_t effective_duration() {
    return granted_minutes(static_cast<uint32_t>(get_config_number(activation_duration_path))) * 60;
}

// What is left of an activation that began at `activation`: after the deadline nothing on a release
// build and 0 on a devel build, where a duration of 0, which means an activation without end, gives
// 0 too.
std::optional<int32_t> remaining_seconds(time_t activation) {
    const uint32_t duration = effective_duration();
    // Added and subtracted as unsigned numbers: a sum beyond 2038 wraps, as a signed one would.
    const auto deadline = static_cast<int32_t>(static_cast<uint32_t>(activation) + duration);
    const auto clock = static_cast<int32_t>(timer_now());
    if (!is_release() && duration == 0) {
        return 0;
    }
    if (deadline > clock) {
        return static_cast<int32_t>(static_cast<uint32_t>(deadline) - static_cast<uint32_t>(clock));
    }
    return is_release() ? std::nullopt : std::optional<int32_t>(0);
}

constexpr config_rule rules[] = {
    {authorized_key_path, cJSON_IsString},
    {enable_path, cJSON_IsBool},
    {external_port_path,
     [](const cJSON *port) -> cJSON_bool {
         return cJSON_IsNumber(port) && port->valueint >= 0 && port->valueint <= max_external_port;
     }},
    {activation_duration_path,
     [](const cJSON *duration) -> cJSON_bool {
         return cJSON_IsNumber(duration) && duration->valueint >= 0;
     }},
    {activation_date_path,
     [](const cJSON *date) -> cJSON_bool { return cJSON_IsString(date) || cJSON_IsNull(date); }},
};

bool install_authorized_key() {
    const std::string key = launch_escape_quoted(
        nimbrelc_utils_empty_if_null_json(get_config_item(authorized_key_path)));
    return launch_or_log(
        log_category,
        {.not_run = "Failed to save the authorized key - set_auth_key",
         .exited = "Failed to save the authorized key - set_auth_key exited with status: %d"},
        nullptr, "sudo /usr/bin/scripts/ssh/set_auth_key.sh \"%s\"", key.c_str());
}

bool set_port_forwarding() {
    LOG_INFO("Set port forwarding");
    const cJSON *port = get_config_item(external_port_path);
    if (!cJSON_IsNumber(port)) {
        LOG_ERROR(set_forwarding_not_run);
        return false;
    }
    return launch_or_log(
        log_category,
        {.not_run = set_forwarding_not_run,
         .exited = "set_port_forwarding.sh exited with status: %d"},
        nullptr, "sudo /usr/bin/scripts/firewall/set_port_forwarding.sh %s %s %d %d \"%s\"",
        firewall_zone, firewall_slot, port->valueint, server_port, "Remote SSH Access");
}

bool delete_port_forwarding() {
    LOG_INFO("Delete port forwarding");
    return launch_or_log(log_category,
                         {.not_run = "Failed to run delete_port_forwarding.sh",
                          .exited = "delete_port_forwarding.sh exited with status: %d"},
                         nullptr, "sudo /usr/bin/scripts/firewall/delete_port_forwarding.sh %s %s",
                         firewall_zone, firewall_slot);
}

bool start_server() {
    return service_manager_start(server) == 0;
}

bool stop_server() {
    LOG_INFO("Stoping dropbear service...");
    if (is_release()) {
        return service_manager_stop(server) == 0;
    }
    // kept: whatever the configuration says.
    LOG_INFO("On devel version we never switch off ssh service");
    return true;
}

bool clean_up_session() {
    LOG_INFO("Cleanup ssh session");
    delete_port_forwarding();
    if (!is_activation_running() && !is_enabled()) {
        return true;
    }
    set_config_item(activation_date_path, json_ptr(cJSON_CreateNull()));
    set_config_flag(enable_path, false);
    return nimbrelc_config_save();
}

bool remove_timer() {
    if (!stop_timer || !timer_stop(*stop_timer)) {
        // The event library sets no error.
        LOG_ERROR("Failed to remove the timer: %s", strerror(EINVAL));
        return false;
    }
    stop_timer.reset();
    return true;
}

void end_session() {
    LOG_INFO("Stopping ssh session...");
    if (!remove_timer()) {
        return;
    }
    or_log(log_category, clean_up_session(), "Failed to cleanup configuration after timeout");
    if (or_log(log_category, stop_server(), "Failed to stop SSH")) {
        LOG_INFO("SSH stopped");
    }
}

bool restart_timer(int32_t seconds) {
    LOG_INFO("Restarting timer to stop ssh session in %d sec.", seconds);
    if (stop_timer && !remove_timer()) {
        return false;
    }
    LOG_INFO("Starting timer to stop ssh session in %d sec.", seconds);
    if (!is_release() && effective_duration() == 0) {
        LOG_INFO(endless_activation_text);
        return true;
    }
    stop_timer = or_log(log_category, timer_new(end_session), "evtimer_new failed");
    return stop_timer &&
           or_log(log_category, timer_start(*stop_timer, seconds), "evtimer_add failed");
}

bool set_activation_date() {
    const std::optional<std::string> date = print_datetime(timer_now());
    if (!date) {
        LOG_ERROR("strftime failed: %d %s", 4, strerror(errno));
        return false;
    }
    set_config_text(activation_date_path, date->c_str());
    return nimbrelc_config_save();
}

std::optional<time_t> get_activation_date() {
    const std::optional<time_t> date =
        parse_datetime_as_of(get_config_text(activation_date_path), timer_now());
    if (!date) {
        // The parser itself sets no error.
        LOG_ERROR("strptime failed to parse the date: %s", strerror(EINVAL));
        return std::nullopt;
    }
    return *date == -1 ? std::nullopt : date;
}

// What a new and a continued activation share: the forwarding, then the server.
bool open_access() {
    if (!or_log(log_category, ssh_update_port_forwarding(), "Failed to set port forwarding")) {
        return false;
    }
    const bool started = or_log(log_category, start_server(), "Failed to start SSH");
    if (!started) {
        delete_port_forwarding();
    }
    return started;
}

bool begin_activation() {
    LOG_INFO("Start ssh session");
    if (!or_log(log_category, set_activation_date(), "Failed to set activation date") ||
        !open_access()) {
        return false;
    }
    const bool timed =
        or_log(log_category, restart_timer(static_cast<int32_t>(effective_duration())),
               "Failed to start timer");
    if (!timed) {
        stop_server();
        delete_port_forwarding();
    }
    return timed;
}

bool continue_activation() {
    LOG_INFO("Try to continue ssh activation");
    const std::optional<time_t> date =
        or_log(log_category, get_activation_date(), "get_activation_date() failed");
    if (!date) {
        return false;
    }
    const std::optional<int32_t> remaining = remaining_seconds(*date);
    if (!remaining) {
        LOG_INFO("It's after the deadline, just cleanup the configuration");
        // kept: the server is not stopped here.
        return clean_up_session();
    }
    if (!open_access()) {
        return false;
    }
    LOG_INFO("Continuing ssh session for next %d sec", *remaining);
    const bool timed = or_log(log_category, restart_timer(*remaining), "Failed to start timer");
    if (!timed) {
        // kept: unlike with a new activation the server is left running.
        delete_port_forwarding();
    }
    return timed;
}

}  // namespace

bool ssh_start() {
    if (!or_log(log_category, config_is_valid(log_category, rules), "SSH configuration invalid") ||
        !or_log(log_category, install_authorized_key(), "Failed to set authorized key")) {
        return false;
    }
    // kept: a devel build goes on for a disabled SSH as for an enabled one, without the forwarding.
    // kept: a release build leaves the armed timer alone; it finds nothing to clean up later.
    if (is_release() && !is_enabled()) {
        LOG_INFO("SSH is disabled, cleaning up session");
        return stop_server() && clean_up_session();
    }
    return is_activation_running() ? continue_activation() : begin_activation();
}

bool ssh_stop() {
    LOG_INFO("Stopping ssh");
    const bool stopped = or_log(log_category, stop_server(), "Failed to stop SSH");
    return or_log(log_category, delete_port_forwarding(), "Failed to delete port forwarding!") &&
           stopped;
}

bool ssh_configure() {
    LOG_INFO("Applying ssh configuration");
    return or_log(log_category, ssh_start(), "Failed to configure SSH");
}

bool ssh_set_activation_duration(const message_bus_arg &value, message_bus_request request) {
    LOG_INFO("Setting activation duration");
    if (value.type != MB_ARG_UINT32) {
        LOG_WARN("Bad params passed to ssh_set_activation_duration");
        return message_bus_send_bool_reply(std::move(request), false);
    }
    set_config_item(activation_duration_path,
                    json_ptr(cJSON_CreateNumber(granted_minutes(value.word))));
    const bool applied = ssh_configure() && nimbrelc_config_save();
    return message_bus_send_bool_reply(std::move(request), applied);
}

bool ssh_update_port_forwarding() {
    LOG_INFO("Update port forwarding");
    return is_enabled() ? set_port_forwarding() : delete_port_forwarding();
}
