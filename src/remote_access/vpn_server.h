// The box's L2TP-over-IPsec server: hands its credentials (secrets stay encrypted) to the two
// daemons through a script, starts and stops these together with the matching firewall mode.
// Whoever fails here has logged why.
#pragma once

constexpr const char *vpn_voip_calls_block_enable_path = "vpn.voIPCallsBlockEnable";
constexpr const char *vpn_enable_path = "vpn.enable";
constexpr const char *vpn_global_enable_path = "vpn.globalEnable";
constexpr const char *vpn_username_path = "vpn.username";
constexpr const char *vpn_last_connect_timestamp_path = "vpn.lastConnectTimestamp";
constexpr const char *vpn_last_connection_duration_path = "vpn.lastConnectionDuration";

// Whether both switches are on.
bool vpn_is_switched_on();

// The firewall's modes, which a privileged script switches, and the one that the switches ask for.
bool firewall_start();
bool firewall_setup_vpn();  // as started, with VoIP calls through the VPN blocked
bool firewall_stop();
bool vpn_apply_firewall_mode();

// Hands the stored credentials to the script.
bool vpn_write_configuration();

// Both daemons and the firewall.
bool vpn_start_daemons();
bool vpn_stop_daemons();

// Serves the web front end's methods.
bool vpn_request_handler_start();
