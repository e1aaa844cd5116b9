#include "common/build_flavour.h"
#include "common/logger.h"
#include "platform/launch.h"
#include "remote_access/vpn_server.h"

namespace {

constexpr const char *log_category = "firewall";

bool run_firewall_script(const char *mode) {
    return launch_or_log(
        log_category,
        {.not_run = "Failed to run firewallctl", .exited = "firewallctl exited with status: %d"},
        nullptr, "sudo /usr/bin/scripts/firewallctl %s %s", mode,
        is_release() ? "release" : "debug");
}

}  // namespace

bool firewall_start() {
    return run_firewall_script("start");
}

bool firewall_setup_vpn() {
    return run_firewall_script("vpn");
}

bool firewall_stop() {
    return run_firewall_script("stop");
}
