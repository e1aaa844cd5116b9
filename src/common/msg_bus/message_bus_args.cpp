// Logs as "message_bus".
#include "common/msg_bus/message_bus_args.h"

#include <algorithm>
#include <cstring>
#include <string_view>

#include "common/logger.h"

namespace {

constexpr const char *log_category = "message_bus";

// The bus's letter of each type, by its number from 1.
constexpr std::string_view type_letters = "suib";

// "?", which no signature has, for an unknown type.
char type_letter(int32_t type) {
    return message_bus_is_known_type(type) ? type_letters[static_cast<size_t>(type - 1)] : '?';
}

message_bus_arg read_arg(DBusMessageIter &iterator, int bus_type) {
    message_bus_arg arg;
    const size_t known = type_letters.find(static_cast<char>(bus_type));
    if (known == std::string_view::npos) {
        // Not read: a wider value would not fit, and a descriptor would be left open.
        return arg;
    }
    arg.type = static_cast<int32_t>(known + 1);
    if (arg.type == MB_ARG_STRING) {
        dbus_message_iter_get_basic(&iterator, &arg.string);
    } else {
        dbus_message_iter_get_basic(&iterator, &arg.word);
    }
    return arg;
}

// A copy in which each byte that belongs to no valid character became U+FFFD.
std::string repaired(std::string_view text) {
    constexpr size_t longest_character = 4;
    std::string result;
    while (!text.empty()) {
        const size_t limit = std::min(longest_character, text.size());
        size_t length = 1;
        while (length <= limit &&
               !dbus_validate_utf8(std::string(text.substr(0, length)).c_str(), nullptr)) {
            ++length;
        }
        if (length > limit) {
            result += "\xEF\xBF\xBD";
            length = 1;
        } else {
            result += text.substr(0, length);
        }
        text.remove_prefix(length);
    }
    return result;
}

bool append_string(DBusMessageIter &iterator, const char *text) {
    const char *value = text != nullptr ? text : "";
    std::string valid;
    if (!dbus_validate_utf8(value, nullptr)) {
        // The library ends the process when it is given anything else.
        valid = repaired(value);
        value = valid.c_str();
    }
    return dbus_message_iter_append_basic(&iterator, DBUS_TYPE_STRING, &value);
}

bool append_arg(DBusMessageIter &iterator, const message_bus_arg &arg) {
    if (!message_bus_is_known_type(arg.type)) {
        return false;
    }
    if (arg.type == MB_ARG_STRING) {
        return append_string(iterator, arg.string);
    }
    const dbus_uint32_t value =
        arg.type == MB_ARG_BOOLEAN ? dbus_uint32_t{arg.word != 0} : arg.word;
    return dbus_message_iter_append_basic(&iterator, type_letter(arg.type), &value);
}

}  // namespace

message_bus_args::message_bus_args(DBusMessage *message) : count_(0) {
    DBusMessageIter iterator;
    if (!dbus_message_iter_init(message, &iterator)) {
        return;
    }
    int bus_type = DBUS_TYPE_INVALID;
    while ((bus_type = dbus_message_iter_get_arg_type(&iterator)) != DBUS_TYPE_INVALID) {
        if (static_cast<size_t>(count_) < values_.size()) {
            values_[static_cast<size_t>(count_)] = read_arg(iterator, bus_type);
        }
        ++count_;
        dbus_message_iter_next(&iterator);
    }
}

std::span<const message_bus_arg> message_bus_args::values() const {
    const auto came = static_cast<size_t>(std::max(count_, 0));
    return {values_.data(), std::min(came, values_.size())};
}

const char *message_bus_args::mismatch(std::string_view signature) const {
    if (count_ < 0) {
        return "error reading parameters";
    }
    if (static_cast<size_t>(count_) != signature.size()) {
        return "count mismatch";
    }
    const bool equal = std::equal(
        signature.begin(), signature.end(), values_.begin(),
        [](char letter, const message_bus_arg &arg) { return type_letter(arg.type) == letter; });
    return equal ? nullptr : "type mismatch";
}

const message_bus_arg *message_bus_append_args(DBusMessage *message,
                                               std::span<const message_bus_arg> args) {
    DBusMessageIter iterator;
    dbus_message_iter_init_append(message, &iterator);
    for (const message_bus_arg &arg : args) {
        if (!append_arg(iterator, arg)) {
            return &arg;
        }
    }
    return nullptr;
}

bool message_bus_append_list(DBusMessage *message, std::span<const message_bus_arg> args) {
    const message_bus_arg *refused = message_bus_append_args(message, args);
    if (refused == nullptr) {
        return true;
    }
    if (!message_bus_is_known_type(refused->type)) {
        LOG_WARN("Unknown arg type");
    }
    LOG_WARN("failed to pass argument");
    return false;
}

bool message_bus_fits(DBusMessage *message) {
    constexpr size_t max_text = size_t{16} * 1024 * 1024;
    const message_bus_args args(message);
    size_t total = 0;
    for (const message_bus_arg &arg : args.values()) {
        total += arg.type == MB_ARG_STRING ? strlen(arg.string) : 0;
    }
    return total <= max_text;
}

bool message_bus_is_known_type(int32_t type) {
    return type >= MB_ARG_STRING && type <= MB_ARG_BOOLEAN;
}
