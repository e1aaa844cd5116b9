// Logs as "nimbrelc_utils".
#include "common/json.h"

#include <utility>

#include "common/files.h"
#include "common/logger.h"
#include "common/texts.h"

namespace {

constexpr const char *log_category = "nimbrelc_utils";

// Puts `value` where `member` stands, under the member's key.
void replace_member(cJSON *object, cJSON *member, json_ptr value) {
    // The library sets a key only when it adds to an object.
    const json_ptr naming(cJSON_CreateObject());
    cJSON *named = value.release();
    cJSON_AddItemToObject(naming.get(), member->string, named);
    cJSON_ReplaceItemViaPointer(object, member, cJSON_DetachItemViaPointer(naming.get(), named));
}

int kind_of(const cJSON *item) {
    return item->type & 0xFF;
}

bool kinds_agree(const cJSON *source, const cJSON *target) {
    return cJSON_IsNull(source) || cJSON_IsNull(target) ||
           (cJSON_IsBool(source) && cJSON_IsBool(target)) || kind_of(source) == kind_of(target);
}

std::string owned_text(char *printed) {
    std::string text(nimbrelc_utils_empty_if_null(printed));
    cJSON_free(printed);
    return text;
}

}  // namespace

json_ptr nimbrelc_utils_read_file_and_parse_json(const char *path) {
    const std::optional<std::string> text = nimbrelc_utils_read_file(path);
    return text ? or_log(log_category, json_ptr(cJSON_Parse(text->c_str())),
                         "Cannot parse json formatted file")
                : nullptr;
}

cJSON *nimbrelc_utils_get_json_object(cJSON *root, std::string_view path, cJSON **parent) {
    cJSON *searched = nullptr;
    cJSON *item = nullptr;
    cJSON *next = root;
    while (!path.empty()) {
        const size_t dot = path.find('.');
        const std::string key(path.substr(0, dot));
        path.remove_prefix(dot == std::string_view::npos ? path.size() : dot + 1);
        if (key.empty()) {
            continue;
        }
        searched = cJSON_IsObject(next) ? next : nullptr;
        item = cJSON_GetObjectItem(searched, key.c_str());
        if (item == nullptr) {
            break;
        }
        next = item;
    }
    if (parent != nullptr) {
        *parent = searched;
    }
    return item;
}

cJSON *json_section(cJSON *root, std::string_view path) {
    cJSON *section = nimbrelc_utils_get_json_object(root, path, nullptr);
    return cJSON_IsObject(section) ? section : nullptr;
}

bool nimbrelc_utils_remove_json_object(cJSON *root, std::string_view path) {
    cJSON *parent = nullptr;
    cJSON *item = nimbrelc_utils_get_json_object(root, path, &parent);
    if (item == nullptr) {
        return false;
    }
    cJSON_Delete(cJSON_DetachItemViaPointer(parent, item));
    return true;
}

bool json_replace(cJSON *root, std::string_view path, json_ptr value) {
    cJSON *parent = nullptr;
    cJSON *item = nimbrelc_utils_get_json_object(root, path, &parent);
    if (item == nullptr) {
        return false;
    }
    replace_member(parent, item, std::move(value));
    return true;
}

void json_set(cJSON *object, const char *name, json_ptr value) {
    if (cJSON *member = cJSON_GetObjectItem(object, name)) {
        replace_member(object, member, std::move(value));
    } else if (cJSON_IsObject(object)) {
        cJSON_AddItemToObject(object, name, value.release());
    }
}

bool nimbrelc_utils_json_is_null_or_empty(const cJSON *item) {
    return nimbrelc_utils_is_null_or_empty(cJSON_GetStringValue(item));
}

const char *nimbrelc_utils_empty_if_null_json(const cJSON *item) {
    return nimbrelc_utils_empty_if_null(cJSON_GetStringValue(item));
}

const char *json_text(const cJSON *object, const char *name) {
    return nimbrelc_utils_empty_if_null_json(cJSON_GetObjectItem(object, name));
}

double nimbrelc_utils_zero_if_null(const cJSON *item) {
    return item == nullptr ? 0.0 : item->valuedouble;
}

void nimbrelc_utils_copy_values_to_json(const cJSON *source, cJSON *target, bool copy_arrays) {
    if (!cJSON_IsObject(source) || !cJSON_IsObject(target)) {
        return;
    }
    cJSON *next = nullptr;
    for (cJSON *member = target->child; member != nullptr; member = next) {
        next = member->next;
        const cJSON *stored = cJSON_GetObjectItem(source, member->string);
        if (stored == nullptr || !kinds_agree(stored, member)) {
            continue;
        }
        if (cJSON_IsObject(member)) {
            // A null has nothing to merge: it never takes a whole section away.
            nimbrelc_utils_copy_values_to_json(stored, member, copy_arrays);
        } else if (copy_arrays || !cJSON_IsArray(stored)) {
            replace_member(target, member, json_ptr(cJSON_Duplicate(stored, true)));
        }
    }
}

std::string print_json(const cJSON *item) {
    return owned_text(cJSON_Print(item));
}

std::string print_json_unformatted(const cJSON *item) {
    return owned_text(cJSON_PrintUnformatted(item));
}

int json_type(const cJSON *item) {
    static constexpr int library_kinds[] = {cJSON_False,  cJSON_True,  cJSON_NULL,  cJSON_Number,
                                            cJSON_String, cJSON_Array, cJSON_Object};
    int number = 0;
    for (const int kind : library_kinds) {
        if (item != nullptr && kind_of(item) == kind) {
            return number;
        }
        ++number;
    }
    return -1;
}
