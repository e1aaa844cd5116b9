// The daemon's persistent state: one JSON document, loaded at start, edited in place by its owners
// and written back whole. Items of the tree are borrowed: look them up afresh in every callback, a
// restore may have replaced them.
#pragma once

#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "common/json.h"
#include "common/logger.h"

const char *get_nimbrelc_config_file_location();

// Reads and parses `path` and remembers it for the next save. False (document unchanged) when it
// cannot be read or parsed.
bool nimbrelc_config_load(const char *path);

// Writes the document to the remembered path, atomically. A failed save leaves memory changed. One
// that is too large to be loaded again is not written.
bool nimbrelc_config_save();

// Whether the document can still be loaded with one more text in it; false (logged) when not. To be
// asked before a text of any length is put into the document: nothing could be saved after it.
bool nimbrelc_config_has_room_for(std::string_view text);

// Releases the document; always true.
bool nimbrelc_config_free();

// The document, or null before it is loaded.
cJSON *get_config_root();

// The item at a dotted path of the document ("storage.enabled"), or null.
cJSON *get_config_item(const char *path);

// Its value as a module reads it: true only for the JSON value true; "" for what is no text; a
// number's integer copy, 0 for what is no number. Texts are borrowed.
bool get_config_flag(const char *path);
const char *get_config_text(const char *path);
int get_config_number(const char *path);

// Puts `value` in the place of the item at the path, not saved yet; false, with nothing changed,
// when there is none: a member that is missing from the document stays missing.
bool set_config_item(const char *path, json_ptr value);
bool set_config_flag(const char *path, bool value);
bool set_config_text(const char *path, const char *value);

// A member that a module needs, and the question whether its value will do (null: any does).
struct config_rule {
    const char *path;
    cJSON_bool (*is_valid)(const cJSON *item);
};
// Whether every member is there and will do, asked in this order; otherwise logged for the module.
bool config_is_valid(const log_source &module, std::span<const config_rule> rules);

// The recorded firmware version, "" when absent. Borrowed.
const char *nimbrelc_config_get_software_version();

// The installed firmware version: /etc/version without one trailing newline.
std::optional<std::string> nimbrelc_config_read_container_version();

// Records the installed version in the document and saves it if it differs.
bool nimbrelc_config_set_software_version();
