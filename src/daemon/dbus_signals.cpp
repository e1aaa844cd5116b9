// Reacts to signals of other services of the box: a new WAN address, and the begin and end of a
// firmware upgrade.
#include <algorithm>
#include <iterator>

#include "common/logger.h"
#include "common/msg_bus/message_bus.h"
#include "daemon/nimbrelc.h"
#include "platform/lcd.h"
#include "remote_access/remote_access.h"

namespace {

constexpr const char *log_category = "dbus_signals";

constexpr const char *upgrade_message_key = "FW_UPGRADE";

void ip_address_changed_callback(int32_t argc, const message_bus_arg * /*args*/) {
    if (argc != 0) {
        LOG_WARN("ip_address_changed_callback doesn't accept arguments");
        return;
    }
    if (!vpn_restart()) {
        LOG_ERROR("Failed to restart VPN");
    }
    if (!ssh_update_port_forwarding()) {
        LOG_ERROR("Failed to update ssh port forwarding");
    }
}

void show_upgrade_message_callback(int32_t /*argc*/, const message_bus_arg * /*args*/) {
    lcd_show_event(upgrade_message_key, LCD_EVENT_FIRMWARE_UPGRADE, false);
}

void hide_upgrade_message_callback(int32_t /*argc*/, const message_bus_arg * /*args*/) {
    lcd_dismiss_event(upgrade_message_key);
}

struct signal_listener {
    const char *interface;
    const char *signal;
    message_bus_signal_handler handler;
};

constexpr signal_listener listeners[] = {
    {"com.kelvanto.systemcalls", "IPAddressChanged", ip_address_changed_callback},
    {"com.kelvanto.nimbrel.upgrade", "ShowUpgradeMessage", show_upgrade_message_callback},
    {"com.kelvanto.nimbrel.upgrade", "HideUpgradeMessage", hide_upgrade_message_callback},
};

}  // namespace

bool dbus_signals_start(event_base * /*base*/) {
    const bool added =
        std::all_of(std::begin(listeners), std::end(listeners), [](const signal_listener &row) {
            return message_bus_add_signal_listener(row.interface, row.signal, row.handler);
        });
    if (!added) {
        LOG_ERROR("Couldn't register DBus signal handler");
    }
    return added;
}

bool dbus_signals_stop() {
    return true;
}
