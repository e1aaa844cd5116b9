// Logs as "nimbrelc_utils".
#include <strings.h>

#include <algorithm>
#include <utility>
#include <vector>

#include "common/files.h"
#include "common/json.h"
#include "common/logger.h"
#include "common/texts.h"
#include "disks/disks.h"

namespace {

constexpr const char *log_category = "nimbrelc_utils";
constexpr const char *raw_text_path = "/tmp/nimbrel/ddm_data.err";
constexpr const char *converted_text_path = "/tmp/nimbrel/ddm_json.err";

// A colon after one of these belongs to a value (12:30, AA:BB) or follows a quoted key.
bool keeps_colon(char previous) {
    return previous == '"' || (previous >= 'A' && previous <= 'Z') ||
           (previous >= '0' && previous <= '9');
}

// Whether a member stands twice in an object, case ignored as in lookups: then it is not said which
// one a reader would get.
bool is_ambiguous(const cJSON *item) {
    std::vector<const char *> names;
    const cJSON *member = nullptr;
    cJSON_ArrayForEach(member, item) {
        if (is_ambiguous(member)) {
            return true;
        }
        if (cJSON_IsObject(item)) {
            names.push_back(member->string);
        }
    }
    std::sort(names.begin(), names.end(),
              [](const char *a, const char *b) { return strcasecmp(a, b) < 0; });
    return std::adjacent_find(names.begin(), names.end(), [](const char *a, const char *b) {
               return strcasecmp(a, b) == 0;
           }) != names.end();
}

// Takes the ambiguous records out of a list; true when there were any.
bool drop_ambiguous(cJSON *list) {
    bool dropped = false;
    cJSON *next = nullptr;
    for (cJSON *record = list->child; record != nullptr; record = next) {
        next = record->next;
        if (is_ambiguous(record)) {
            cJSON_Delete(cJSON_DetachItemViaPointer(list, record));
            dropped = true;
        }
    }
    return dropped;
}

}  // namespace

std::string convert_ddm_respone_data_to_json_str(std::string_view text) {
    const auto byte_at = [text](size_t position) {
        return position < text.size() ? text[position] : '\0';
    };
    std::string result;
    result.reserve(2 * text.size());
    for (size_t i = 0; i < text.size(); ++i) {
        const char c = text[i];
        if (c == '\'') {
            result += '"';
        } else if (c == '{' && byte_at(i + 1) != '"') {
            result += "{\"";
        } else if (c == ':' && !keeps_colon(i == 0 ? '\0' : text[i - 1])) {
            // kept: so a key that ends in an upper-case letter or a digit stays open.
            result += "\":";
        } else if (c == ',' && byte_at(i + 1) == ' ' && byte_at(i + 2) != '"') {
            result += ", \"";
            ++i;
        } else {
            result += c;
        }
    }
    return result;
}

bool disk_record_is_mounted(const cJSON *partition) {
    return *json_text(partition, "mount_point") != '\0';
}

json_ptr convert_ddm_respone_data_to_json(const char *text) {
    const char *raw = nimbrelc_utils_empty_if_null(text);
    const std::string converted = convert_ddm_respone_data_to_json_str(raw);
    json_ptr value(cJSON_Parse(converted.c_str()));
    // A label may pretend to be further members.
    bool incomplete = false;
    if (cJSON_IsArray(value.get())) {
        incomplete = drop_ambiguous(value.get());
    } else if (is_ambiguous(value.get())) {
        value.reset();
    }
    if (value == nullptr || incomplete) {
        LOG_ERROR("Cannot parse json");
        dump_string_to_file(raw_text_path, raw);
        dump_string_to_file(converted_text_path, converted.c_str());
    }
    return value;
}

json_ptr convert_ddm_list(const char *text) {
    json_ptr list = convert_ddm_respone_data_to_json(text);
    return cJSON_IsArray(list.get()) ? std::move(list) : nullptr;
}
