// The data model's storage rows: physical media, logical volumes (mounted partitions) and their
// summaries. Nothing is kept: each request asks the disk daemon for its lists, and is answered when
// they have come. Every failure gives an empty reply.
#pragma once

#include <cjson/cJSON.h>

#include <cstdint>
#include <string>

#include "common/msg_bus/message_bus.h"

void physical_medium_number_of_entries_getter(message_bus_request request);
void logical_volume_number_of_entries_getter(message_bus_request request);
void usb_storage_devices_count_getter(message_bus_request request);
void sd_card_present_getter(message_bus_request request);

// The object of one medium or volume, counted from 1, as JSON text.
void physical_medium_getter(message_bus_request request, uint32_t index, const char *key);
void logical_volume_getter(message_bus_request request, uint32_t index, const char *key);

// Volumes are not renamed this way: always answers false.
bool logical_volume_name_setter(const message_bus_arg &value, message_bus_request request,
                                uint32_t index, const char *key);

// The data model's name of a partition's type ("NTFS", or "X_KELVANTO-COM_" and the type).
std::string file_system_name(const char *type);

// The answers of the two indexed getters, made from the disk daemon's lists; "", and logged, when
// there is no such medium or volume.
std::string build_physical_medium(const cJSON *devices, const cJSON *partitions, uint32_t index);
std::string build_logical_volume(const cJSON *devices, const cJSON *partitions, uint32_t index);
