// What Samba itself makes of its file: it shares exactly the places that are written there. The
// input is labels and mount points in turn.
#include "sharing/file_services_table.h"

#include <dbus/dbus.h>

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
            found.insert(line.substr(at));
        }
    }
    return found;
}

}  // namespace

void fuzz(std::string_view input) {
    const json_ptr partitions = partitions_of(fields(input, 16));
    const std::string text = samba_config_text(nullptr, partitions.get(), false);
    if (!dbus_validate_utf8(text.c_str(), nullptr)) {
        return;  // nothing else comes by the bus
    }
    std::ofstream("/media/samba.config") << text;
    std::string read;
    must(launch_succeeds(&read, "testparm -s /media/samba.config 2>/dev/null"),
         "Samba takes the file");
    must(paths(read) == paths(text), "Samba shares what is written");
}
