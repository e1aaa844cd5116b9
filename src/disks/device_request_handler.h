// The web interface's view of the storage that is plugged in, object /ws/nas/devices: lists devices
// and partitions, asked afresh from the disk daemon for every request, unmounts and renames
// partitions.
#pragma once

#include <event2/event.h>

bool device_request_handler_start(event_base *base);
bool device_request_handler_stop();
