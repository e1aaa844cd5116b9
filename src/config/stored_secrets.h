// The passphrases of the configuration's encrypted members. They are part of the stored format:
// boxes in the field hold texts encrypted with them.
#pragma once

constexpr const char *storage_passphrase = "k26u0crDLs";            // storage.password4
constexpr const char *vpn_password_passphrase = "d9jrV2d9sU";       // vpn.password4
constexpr const char *vpn_preshared_key_passphrase = "GLdRwc9b93";  // vpn.presharedkey4
