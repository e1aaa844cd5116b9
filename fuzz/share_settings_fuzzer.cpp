// New credentials for the shares: user name and password. They are taken exactly when they keep the
// rules, and read back as they were given.
#include "sharing/share_settings.h"

#include <algorithm>

#include "fuzz.h"

namespace {

constexpr const char *document =
    R"({"storage": {"enabled": true, "username": "", "password4": ""}})";

bool is_letter(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

bool keeps_rules(const std::string &username, const std::string &password) {
    const auto of_username = [](char c) {
        return (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') ||
               std::string_view("_.-\\").find(c) != std::string_view::npos;
    };
    const auto of_password = [](char c) { return c >= ' ' && c <= '~'; };
    return username.size() >= 3 && username.size() <= 32 &&
           std::all_of(username.begin(), username.end(), of_username) && password.size() >= 8 &&
           password.size() <= 16 && std::all_of(password.begin(), password.end(), of_password) &&
           std::any_of(password.begin(), password.end(), is_letter) &&
           !std::all_of(password.begin(), password.end(), is_letter) && username != password;
}

}  // namespace

void fuzz(std::string_view input) {
    static const bool compiled = share_settings_compile_rules();
    must(compiled, "the rules compile");
    std::ofstream(get_nimbrelc_config_file_location()) << document;
    must(nimbrelc_config_load(get_nimbrelc_config_file_location()), "the document loads");
    const std::vector<std::string> texts = fields(input, 2);
    const bool changed = share_settings_change_protection(true, texts[0].c_str(), texts[1].c_str());
    must(changed == keeps_rules(texts[0], texts[1]), "credentials are taken as the rules say");
    must(nimbrelc_config_load(get_nimbrelc_config_file_location()), "the document loads again");
    storage_config stored;
    must(file_services_request_handler_get_storage_config(stored), "a stored password decrypts");
    must(stored.username == (changed ? texts[0] : "") &&
             stored.password == (changed ? texts[1] : ""),
         "what was taken is what is stored");
    must(file_services_request_handler_is_storage_protection_enabled() == changed,
         "shares are protected with credentials only");
}
