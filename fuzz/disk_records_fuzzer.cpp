// The disk daemon's records, in the lists and in the data model.
#include "datamodel/datamodel_storage.h"
#include "disks/disk_lists.h"
#include "disks/disks.h"
#include "fuzz.h"

void fuzz(std::string_view input) {
    const json_ptr records = convert_ddm_respone_data_to_json(fields(input, 1)[0].c_str());
    must(!has_twins(records.get()), "no record has a member twice");
    must_read_back(records.get());
    if (!cJSON_IsArray(records.get())) {
        return;
    }
    for (uint32_t index = 0; index < 4; ++index) {
        for (const auto build : {build_physical_medium, build_logical_volume}) {
            const auto object = build(records.get(), records.get(), index);
            must(object.empty() || parse(object) != nullptr, "the data model's objects are JSON");
        }
    }
    disk_lists_set_devices(json_ptr(cJSON_Duplicate(records.get(), true)));
    disk_lists_set_partitions(json_ptr(cJSON_Duplicate(records.get(), true)));
    const cJSON *record = nullptr;
    cJSON_ArrayForEach(record, records.get()) {
        const char *syspath = json_text(record, "syspath");
        const char *disk = json_text(record, "disk_syspath");
        must(disk_lists_find_device(syspath) != nullptr, "a listed device is found");
        must(disk_lists_partitions_of(disk).count > 0, "a disk with a partition has one");
        disk_lists_remove_device(syspath);
        disk_lists_add_device(json_ptr(cJSON_Duplicate(record, true)));
    }
    int mounted = 0;
    cJSON_ArrayForEach(record, get_partitions_list()) {
        mounted += int{disk_record_is_mounted(record)};
    }
    must(count_supported_partitions() == mounted, "mounted partitions are counted");
    cJSON_ArrayForEach(record, records.get()) {
        disk_lists_remove_partition(json_text(record, "syspath"));
    }
    must(cJSON_GetArraySize(get_partitions_list()) == 0 && count_supported_partitions() == 0,
         "what was named as gone is gone");
}
