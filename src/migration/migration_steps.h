// Every migration step: each edits the configuration document in place so that it fits the next
// firmware version. Steps never fail; what a document lacks is skipped. A member that is present
// but of an unexpected kind counts as missing where a section is meant.
#pragma once

#include <cjson/cJSON.h>

#include <string_view>

// In the table of the product variant kq3.
bool kq3_upgrade_from_08_04_99_to_08_05_01(cJSON *root);
bool kq3_upgrade_from_08_05_08_to_08_05_09(cJSON *root);

// Pieces of the first: date-times in the form "%FT%TZ", and a fresh crash-dump record. A text
// member of the section becomes its first 19 characters and a "Z" if that is a date-time, null
// otherwise; a missing, null or empty one is left.
void convert_datetime_field_to_valid_format(cJSON *root, const char *section, const char *name);
void convert_datetime_fields_to_valid_format(cJSON *root);
void reset_segfault_section(cJSON *root);

// A piece of the second: drops `old_key`; a secret under `legacy_key` that decrypts to something
// moves, still encrypted, to an existing `new_key`; a missing `new_key` is added empty;
// `legacy_key` goes. `object` may be null.
void migrate_encrypted_field(cJSON *object, const char *legacy_key, const char *old_key,
                             const char *new_key, std::string_view passphrase);

// In the folder unused/: in no table of this variant, built and kept with the same contract.
bool upgrade_from_07_70_13_to_07_70_14(cJSON *root);
bool upgrade_from_07_71_99_to_07_77_00(cJSON *root);
bool upgrade_from_08_00_37_to_08_00_38(cJSON *root);
bool upgrade_from_08_05_08_to_08_05_09(cJSON *root);
