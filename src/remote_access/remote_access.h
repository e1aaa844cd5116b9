// The door of remote access: SSH for a limited time, and the VPN server.
#pragma once

#include "common/msg_bus/message_bus.h"

// Applies the "ssh" section of the configuration: installs the key, then begins, continues or ends
// an activation. False when the section is invalid or a step failed.
bool ssh_start();

// Stops the server and deletes the forwarding. Timer and configuration stay as they are, for the
// next start to continue the activation.
bool ssh_stop();

// Data-model hook: applies the configuration after a change.
bool ssh_configure();

// Data-model setter of the duration, an unsigned number of minutes. Re-times a running activation
// from its first date; saves, and answers true, only when the configuration could be applied.
bool ssh_set_activation_duration(const message_bus_arg &value, message_bus_request request);

// Sets the forwarding when SSH is enabled, deletes it otherwise.
bool ssh_update_port_forwarding();

// Checks the "vpn" section of the configuration, serves the bus methods and restarts the server.
bool vpn_start();

// Stops the daemons and the firewall; the result is the firewall's. The methods stay served.
bool vpn_stop();

// Stops the daemons, writes their configuration anew and starts them if they are switched on.
bool vpn_restart();

// Data-model hook of both switches: starts or stops the daemons.
bool vpn_after_set_enable();

// Data-model hook: applies the firewall mode.
bool vpn_after_set_voip_calls_block_enable();
