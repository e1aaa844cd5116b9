// What Samba itself makes of its configuration file: it takes it, and shares exactly the places
// that are written there.
#include "sharing/file_service_samba.h"

#include <set>
#include <sstream>

#include "fuzz.h"
#include "platform/launch.h"

namespace {

std::set<std::string> paths(const std::string &text) {
    std::set<std::string> found;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        if (const size_t at = line.find("path = "); at < 3) {
            std::erase(line, '"');
            found.insert(line.substr(at + 7));
        }
    }
    return found;
}

}  // namespace

void fuzz(std::string_view input) {
    const json_ptr partitions = parse(fields(input, 1)[0]);
    const json_ptr settings = parse(R"({"serverName": "Home gateway", "workgroup": "WORKGROUP",
                                        "anonymousUserLogin": "nobody"})");
    const std::string text = samba_config_text(settings.get(), partitions.get(), false);
    std::ofstream("/media/samba.config") << text;
    int status = -1;
    std::string read;
    const int result = launch("testparm -s /media/samba.config 2>/dev/null", &status, &read);
    must(launch_succeeded(result, status), "Samba takes the file");
    must(paths(read) == paths(text), "Samba shares what is written");
}
