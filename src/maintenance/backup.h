// Encrypted backup of the user's settings, and restoring one. Secrets travel both in their stored
// form and in plain text inside the encrypted file, so that another box, or a box with a backup of
// an older form, can take them. After a restore the daemon ends its loop and is started again by
// the supervisor.
//
// File: AES-128-ECB (standard padding) of the indented JSON document; the key is EVP_BytesToKey
// with SHA-1, no salt, PASS and one iteration.
#pragma once

#include <array>
#include <optional>
#include <string>
#include <string_view>

#include "common/json.h"

// Dotted paths of the configuration that are copied as they are, in the order of the document.
extern const std::array<const char *, 13> FIELDS_TO_BACKUP;

constexpr char PASS[] = "7v!n5&s7";
constexpr int PASS_LEN = 8;

// The backup document of a configuration; none when that is no object.
json_ptr backup_create(cJSON *root);

// Prints, encrypts and writes a document. A short write to `path` is not noticed.
bool backup_save(const char *path, const cJSON *document);

std::optional<std::string> backup_encrypt(std::string_view data);
std::optional<std::string> backup_decrypt(std::string_view data);

// Reads, decrypts and parses a file; none on failure (logged).
json_ptr backup_load(const char *path);

// Writes the document's values into the configuration; false, with nothing changed, when the
// document is no backup. Members that are lists or objects are skipped; any other takes the place
// of what its path finds, a whole section too.
bool backup_restore(cJSON *root, const cJSON *document);
