// The door of sharing: what is plugged in becomes shares for the network, while central storage is
// on.
#pragma once

#include <optional>
#include <string>

// Decides when Samba, AFP and Avahi are started, stopped, reconfigured or restarted. Starting
// listens to partitions coming and going, stopping stops the three at once, past their queues.
// Always true.
bool file_services_manager_start();
bool file_services_manager_stop();

// Serves the web methods for central storage, the protection of the shares and the switches of the
// file services, and answers the PAM and NSS modules. False when a method cannot be served;
// stopping is always true.
bool file_services_request_handler_start();
bool file_services_request_handler_stop();

// Tells the media server whether it may stream; may be started again at any time. False when the
// methods could not be served (the state is told all the same); stopping is always true.
bool dlna_manager_start();
bool dlna_manager_stop();

// The stored form (base64) of a plain share password; nothing for null, "" or on failure (logged).
std::optional<std::string> file_services_request_handler_encrypt_storage_password(const char *text);

// The plain text of a stored share password, up to its first zero byte; nothing for null, "" or on
// failure (logged).
std::optional<std::string> file_services_request_handler_decrypt_storage_password(const char *text);
