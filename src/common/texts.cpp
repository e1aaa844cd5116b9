#include "common/texts.h"

#include <algorithm>
#include <cctype>

namespace {

bool is_space(char c) {
    return isspace(static_cast<unsigned char>(c)) != 0;
}

}  // namespace

bool nimbrelc_utils_is_null_or_empty(const char *text) {
    return text == nullptr || *text == '\0';
}

const char *nimbrelc_utils_empty_if_null(const char *text) {
    return text == nullptr ? "" : text;
}

std::string printable(std::string_view value) {
    std::string result(value);
    std::replace_if(
        result.begin(), result.end(),
        [](char c) { return static_cast<unsigned char>(c) < 0x20 || c == 0x7F; }, '_');
    return result;
}

std::optional<std::string> nimbrelc_utils_escape_quotes(const char *text) {
    if (text == nullptr) {
        return std::nullopt;
    }
    std::string result;
    for (const char c : std::string_view(text)) {
        if (c == '"') {
            result += '\\';
        }
        result += c;
    }
    return result;
}

bool safe_append_string(std::string &buffer, size_t &capacity, const char *text) {
    if (text == nullptr) {
        return true;
    }
    const std::string_view added = text;
    if (added.size() >= capacity) {
        return false;
    }
    if (buffer.size() + added.size() >= capacity) {
        capacity *= 2;
        buffer.reserve(capacity);
    }
    buffer += added;
    return true;
}

std::string copy_replace_str(std::string_view text, std::string_view find,
                             std::string_view replacement) {
    std::string result(text);
    const size_t position = result.find(find);
    if (position != std::string::npos) {
        result.replace(position, find.size(), replacement);
    }
    return result;
}

std::optional<std::string> copy_substring(const char *text, size_t first, size_t last) {
    const std::string_view view = nimbrelc_utils_empty_if_null(text);
    if (first > last || first >= view.size()) {
        return std::nullopt;
    }
    return std::string(view.substr(first, std::min(last, view.size() - 1) - first + 1));
}

std::optional<std::string> copy_trim_str(const char *text) {
    if (text == nullptr) {
        return std::nullopt;
    }
    std::string_view view = text;
    while (!view.empty() && is_space(view.front())) {
        view.remove_prefix(1);
    }
    while (!view.empty() && is_space(view.back())) {
        view.remove_suffix(1);
    }
    return std::string(view);
}
