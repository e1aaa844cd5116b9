// Answers the firmware-upgrade component's questions about the upgrade policy in the configuration.
#pragma once

#include <event2/event.h>

// Serves the three questions; false when one of them cannot be served.
bool upgrade_config_start(event_base *base);
// Always true.
bool upgrade_config_stop();
