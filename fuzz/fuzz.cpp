#include "fuzz.h"

#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>

#include <csignal>
#include <cstdlib>

namespace {

// Puts a layer of this process alone, in memory, over a directory of the host.
void cover(const std::string &directory, const std::string &layers) {
    const std::string upper = layers + directory;
    const std::string work = upper + ".work";
    mkdir(upper.c_str(), 0755);
    mkdir(work.c_str(), 0755);
    const std::string options = "lowerdir=" + directory + ",upperdir=" + upper + ",workdir=" + work;
    must(mount("", directory.c_str(), "overlay", 0, options.c_str()) == 0, "root can mount");
}

// The fuzzer's clock does not break into the launcher's reading.
bool restart_what_the_clock_interrupts() {
    struct sigaction clock {};
    sigaction(SIGALRM, nullptr, &clock);
    clock.sa_flags |= SA_RESTART;
    return sigaction(SIGALRM, &clock, nullptr) == 0;
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

void must_read_back(const cJSON *item) {
    must(item == nullptr || print(parse(print(item))) == print(item), "an item reads back");
}

bool has_twins(const cJSON *item) {
    const cJSON *member = nullptr;
    cJSON_ArrayForEach(member, item) {
        if (has_twins(member) ||
            (cJSON_IsObject(item) && cJSON_GetObjectItem(item, member->string) != member)) {
            return true;
        }
    }
    return false;
}

bool load_document(const std::string &text) {
    std::ofstream(get_nimbrelc_config_file_location()) << text;
    return nimbrelc_config_load(get_nimbrelc_config_file_location());
}

void must_save_document() {
    const std::string before = print(get_config_root());
    must(nimbrelc_config_save(), "a document can be saved");
    must(nimbrelc_config_load(get_nimbrelc_config_file_location()), "a saved document loads");
    must(print(get_config_root()) == before, "a saved document loads as it was");
}

// What the daemon would log is formatted all the same.
extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    const temporary_directory layers;
    const char *path = layers.path().c_str();
    must(unshare(CLONE_NEWNS) == 0 && mount("", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
             mount("", path, "tmpfs", 0, nullptr) == 0,
         "root can mount");
    for (const char *directory : {"/media", "/etc", "/opt"}) {
        cover(directory, path);
    }
    umount2(path, MNT_DETACH);  // the layers stay
    std::filesystem::create_directories("/opt/app/default_config");
    logger_init("enabled=true:level=trace");
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static const bool restarted = restart_what_the_clock_interrupts();
    must(restarted, "calls are restarted");
    fuzz({reinterpret_cast<const char *>(data), size});
    return 0;
}
