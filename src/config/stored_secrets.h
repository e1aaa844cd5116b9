// The encrypted members of the configuration. Paths and passphrases are part of the stored format:
// boxes in the field hold texts encrypted with them.
#pragma once

#include <cjson/cJSON.h>

#include <optional>
#include <string>

struct stored_secret {
    const char *path;
    const char *passphrase;
};

constexpr stored_secret stored_storage_password = {"storage.password4", "k26u0crDLs"};
constexpr stored_secret stored_vpn_password = {"vpn.password4", "d9jrV2d9sU"};
constexpr stored_secret stored_vpn_preshared_key = {"vpn.presharedkey4", "GLdRwc9b93"};

// The plain text of a document's secret: "" when none is stored, nothing when it does not decrypt
// (logged).
std::optional<std::string> stored_secret_decrypt(cJSON *root, const stored_secret &secret);
