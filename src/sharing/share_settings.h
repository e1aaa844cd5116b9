// What the configuration says about sharing: whether the box acts as a file server at all, and the
// one user name and password that guard the shares. Asked by everybody in this room.
#pragma once

#include <optional>
#include <string>

bool file_services_request_handler_is_central_storage_enabled();

// Stores and saves the switch; false when it is so already, or when the save failed (logged).
bool share_settings_change_central_storage(bool enabled);

// True only when protection is wanted and both a user name and a password are stored.
bool file_services_request_handler_is_storage_protection_enabled();

// Whether protection is wanted, whatever the credentials.
bool share_settings_is_protection_wanted();

// The stored user name, "" for none. Borrowed.
const char *share_settings_get_username();

struct storage_config {
    bool enabled = false;  // protection wanted, whatever the credentials
    std::string username;
    std::optional<std::string> password;  // plain text; none when the stored one does not decrypt
};

// What is not stored is empty.
storage_config file_services_request_handler_get_storage_config();

// True when the configuration was changed and saved. Empty values never overwrite stored ones.
bool share_settings_change_protection(bool wanted, const char *username, const char *password);
