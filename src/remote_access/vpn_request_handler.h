// The VPN for the web front end, bus object /ws/vpn: settings, credentials and connected clients.
// An empty answer is the only sign of failure that callers get.
#pragma once

// Serves the methods; false (logged) when one cannot be served.
bool vpn_request_handler_start();
