// Switches the box's firewall between its modes through a privileged script. True when the script
// ran and exited with 0.
#pragma once

bool firewall_start();
bool firewall_setup_vpn();  // as started, with VoIP calls through the VPN blocked
bool firewall_stop();
