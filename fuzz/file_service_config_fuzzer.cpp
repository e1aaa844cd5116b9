// The files of Samba and AFP as a server reads them: no value makes a line or a section of its own.
// The input is a daemon configuration, then labels and mount points in turn.
#include <algorithm>
#include <cctype>
#include <map>
#include <sstream>

#include "common/texts.h"
#include "fuzz.h"
#include "sharing/file_service_config.h"
#include "sharing/file_services_table.h"

namespace {

bool is_literal(const std::string &path) {
    return path.find('%') == std::string::npos && path.find("  ") == std::string::npos;
}

// The paths of the shares, whose lines have these keys, but those that Samba reads as another one.
std::string read_paths(const std::string &text, const std::vector<std::string> &keys) {
    std::map<std::string, std::string> path_of_name;
    std::string paths;
    std::string name;
    size_t row = keys.size();
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        must(printable(line) == line, "a line has no control character");
        const size_t first = line.find_first_not_of(' ');
        must(first == std::string::npos || line[first] != '=', "a line's key has a name");
        if (first != std::string::npos && line[first] == '[') {
            must(row == keys.size(), "a share has all its lines");
            must(line.find(']') == line.size() - 1, "a name ends with its line");
            std::transform(line.begin(), line.end(), line.begin(), tolower);
            std::string without_blanks = line;
            std::erase(without_blanks, ' ');
            const bool is_global = without_blanks == "[global]";
            must(is_global == name.empty(), "one section is the global one");
            must(without_blanks != "[]" && without_blanks != "[globals]",
                 "a share has a name of its own");
            // A run of blanks is one.
            line.erase(std::unique(line.begin(), line.end(),
                                   [](char a, char b) { return a == ' ' && b == ' '; }),
                       line.end());
            name = line;
            row = is_global ? row : 0;
        } else if (!line.empty()) {
            const size_t end = line.find(" = ");
            must(line.starts_with("  ") && end != std::string::npos, "a line is a key's");
            must(line.back() != '\\', "no line joins the next one to it");
            if (row == 0) {
                const std::string path = line.substr(end + 3);
                must(path_of_name.emplace(name, path).first->second == path, "names are distinct");
                paths += is_literal(path) ? path + "\n" : "";
            }
            must(row == keys.size() ? path_of_name.empty() : line.substr(2, end - 2) == keys[row++],
                 "a share has the lines of a share");
        }
    }
    return paths;
}

}  // namespace

void fuzz(std::string_view input) {
    const std::vector<std::string> texts = fields(input, 9);
    const json_ptr settings = parse(texts[0]);
    const json_ptr partitions = partitions_of(std::span(texts).subspan(1));
    std::string paths;
    for (size_t i = 2; i < texts.size(); i += 2) {
        std::string line;
        file_service_write_line(line, "", texts[i]);
        const bool is_written = !texts[i].empty() && is_literal(texts[i]);
        paths += is_written ? line.substr(std::string_view("   = ").size()) : "";
    }
    must(read_paths(samba_config_text(settings.get(), partitions.get(), true),
                    {"path", "guest ok", "guest only", "writeable", "oplocks"}) == paths,
         "every mounted partition is a share of Samba");
    must(read_paths(afp_config_text(settings.get(), partitions.get(), false),
                    {"path", "time machine", "unix priv", "read only"}) == paths,
         "every mounted partition is a share of AFP");
}
