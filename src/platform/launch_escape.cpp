#include "platform/launch.h"

namespace {

std::string escape(std::string_view value, std::string_view active) {
    std::string escaped;
    for (const char c : value) {
        if (active.find(c) == std::string_view::npos) {
            escaped += c;
        } else if (c == '\n') {
            // The shell drops a newline that follows a backslash.
            escaped += "\"\n\"";
        } else {
            escaped += '\\';
            escaped += c;
        }
    }
    return escaped;
}

}  // namespace

std::string launch_escape_quoted(std::string_view value) {
    return escape(value, "\"\\$`");
}

std::string launch_escape_unquoted(std::string_view value) {
    return escape(value, "\"\\$`';&|<>()*?[{}~#\n");
}
