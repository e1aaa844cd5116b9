// The box's serial console: kernel messages on it, the login prompt, its password. The state lives
// in marker files on the persistent medium; nothing is kept in memory.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <optional>
#include <string>
#include <utility>

#include "common/files.h"
#include "common/logger.h"
#include "common/secrets.h"
#include "maintenance/maintenance.h"
#include "platform/launch.h"
#include "platform/service_manager.h"

namespace {

constexpr const char *log_category = "serial_console";

constexpr const char *traces_marker = "/media/serial_traces_enabled";
constexpr const char *login_marker = "/media/serial_login_disabled";  // present: no login prompt
constexpr const char *password_file = "/media/serial_login_password";
constexpr const char *getty_service = "s6-linux-init-early-getty";

// Shared with the login program, which reads the file.
constexpr const char *password_passphrase = "B8GBcnN13CrNBsDhuUs0ss6b3bREjn28";

// Creates or removes a marker. kept: creating one that is there succeeds, removing one that is not
// fails.
bool update_marker(const char *path, bool present) {
    if (!present) {
        if (unlink(path) != 0) {
            LOG_WARN("Failed to remove file %s: %s", path, strerror(errno));
            return false;
        }
        return true;
    }
    // Not waiting, should something put a pipe there.
    const int descriptor =
        open(path, O_RDONLY | O_CREAT | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK | O_NOCTTY, 0644);
    if (descriptor == -1) {
        LOG_WARN("Failed to create file %s: %s", path, strerror(errno));
        return false;
    }
    close(descriptor);
    return true;
}

bool save_password(const char *password) {
    const auto encrypted = or_log(
        log_category, nimbrelc_utils_encrypt_and_base64_encode_data(password, password_passphrase),
        "Encryption of serial console password failed");
    return encrypted &&
           or_log(log_category,
                  safe_dump_string_to_file(password_file, encrypted->c_str(), file_mode_secret),
                  "Failed to save the serial console login password");
}

}  // namespace

void serial_console_traces_enabled_getter(message_bus_request request) {
    message_bus_send_bool_reply(std::move(request),
                                nimbrelc_utils_check_if_file_exists(traces_marker));
}

bool serial_console_traces_enabled_setter(const message_bus_arg &value,
                                          message_bus_request request) {
    if (value.type != MB_ARG_BOOLEAN) {
        LOG_WARN("Bad params passed to serial_console_traces_enabled_setter");
        return message_bus_send_bool_reply(std::move(request), false);
    }
    if (!launch_succeeds(nullptr, "sudo dmesg %s", value.boolean() ? "-E" : "-D")) {
        // kept: the marker decides the answer, also when the kernel did not follow.
        LOG_ERROR("Failed to set console logging level");
    }
    return message_bus_send_bool_reply(std::move(request),
                                       update_marker(traces_marker, value.boolean()));
}

void serial_console_login_enabled_getter(message_bus_request request) {
    message_bus_send_bool_reply(std::move(request),
                                !nimbrelc_utils_check_if_file_exists(login_marker));
}

bool serial_console_login_enabled_setter(const message_bus_arg &value,
                                         message_bus_request request) {
    if (value.type != MB_ARG_BOOLEAN) {
        LOG_WARN("Bad params passed to serial_console_login_enabled_setter");
        return message_bus_send_bool_reply(std::move(request), false);
    }
    const bool updated = update_marker(login_marker, !value.boolean());
    // kept: whatever becomes of the service, the marker decides the answer.
    if (value.boolean()) {
        service_manager_start_one(getty_service);
    } else {
        service_manager_stop_one(getty_service);
    }
    return message_bus_send_bool_reply(std::move(request), updated);
}

void serial_console_login_password_getter(message_bus_request request) {
    message_bus_send_string_reply(std::move(request), "");
}

bool serial_console_login_password_setter(const message_bus_arg &value,
                                          message_bus_request request) {
    if (value.type != MB_ARG_STRING) {
        LOG_WARN("Bad params passed to serial_console_login_password_setter");
        return message_bus_send_bool_reply(std::move(request), false);
    }
    return message_bus_send_bool_reply(std::move(request), save_password(value.string));
}
