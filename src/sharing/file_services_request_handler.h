// Central storage and the protection of the shares: whether the box acts as a file server at all,
// and the one user name and password that guard the shares. Serves the web methods that change
// them, the on/off switches of the file services, and the PAM and NSS modules' questions.
#pragma once

#include <event2/event.h>

#include <optional>
#include <string>

// Registers the bus methods and compiles the rules for new credentials; false when either fails.
bool file_services_request_handler_start(event_base *base);
// Always true.
bool file_services_request_handler_stop();

bool file_services_request_handler_is_central_storage_enabled();

// True only when protection is wanted and both a user name and a password are stored.
bool file_services_request_handler_is_storage_protection_enabled();

struct storage_config {
    bool enabled = false;  // protection wanted, whatever the credentials
    std::string username;
    std::string password;  // plain text
};

// Fills `config` from the configuration; what is not stored is empty. False when the stored
// password does not decrypt: the other two are filled all the same, the password is empty.
bool file_services_request_handler_get_storage_config(storage_config &config);

// The stored form (base64) of a plain password; nothing for null, "" or on failure (logged).
std::optional<std::string> file_services_request_handler_encrypt_storage_password(const char *text);

// The plain text of a stored password, up to its first zero byte; nothing for null, "" or on
// failure (logged).
std::optional<std::string> file_services_request_handler_decrypt_storage_password(const char *text);
