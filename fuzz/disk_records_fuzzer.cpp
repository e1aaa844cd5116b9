// The disk daemon's records, what becomes of them in the lists and what the data model says of
// them.
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
    for (int i = 0; i <= cJSON_GetArraySize(records.get()) + 1; ++i) {
        for (const auto build : {build_physical_medium, build_logical_volume}) {
            const auto index = static_cast<uint32_t>(i);
            if (const auto text = build(records.get(), records.get(), index)) {
                must(cJSON_IsObject(parse(*text).get()), "the data model's objects are JSON");
            }
        }
    }
    disk_lists_set_devices(json_ptr(cJSON_Duplicate(records.get(), true)));
    disk_lists_set_partitions(json_ptr(cJSON_Duplicate(records.get(), true)));
    const int mounted = count_supported_partitions();
    const cJSON *record = nullptr;
    cJSON_ArrayForEach(record, records.get()) {
        const char *syspath = nimbrelc_utils_get_json_text(record, "syspath");
        const char *disk = nimbrelc_utils_get_json_text(record, "disk_syspath");
        must(disk_lists_find_device(syspath) != nullptr, "a listed device is found");
        must(disk_lists_partitions_of(disk).count > 0, "a disk with a partition has one");
        disk_lists_add_partition(json_ptr(cJSON_Duplicate(record, true)));
    }
    must(count_supported_partitions() == 2 * mounted, "as many mounted partitions came again");
    cJSON_ArrayForEach(record, records.get()) {
        const char *syspath = nimbrelc_utils_get_json_text(record, "syspath");
        disk_lists_remove_partition(syspath);
        disk_lists_remove_partition(syspath);
        disk_lists_remove_device(syspath);
    }
    must(cJSON_GetArraySize(get_partitions_list()) == 0, "what was named as gone is gone");
    disk_lists_forget();
}
