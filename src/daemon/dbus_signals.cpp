// Reacts to signals of other services of the box: a new WAN address, and the begin and end of a
// firmware upgrade.
#include "common/logger.h"
#include "common/msg_bus/message_bus.h"
#include "daemon/nimbrelc.h"
#include "platform/lcd.h"
#include "remote_access/remote_access.h"

namespace {

constexpr const char *log_category = "dbus_signals";

constexpr const char *upgrade_message_key = "FW_UPGRADE";

void ip_address_changed_callback(const message_bus_args & /*args*/) {
    if (!vpn_restart()) {
        LOG_ERROR("Failed to restart VPN");
    }
    if (!ssh_update_port_forwarding()) {
        LOG_ERROR("Failed to update ssh port forwarding");
    }
}

void show_upgrade_message_callback(const message_bus_args & /*args*/) {
    lcd_show_event(upgrade_message_key, LCD_EVENT_FIRMWARE_UPGRADE, false);
}

void hide_upgrade_message_callback(const message_bus_args & /*args*/) {
    lcd_dismiss_event(upgrade_message_key);
}

constexpr message_bus_signal network_signals[] = {
    {.member = "IPAddressChanged",
     .handler = ip_address_changed_callback,
     .args = "",
     .refusal_text = "ip_address_changed_callback doesn't accept arguments"},
};
constexpr message_bus_signal upgrade_signals[] = {
    {.member = "ShowUpgradeMessage", .handler = show_upgrade_message_callback},
    {.member = "HideUpgradeMessage", .handler = hide_upgrade_message_callback},
};

}  // namespace

bool dbus_signals_start() {
    constexpr const char *failure_text = "Couldn't register DBus signal handler";
    return message_bus_add_signals(log_category, "com.kelvanto.systemcalls", network_signals,
                                   failure_text) &&
           message_bus_add_signals(log_category, "com.kelvanto.nimbrel.upgrade", upgrade_signals,
                                   failure_text);
}

bool dbus_signals_stop() {
    return true;
}
