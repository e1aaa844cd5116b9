#include "remote_access/firewall.h"

#include "common/build_flavour.h"
#include "common/logger.h"
#include "platform/launch.h"

namespace {

constexpr const char *log_category = "firewall";

bool run_firewall_script(const char *mode) {
    int status = -1;
    const int result = launch_with_args("sudo /usr/bin/scripts/firewallctl %s %s", &status, nullptr,
                                        mode, is_release() ? "release" : "debug");
    return launch_succeeded_or_log(result, status, log_category, "Failed to run firewallctl",
                                   "firewallctl exited with status: %d");
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
