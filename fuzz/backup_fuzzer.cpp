// Backups that come in: as a file of any bytes, and as a document in one that decrypts. A restore
// changes values of the configuration, never its members; the box's own backup changes nothing.
#include "maintenance/backup.h"

#include <cstring>

#include "common/files.h"
#include "fuzz.h"

namespace {

constexpr const char *path = "/media/backup";
constexpr const char *box =
    R"({"cpeDevice": {"deviceInfo": {"softwareVersion": "08.05.09"}}, "extra": [1, {}],
        "centralStorage": {"enabled": true}, "dlna": {"mediaStreamingEnabled": true},
        "devices": {"usbMode": "host"}, "storage": {"enabled": false, "username": "",
        "password4": ""}, "nas": {"fileServices": {"samba": {"enabled": true, "daemonConfig": {}},
        "afp": {"enabled": true}, "avahi": {"enabled": true}}}, "vpn": {"enable": false,
        "username": "", "password4": "", "presharedkey4": null, "globalEnable": false}})";

bool is_container(const cJSON *item) {
    return cJSON_IsObject(item) || cJSON_IsArray(item);
}

void must_have_shape_of(const cJSON *before, const cJSON *after) {
    const cJSON *was = before->child;
    for (const cJSON *is = after->child; is != nullptr; is = is->next, was = was->next) {
        must(was != nullptr && (was->string == nullptr || strcmp(was->string, is->string) == 0),
             "a restore keeps all members");
        must(is_container(was) ? was->type == is->type : !is_container(is),
             "a restore replaces single values by single values");
        must_have_shape_of(was, is);
    }
    must(was == nullptr, "a restore takes no member away");
}

void restore_and_compare(const cJSON *document) {
    const json_ptr original = parse(box);
    const json_ptr config = parse(box);
    const bool restored = backup_restore(config.get(), document);
    must_have_shape_of(original.get(), config.get());
    must_read_back(config.get());
    must(restored || print(config) == print(original), "what is no backup changes nothing");
    const json_ptr own = backup_create(config.get());
    const std::string before = print(config);
    must(backup_restore(config.get(), own.get()) && print(config) == before,
         "the box's own backup changes nothing");
    must(backup_save(path, own.get()), "a backup can be saved");
    must(print(backup_load(path)) == print(own), "a saved backup loads as it was");
}

}  // namespace

void fuzz(std::string_view input) {
    must(dump_binary_to_file(path, input), "a file can be written");
    if (const json_ptr document = backup_load(path)) {
        restore_and_compare(document.get());
    }
    if (const json_ptr document = parse(fields(input, 1)[0])) {
        restore_and_compare(document.get());
    }
}
