#include "sharing/file_service_config.h"

#include "common/json.h"
#include "common/texts.h"
#include "sharing/share_names.h"

namespace {

constexpr char replacement = '_';

// A backslash there would join the next line to this one.
void end_without_backslash(std::string &text, size_t length) {
    if (length > 0 && text[length - 1] == '\\') {
        text[length - 1] = replacement;
    }
}

// The text before the "=" of a line, "" for one that makes no line: a bracket at its start would
// open a section, and for a line without a name servers refuse the whole file.
std::string written_directive(const cJSON *directive) {
    std::string written = file_service_written_value(json_text(directive, "directive"));
    const size_t first = written.find_first_not_of(' ');
    if (first == std::string::npos) {
        return {};
    }
    if (written[first] == '[' || written[first] == '=') {
        written[first] = replacement;
    }
    return written;
}

std::string joined_texts(const cJSON *texts) {
    std::string joined;
    const cJSON *text = nullptr;
    cJSON_ArrayForEach(text, texts) {
        if (text != texts->child) {
            joined += ' ';
        }
        joined += nimbrelc_utils_empty_if_null_json(text);
    }
    return joined;
}

}  // namespace

std::string file_service_written_value(std::string_view value) {
    std::string written = printable(value);
    // Without quotes, blanks after a backslash do not save the next line.
    end_without_backslash(written, written.find_last_not_of(' ') + 1);
    return written;
}

void file_service_write_line(std::string &text, const char *key, std::string_view value) {
    std::string written = printable(value);
    end_without_backslash(written, written.size());
    const char *quote = written.find(' ') != std::string::npos ? "\"" : "";
    text.append("  ").append(key).append(" = ");
    text.append(quote).append(written).append(quote).append("\n");
}

void file_service_write_directives(std::string &text, const cJSON *directives) {
    const cJSON *directive = nullptr;
    cJSON_ArrayForEach(directive, directives) {
        const std::string name = written_directive(directive);
        if (name.empty()) {
            continue;
        }
        const std::string value = joined_texts(cJSON_GetObjectItem(directive, "args"));
        text.append("  ").append(name).append(" = ");
        text.append(file_service_written_value(value)).append("\n");
    }
}

void file_service_write_shares(std::string &text, const cJSON *partitions,
                               bool (*can_serve)(const cJSON *partition),
                               const std::function<void(const cJSON *partition)> &write_lines) {
    for (const auto &[partition, name] : share_names_of(partitions, can_serve)) {
        // kept: it is the place in the list that counts, so that a first partition which is not
        // shared leaves an empty line all the same.
        if (partition != partitions->child) {
            text += '\n';
        }
        text.append("[").append(name).append("]\n");
        write_lines(partition);
    }
}
