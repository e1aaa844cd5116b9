// The box's L2TP-over-IPsec server: hands its credentials (secrets stay encrypted) to the two
// daemons through a script, starts and stops these together with the matching firewall mode.
#pragma once

constexpr const char *vpn_voip_calls_block_enable_path = "vpn.voIPCallsBlockEnable";
constexpr const char *vpn_enable_path = "vpn.enable";
constexpr const char *vpn_global_enable_path = "vpn.globalEnable";
constexpr const char *vpn_username_path = "vpn.username";
constexpr const char *vpn_last_connect_timestamp_path = "vpn.lastConnectTimestamp";
constexpr const char *vpn_last_connection_duration_path = "vpn.lastConnectionDuration";

// Whether both switches are on.
bool vpn_is_switched_on();

// Brings the firewall in line with the switches; false (logged) when its script failed.
bool vpn_apply_firewall_mode();

// Hands the stored credentials to the script; false (logged) when it failed.
bool vpn_write_configuration();

// Both daemons and the firewall; false (logged) when a step failed.
bool vpn_start_daemons();
bool vpn_stop_daemons();
