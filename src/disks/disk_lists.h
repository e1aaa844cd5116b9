// The devices and partitions that are plugged in, as records in the order of their arrival.
#pragma once

#include <cjson/cJSON.h>

#include "common/json.h"

// Both lists empty, or none.
void disk_lists_reset();
void disk_lists_forget();

// Whole lists; arrays.
void disk_lists_set_devices(json_ptr list);
void disk_lists_set_partitions(json_ptr list);

// kept: a record that is added twice is there twice, and the first one is the first to go.
void disk_lists_add_device(json_ptr record);
void disk_lists_add_partition(json_ptr record);
void disk_lists_remove_device(const char *syspath);
void disk_lists_remove_partition(const char *syspath);

// The first device with this path, or null.
const cJSON *disk_lists_find_device(const char *syspath);

struct disk_partitions {
    int count = 0;
    int mounted = 0;
};
disk_partitions disk_lists_partitions_of(const char *disk_syspath);
