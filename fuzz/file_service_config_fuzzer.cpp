// The configuration files of Samba and AFP, out of daemon configurations and partition records of
// any kind, as a server reads them: no value makes a line or a section of its own.
#include <cctype>
#include <map>
#include <sstream>

#include "common/texts.h"
#include "disks/disks.h"
#include "fuzz.h"
#include "sharing/file_service_afp.h"
#include "sharing/file_service_config.h"
#include "sharing/file_service_samba.h"

namespace {

// A section's name as servers compare it.
std::string compared(const std::string &name) {
    std::string result;
    for (const char c : name) {
        if (c != ' ') {
            result += static_cast<char>(tolower(static_cast<unsigned char>(c)));
        }
    }
    return result;
}

// The paths of the shares, in their order, without those that a server may expand. `keys` are the
// lines of a share.
std::string read_paths(const std::string &text, const std::vector<std::string> &keys) {
    std::map<std::string, std::string> path_of_name;
    std::string paths;
    std::string name;
    size_t row = 0;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        must(nimbrelc_utils_printable(line) == line, "a line has no control character");
        if (line.empty()) {
            continue;
        }
        if (line[0] == '[') {
            must(row == 0 || row == keys.size(), "a share has all its lines");
            must(line.find(']') == line.size() - 1, "a section's name ends with its line");
            must(name.empty() == (compared(line) == "[global]"), "one section is the global one");
            name = compared(line);
            must(name.size() > 2 && name != "[globals]", "a section has a name of its own");
            row = name == "[global]" ? keys.size() : 0;
            continue;
        }
        must(!name.empty() && line.starts_with("  "), "a line is in a section");
        must(line.back() != '\\', "no line joins the next one to it");
        const size_t key_end = line.find(" = ");
        must(key_end != std::string::npos, "a line has a value");
        if (name != "[global]") {
            must(row < keys.size() && line.substr(2, key_end - 2) == keys[row],
                 "a share has the lines of a share");
            const std::string path = line.substr(key_end + 3);
            if (row++ == 0) {
                must(path_of_name.emplace(name, path).first->second == path,
                     "no share takes the name of another place");
                paths += path.find('%') == std::string::npos ? path + "\n" : "";
            }
        }
    }
    return paths;
}

}  // namespace

void fuzz(std::string_view input) {
    const std::vector<std::string> texts = fields(input, 2);
    const json_ptr settings = parse(texts[0]);
    const json_ptr partitions = parse(texts[1]);
    std::string paths;
    const cJSON *partition = nullptr;
    cJSON_ArrayForEach(partition, partitions.get()) {
        if (cJSON_IsArray(partitions.get()) && disk_record_is_mounted(partition)) {
            std::string line;
            file_service_write_line(line, "path",
                                    nimbrelc_utils_get_json_text(partition, "mount_point"));
            paths += line.find('%') == std::string::npos ? line.substr(line.find('=') + 2) : "";
        }
    }
    for (const bool is_protected : {false, true}) {
        must(read_paths(samba_config_text(settings.get(), partitions.get(), is_protected),
                        {"path", "guest ok", "guest only", "writeable", "oplocks"}) == paths,
             "every mounted partition is a share of Samba");
        must(read_paths(afp_config_text(settings.get(), partitions.get(), is_protected),
                        {"path", "time machine", "unix priv", "read only"}) == paths,
             "every mounted partition is a share of AFP");
    }
}
