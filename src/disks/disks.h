// The door of the disks: what is plugged in, told by the disk daemon and kept current, and what its
// records say. Lists and records are borrowed for one callback at most; their items are whatever
// the disk daemon sent, fields may be missing or of any kind.
#pragma once

#include <cjson/cJSON.h>

#include <string>
#include <string_view>

#include "common/json.h"
#include "common/msg_bus/message_bus.h"

// Asks for both lists and listens to what changes. Fails when a listener cannot be registered or a
// list cannot be asked for.
bool removable_devices_manager_start();
bool removable_devices_manager_stop();

// The web interface's view, object /ws/nas/devices: lists devices and partitions, asked afresh from
// the disk daemon for every request, unmounts and renames partitions.
bool device_request_handler_start();
bool device_request_handler_stop();

// Replaces the one listener; each callback may be null. `list_received` runs after a partition list
// arrived, `connected` after a partition was added, `disconnected` after one was reported gone
// (whether or not it was in the list).
using removable_devices_callback = void (*)();
void removable_devices_set_listener(removable_devices_callback list_received,
                                    removable_devices_callback connected,
                                    removable_devices_callback disconnected);

// The partition records: an array, or null before start and after stop.
cJSON *get_partitions_list();

// How many partitions are mounted, which is how many have a supported filesystem.
int count_supported_partitions();

// Ask the disk daemon afresh; the reply goes to `reply` alone, the lists here stay as they are.
// True when the call was sent. Asked for a request, that waits with the call, and stays on false.
bool removable_devices_list(message_bus_reply_ctx_cb reply);
bool removable_partitions_list(message_bus_reply_ctx_cb reply);
bool removable_devices_list(message_bus_request &request, message_bus_answer answer);
bool removable_partitions_list(message_bus_request &request, message_bus_answer answer);

// Forward a request to the disk daemon, whose answer is not awaited. True when the call was sent.
bool removable_devices_unmount_device(const char *uuid);
bool removable_devices_change_label(const char *uuid, const char *label);

// Whether a partition's record has a mount point.
bool disk_record_is_mounted(const cJSON *partition);

// The disk daemon's notation, with bare keys and single-quoted strings
// ({syspath: '/sys/block/sda', partitions_count: 1}), as JSON. The first only adds the missing
// quotes. The second parses: none for what cannot be read, which is kept in
// /tmp/nimbrel/ddm_data.err and ddm_json.err, and for a record in which a member stands twice; in a
// list such a record is left out.
std::string convert_ddm_respone_data_to_json_str(std::string_view text);
json_ptr convert_ddm_respone_data_to_json(const char *text);
// The same for what has to be a list.
json_ptr convert_ddm_list(const char *text);
