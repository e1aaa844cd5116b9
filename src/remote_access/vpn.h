// The box's L2TP-over-IPsec server: keeps its credentials (secrets encrypted), hands them to the
// two daemons through a script, starts and stops these together with the matching firewall mode,
// and serves the web front end on the bus object "/ws/vpn".
#pragma once

#include <event2/event.h>

// Checks the "vpn" section of the configuration, serves the bus methods and restarts the server.
bool vpn_start(event_base *base);

// Stops the daemons and the firewall; the result is the firewall's. The methods stay served.
bool vpn_stop();

// Stops the daemons, writes their configuration anew and starts them if they are switched on.
bool vpn_restart();

// Data-model hook of both switches: starts or stops the daemons.
bool vpn_after_set_enable(event_base *base);

// Data-model hook: applies the firewall mode.
bool vpn_after_set_voip_calls_block_enable(event_base *base);
