#include "fuzz.h"

#include <sched.h>
#include <strings.h>
#include <sys/mount.h>
#include <sys/stat.h>

#include <cstdio>
#include <cstdlib>

namespace {

// Puts a layer of this process alone, in memory, over directories of the host.
void cover(std::initializer_list<std::string> directories) {
    const temporary_directory layers;
    must(unshare(CLONE_NEWNS) == 0 && mount("", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
             mount("layers", layers.path().c_str(), "tmpfs", 0, nullptr) == 0,
         "root may mount");
    for (const std::string &directory : directories) {
        const std::string upper = layers.path() + directory;
        const std::string work = upper + ".work";
        mkdir(upper.c_str(), 0755);
        mkdir(work.c_str(), 0755);
        const std::string options =
            "lowerdir=" + directory + ",upperdir=" + upper + ",workdir=" + work;
        must(mount("layer", directory.c_str(), "overlay", 0, options.c_str()) == 0,
             "a layer can be put over a directory");
    }
    umount2(layers.path().c_str(), MNT_DETACH);  // the layers stay
}

}  // namespace

void must(bool holds, const char *what) {
    if (!holds) {
        fprintf(stderr, "NOT SO: %s\n", what);
        abort();
    }
}

std::vector<std::string> fields(std::string_view input, size_t count) {
    std::vector<std::string> texts(count);
    for (std::string &text : texts) {
        text = input.substr(0, input.find('\0'));
        input.remove_prefix(std::min(text.size() + 1, input.size()));
    }
    return texts;
}

std::string text_of(const cJSON *item) {
    return nimbrelc_utils_print_json_unformatted(item).value_or("nothing");
}

void must_read_back(const cJSON *item) {
    if (item != nullptr) {
        const std::string text = text_of(item);
        must(print(parse(text)) == text, "a printed item reads back as the same");
    }
}

bool has_twins(const cJSON *item) {
    const cJSON *member = nullptr;
    cJSON_ArrayForEach(member, item) {
        for (const cJSON *other = member->next; cJSON_IsObject(item) && other != nullptr;
             other = other->next) {
            if (strcasecmp(member->string, other->string) == 0) {
                return true;
            }
        }
        if (has_twins(member)) {
            return true;
        }
    }
    return false;
}

// The lines that the daemon would log are formatted all the same.
extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    cover({"/media", "/etc", "/opt"});
    logger_init("enabled=true:level=trace");
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    fuzz({reinterpret_cast<const char *>(data), size});
    return 0;
}
