// A piece of the step from 08.05.08 to 08.05.09.
#pragma once

#include <cjson/cJSON.h>

#include <string_view>

// Drops `old_key`; a secret under `legacy_key` that decrypts to something moves, still encrypted,
// to an existing `new_key`; a missing `new_key` is added empty; `legacy_key` goes. `object` may be
// null.
void migrate_encrypted_field(cJSON *object, const char *legacy_key, const char *old_key,
                             const char *new_key, std::string_view passphrase);
