// Backups that come in: a file of any bytes, and a document in one that decrypts. A restore puts
// values in the place of the configuration's members; the box's own backup changes nothing.
#include "maintenance/backup.h"

#include "common/files.h"
#include "fuzz.h"

namespace {

constexpr const char *path = "/media/backup";
constexpr const char *box =
    R"({"extra":[1,{}],"centralStorage":{"enabled":true},"dlna":{"mediaStreamingEnabled":true},)"
    R"("devices":{"usbMode":"host"},"storage":{"enabled":false,"username":"","password4":""},)"
    R"("nas":{"fileServices":{"samba":{"enabled":true,"daemonConfig":{}},"afp":{"enabled":1}}},)"
    R"("vpn":{"enable":false,"username":"","password4":"","presharedkey4":null}})";

std::string names_of(const cJSON *object) {
    std::string names;
    const cJSON *member = nullptr;
    cJSON_ArrayForEach(member, object) {
        names += member->string + std::string(",");
    }
    return names;
}

void restore(const json_ptr &document) {
    const json_ptr config = parse(box);
    const bool restored = backup_restore(config.get(), document.get());
    must(restored || print(config) == box, "what is no backup changes nothing");
    must(names_of(config.get()) == names_of(parse(box).get()), "a restore keeps the members");
    must_read_back(config.get());
    const json_ptr own = backup_create(config.get());
    const std::string before = print(config);
    must(backup_restore(config.get(), own.get()) && print(config) == before,
         "the box's own backup changes nothing");
    must(backup_save(path, own.get()) && print(backup_load(path)) == print(own),
         "a saved backup loads as it was");
}

}  // namespace

void fuzz(std::string_view input) {
    must(dump_binary_to_file(path, input), "a file can be written");
    restore(backup_load(path));
    restore(parse(fields(input, 1)[0]));
}
