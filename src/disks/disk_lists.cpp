#include "disks/disk_lists.h"

#include <cstring>
#include <utility>

#include "common/json.h"
#include "disks/disks.h"

namespace {

json_ptr devices;
json_ptr partitions;

bool field_is(const cJSON *record, const char *key, const char *value) {
    return strcmp(nimbrelc_utils_get_json_text(record, key), value) == 0;
}

cJSON *find_by_syspath(const json_ptr &list, const char *syspath) {
    cJSON *item = nullptr;
    cJSON_ArrayForEach(item, list.get()) {
        if (field_is(item, "syspath", syspath)) {
            return item;
        }
    }
    return nullptr;
}

void append(json_ptr &list, json_ptr record) {
    // A start that failed half-way listens already but has made no lists.
    if (!list) {
        list.reset(cJSON_CreateArray());
    }
    cJSON_AddItemToArray(list.get(), record.release());
}

void remove_by_syspath(const json_ptr &list, const char *syspath) {
    if (cJSON *item = find_by_syspath(list, syspath); item != nullptr) {
        cJSON_Delete(cJSON_DetachItemViaPointer(list.get(), item));
    }
}

}  // namespace

cJSON *get_partitions_list() {
    return partitions.get();
}

int count_supported_partitions() {
    int count = 0;
    const cJSON *partition = nullptr;
    cJSON_ArrayForEach(partition, partitions.get()) {
        count += disk_record_is_mounted(partition) ? 1 : 0;
    }
    return count;
}

void disk_lists_reset() {
    devices.reset(cJSON_CreateArray());
    partitions.reset(cJSON_CreateArray());
}

void disk_lists_forget() {
    devices.reset();
    partitions.reset();
}

void disk_lists_set_devices(json_ptr list) {
    devices = std::move(list);
}

void disk_lists_set_partitions(json_ptr list) {
    partitions = std::move(list);
}

void disk_lists_add_device(json_ptr record) {
    append(devices, std::move(record));
}

void disk_lists_add_partition(json_ptr record) {
    append(partitions, std::move(record));
}

void disk_lists_remove_device(const char *syspath) {
    remove_by_syspath(devices, syspath);
}

void disk_lists_remove_partition(const char *syspath) {
    remove_by_syspath(partitions, syspath);
}

const cJSON *disk_lists_find_device(const char *syspath) {
    return find_by_syspath(devices, syspath);
}

disk_partitions disk_lists_partitions_of(const char *disk_syspath) {
    disk_partitions found;
    const cJSON *partition = nullptr;
    cJSON_ArrayForEach(partition, partitions.get()) {
        if (field_is(partition, "disk_syspath", disk_syspath)) {
            ++found.count;
            found.any_mounted = found.any_mounted || disk_record_is_mounted(partition);
        }
    }
    return found;
}
