#include "disks/disk_lists.h"

#include <list>
#include <string>
#include <unordered_map>
#include <utility>

#include "common/json.h"
#include "disks/disks.h"

namespace {

std::string text_of(const cJSON *record, const char *key) {
    return json_text(record, key);
}

// Records in the order of their arrival, and found by their path without a walk.
class disk_list {
public:
    cJSON *items() const {
        return items_.get();
    }
    void set(json_ptr list) {
        by_syspath_.clear();
        items_ = std::move(list);
        cJSON *record = nullptr;
        cJSON_ArrayForEach(record, items_.get()) {
            by_syspath_[text_of(record, "syspath")].push_back(record);
        }
    }
    void append(json_ptr record) {
        // A start that failed half-way listens already but has made no lists.
        if (!items_) {
            items_.reset(cJSON_CreateArray());
        }
        by_syspath_[text_of(record.get(), "syspath")].push_back(record.get());
        cJSON_AddItemToArray(items_.get(), record.release());
    }
    // The first one, or null.
    cJSON *find(const char *syspath) const {
        const auto found = by_syspath_.find(syspath);
        return found == by_syspath_.end() ? nullptr : found->second.front();
    }
    // The first one, out of the list; null when there is none.
    json_ptr take(const char *syspath) {
        const auto found = by_syspath_.find(syspath);
        if (found == by_syspath_.end()) {
            return nullptr;
        }
        json_ptr record(cJSON_DetachItemViaPointer(items_.get(), found->second.front()));
        found->second.pop_front();
        if (found->second.empty()) {
            by_syspath_.erase(found);
        }
        return record;
    }

private:
    json_ptr items_;
    std::unordered_map<std::string, std::list<cJSON *>> by_syspath_;
};

disk_list devices;
disk_list partitions;

// What the partitions come to, kept as they come and go.
std::unordered_map<std::string, disk_partitions> partitions_of_disk;
int mounted_partitions = 0;

void count(const cJSON *partition, int step) {
    const int mounted = disk_record_is_mounted(partition) ? step : 0;
    const auto disk = partitions_of_disk.try_emplace(text_of(partition, "disk_syspath")).first;
    disk->second.count += step;
    disk->second.mounted += mounted;
    mounted_partitions += mounted;
    if (disk->second.count == 0) {
        partitions_of_disk.erase(disk);
    }
}

}  // namespace

cJSON *get_partitions_list() {
    return partitions.items();
}

int count_supported_partitions() {
    return mounted_partitions;
}

void disk_lists_reset() {
    disk_lists_set_devices(json_ptr(cJSON_CreateArray()));
    disk_lists_set_partitions(json_ptr(cJSON_CreateArray()));
}

void disk_lists_forget() {
    disk_lists_set_devices(nullptr);
    disk_lists_set_partitions(nullptr);
}

void disk_lists_set_devices(json_ptr list) {
    devices.set(std::move(list));
}

void disk_lists_set_partitions(json_ptr list) {
    partitions.set(std::move(list));
    partitions_of_disk.clear();
    mounted_partitions = 0;
    const cJSON *partition = nullptr;
    cJSON_ArrayForEach(partition, partitions.items()) {
        count(partition, 1);
    }
}

void disk_lists_add_device(json_ptr record) {
    devices.append(std::move(record));
}

void disk_lists_add_partition(json_ptr record) {
    count(record.get(), 1);
    partitions.append(std::move(record));
}

void disk_lists_remove_device(const char *syspath) {
    devices.take(syspath);
}

void disk_lists_remove_partition(const char *syspath) {
    if (const json_ptr gone = partitions.take(syspath)) {
        count(gone.get(), -1);
    }
}

const cJSON *disk_lists_find_device(const char *syspath) {
    return devices.find(syspath);
}

disk_partitions disk_lists_partitions_of(const char *disk_syspath) {
    const auto found = partitions_of_disk.find(disk_syspath);
    return found == partitions_of_disk.end() ? disk_partitions{} : found->second;
}
