// The VPN for the web front end, bus object /ws/vpn: settings, credentials and connected clients.
// An empty answer is the only sign of failure that callers get.
#pragma once

// Compiles the rules for new credentials and serves the methods; false (logged) when either fails.
bool vpn_request_handler_start();
