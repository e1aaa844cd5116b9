#include "remote_access/firewall.h"

#include <sys/wait.h>

#include "common/build_flavour.h"
#include "common/logger.h"
#include "platform/launch.h"

namespace {

constexpr const char *log_category = "firewall";

bool run_firewall_script(const char *mode) {
    int status = -1;
    if (launch_with_args("sudo /usr/bin/scripts/firewallctl %s %s", &status, nullptr, mode,
                         is_release() ? "release" : "debug") != LAUNCH_OK) {
        LOG_ERROR("Failed to run firewallctl");
        return false;
    }
    if (status != 0) {
        LOG_ERROR("firewallctl exited with status: %d", WEXITSTATUS(status));
        return false;
    }
    return true;
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
