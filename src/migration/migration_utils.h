// What several migration steps need: dropping and replacing members, and reading
// secrets in the format of an earlier firmware generation.
#pragma once

#include <cjson/cJSON.h>

#include <optional>
#include <string>
#include <string_view>

// Deletes the member, if present.
void migration_utils_delete(cJSON *section, const char *name);

// Gives an existing member a text; does nothing when it is missing.
void migration_utils_replace_text(cJSON *section, const char *name, const char *text);

// Switches the shares' protection off and forgets its user; `old_password` goes, and `new_password`
// is appended as an empty text.
void migration_utils_reset_storage_protection(cJSON *root, const char *old_password,
                                              const char *new_password);

// Decrypts a secret of the R8 format: base64 of {8-byte salt, 16-byte initialisation vector,
// AES-256-CBC ciphertext}; key by EVP_BytesToKey with SHA-1 and 1000 iterations. "" for null or "";
// nothing on failure (logged).
std::optional<std::string> migration_utils_decrypt_string_R8(const char *text,
                                                             std::string_view passphrase);
