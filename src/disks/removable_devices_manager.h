// The daemon's view of the storage that is plugged in: two lists, of devices and of partitions,
// asked from the disk daemon at start and kept current from its signals. Tells one listener when
// partitions come and go, shows LCD messages for disks, and forwards unmount and relabel requests.
#pragma once

#include <cjson/cJSON.h>
#include <event2/event.h>

#include "common/msg_bus/message_bus.h"

using removable_devices_callback = void (*)();

// Fails when a listener cannot be registered or a list cannot be asked for.
bool removable_devices_manager_start(event_base *base);
bool removable_devices_manager_stop();

// Replaces the one listener; each callback may be null. `list_received` runs after a partition list
// arrived, `connected` after a partition was added, `disconnected` after one was reported gone
// (whether or not it was in the list).
void removable_devices_set_listener(removable_devices_callback list_received,
                                    removable_devices_callback connected,
                                    removable_devices_callback disconnected);

// The partition records: an array, or null before start and after stop. Borrowed: not to be kept
// beyond the callback. Its items are whatever the disk daemon sent; fields may be missing or of any
// kind.
cJSON *get_partitions_list();

// How many partitions have a "mount_point", which is how many have a supported filesystem.
int count_supported_partitions();

// Ask the disk daemon afresh; the reply goes to `reply` alone, the manager's lists stay as they
// are. True when the call was sent.
bool removable_devices_list(message_bus_reply_ctx_cb reply);
bool removable_partitions_list(message_bus_reply_ctx_cb reply);

// Forward a request to the disk daemon, whose answer is not awaited. True when the call was sent.
bool removable_devices_unmount_device(const char *uuid);
bool removable_devices_change_label(const char *uuid, const char *label);
