#include "file_service_config.h"

#include <strings.h>

#include <algorithm>

#include "nimbrelc_utils.h"
#include "nimbrelc_utils_json.h"

const char *file_service_text(const cJSON *object, const char *name) {
    return nimbrelc_utils_empty_if_null_json(cJSON_GetObjectItem(object, name));
}

std::string file_service_written_value(std::string_view value) {
    std::string written = nimbrelc_utils_printable(value);
    if (!written.empty() && written.back() == '\\') {
        written.back() = '_';
    }
    return written;
}

std::string file_service_written_label(const cJSON *partition) {
    std::string written = nimbrelc_utils_printable(file_service_text(partition, "label"));
    std::replace(written.begin(), written.end(), ']', '_');
    // The servers ignore case, and blanks around a section's name.
    const size_t first = written.find_first_not_of(' ');
    const size_t last = written.find_last_not_of(' ');
    if (first != std::string::npos &&
        strcasecmp(written.substr(first, last - first + 1).c_str(), "global") == 0) {
        written.insert(first, "_");
    }
    return written;
}

void file_service_write_line(std::string &text, const char *key, std::string_view value) {
    const std::string written = file_service_written_value(value);
    const char *quote = written.find(' ') != std::string::npos ? "\"" : "";
    text.append("  ").append(key).append(" = ");
    text.append(quote).append(written).append(quote).append("\n");
}

void file_service_write_directives(std::string &text, const cJSON *directives) {
    const cJSON *directive = nullptr;
    cJSON_ArrayForEach(directive, directives) {
        std::string line = file_service_text(directive, "directive");
        line += " = ";
        const cJSON *args = cJSON_GetObjectItem(directive, "args");
        const cJSON *argument = nullptr;
        cJSON_ArrayForEach(argument, args) {
            if (argument != args->child) {
                line += ' ';
            }
            line += nimbrelc_utils_empty_if_null_json(argument);
        }
        std::string written = file_service_written_value(line);
        // A bracket at the start of a line opens a section.
        const size_t first = written.find_first_not_of(' ');
        if (first != std::string::npos && written[first] == '[') {
            written[first] = '_';
        }
        text.append("  ").append(written).append("\n");
    }
}

bool file_service_is_shared(const cJSON *partition) {
    return file_service_text(partition, "mount_point")[0] != '\0';
}

void file_service_write_shares(std::string &text, const cJSON *partitions,
                               const std::function<void(const cJSON *partition)> &write_lines) {
    if (!cJSON_IsArray(partitions)) {
        return;
    }
    const cJSON *partition = nullptr;
    cJSON_ArrayForEach(partition, partitions) {
        if (!file_service_is_shared(partition)) {
            continue;
        }
        // Kept: it is the place in the list that counts, so that a first partition which is not
        // shared leaves an empty line all the same.
        if (partition != partitions->child) {
            text += '\n';
        }
        text.append("[").append(file_service_written_label(partition)).append("]\n");
        write_lines(partition);
    }
}
