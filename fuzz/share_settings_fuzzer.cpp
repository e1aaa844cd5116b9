// New credentials for the shares, user name and password: taken exactly when they keep the rules,
// and read back as they were given.
#include "sharing/share_settings.h"

#include <algorithm>

#include "fuzz.h"

namespace {

bool is_letter(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

bool keep_rules(const std::string &username, const std::string &password) {
    const auto letters = std::count_if(password.begin(), password.end(), is_letter);
    return username.size() >= 3 && username.size() <= 32 && password.size() >= 8 &&
           password.size() <= 16 && letters > 0 && letters < std::ssize(password) &&
           std::all_of(password.begin(), password.end(),
                       [](char c) { return c >= ' ' && c <= '~'; }) &&
           username.find_first_not_of("abcdefghijklmnopqrstuvwxyz0123456789_.-\\") ==
               std::string::npos &&
           username != password;
}

}  // namespace

void fuzz(std::string_view input) {
    const std::vector<std::string> texts = fields(input, 2);
    must(load_document(R"({"storage": {"enabled": true, "username": "", "password4": ""}})"), "");
    const bool taken = share_settings_change_protection(true, texts[0].c_str(), texts[1].c_str());
    must(taken == keep_rules(texts[0], texts[1]), "credentials are taken as the rules say");
    must_save_document();
    storage_config stored;
    must(file_services_request_handler_get_storage_config(stored), "a stored password decrypts");
    must(stored.username == (taken ? texts[0] : "") && stored.password == (taken ? texts[1] : ""),
         "what was taken is what is stored");
}
