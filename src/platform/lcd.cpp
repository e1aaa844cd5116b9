#include "platform/lcd.h"

#include <algorithm>
#include <iterator>
#include <optional>
#include <utility>
#include <vector>

#include "common/files.h"
#include "common/json.h"
#include "common/logger.h"
#include "common/msg_bus/message_bus.h"
#include "common/texts.h"

namespace {

constexpr const char *log_category = "lcd";
constexpr const char *locale_path = "/opt/app/locales.json";

json_ptr locale_root;
std::vector<lcd_message> stored_message_ids;

std::vector<lcd_message>::iterator find_message(const char *key) {
    const lcd_message wanted = {.key = nimbrelc_utils_empty_if_null(key)};
    return std::find_if(
        stored_message_ids.begin(), stored_message_ids.end(),
        [&](const lcd_message &message) { return lcd_message_cmp(message, wanted) == 0; });
}

bool call_display(const char *method, message_bus_reply_ctx_cb reply,
                  std::initializer_list<message_bus_arg> args) {
    return message_bus_call_method_with_args(
        "com.softathome.dm", "/AP/LCD", "com.softathome.dm.AP.LCD", method, std::move(reply), args);
}

void display_reply(const message_bus_args &args, const std::optional<std::string> &key) {
    if (!key) {
        LOG_ERROR("context is invalid");
        return;
    }
    if (find_message(key->c_str()) != stored_message_ids.end()) {
        LOG_INFO("Message with registration key: \"%s\" already exists in list",
                 printable(*key).c_str());
    }
    lcd_message message = {.key = *key};
    if (args.are("u")) {
        message.id = args[0].word;
    } else {
        LOG_ERROR("DBus call to addEvent failed, we didn't get a valid ID in callback");
    }
    // kept: stored in every case, a second time under the same key and without an identifier too.
    stored_message_ids.push_back(std::move(message));
}

void delete_reply(const message_bus_args &args, const std::string &key) {
    const auto message = find_message(key.c_str());
    if (message == stored_message_ids.end()) {
        LOG_ERROR("Requested to delete a non-existent message with key: \"%s\"",
                  printable(key).c_str());
        return;
    }
    // kept: forgotten whatever the display service answered.
    stored_message_ids.erase(message);
    LOG_INFO("Message with key: \"%s\" removed, dbus argc: %d", printable(key).c_str(),
             args.count());
}

}  // namespace

bool lcd_start() {
    const auto text = nimbrelc_utils_read_file(locale_path);
    if (!text) {
        LOG_ERROR("Can't load json LCD locale from: \"%s\"", locale_path);
        return false;
    }
    LOG_INFO("Loading json LCD locale from: \"%s\"", locale_path);
    json_ptr document =
        or_log(log_category, json_ptr(cJSON_Parse(text->c_str())), "Cannot parse json LCD locale");
    if (document) {
        locale_root = std::move(document);
        return true;
    }
    return false;
}

bool lcd_stop() {
    locale_root.reset();
    stored_message_ids.clear();
    return true;
}

void lcd_show_event(const char *key, lcd_event event, bool flag) {
    const char *text = lcd_event_get(event);
    LOG_INFO("LCD show event \"%s\" (%s)", text != nullptr ? text : "(null)",
             printable(nimbrelc_utils_empty_if_null(key)).c_str());
    lcd_display_message(key, event, 1, true, flag);
}

void lcd_dismiss_event(const char *key) {
    LOG_INFO("LCD dismiss event \"%s\"", printable(nimbrelc_utils_empty_if_null(key)).c_str());
    lcd_delete_message(key);
}

bool lcd_display_message(const char *key, lcd_event event, uint32_t number, bool first_flag,
                         bool second_flag) {
    if (!locale_root) {
        LOG_ERROR("Locale not parsed or invalid, won't send message");
        return false;
    }
    const cJSON *languages = cJSON_GetObjectItem(locale_root.get(), lcd_event_get(event));
    if (!cJSON_IsObject(languages)) {
        // kept: the event is not named.
        LOG_ERROR("Failed to find proper locale object for event id: ");
        return false;
    }
    const json_ptr list(cJSON_CreateArray());
    const cJSON *language = nullptr;
    cJSON_ArrayForEach(language, languages) {
        cJSON *item = cJSON_CreateObject();
        cJSON_AddStringToObject(item, "Language", language->string);
        cJSON_AddStringToObject(item, "Description", nimbrelc_utils_empty_if_null_json(language));
        cJSON_AddItemToArray(list.get(), item);
    }
    auto context = key != nullptr ? std::optional<std::string>(key) : std::nullopt;
    return call_display("addEvent",
                        [context = std::move(context)](const message_bus_args &args) {
                            display_reply(args, context);
                        },
                        {mb_string(print_json_unformatted(list.get())), mb_uint32(number),
                         mb_boolean(first_flag), mb_boolean(second_flag)});
}

bool lcd_delete_message(const char *key) {
    const auto message = find_message(key);
    if (message == stored_message_ids.end()) {
        LOG_INFO("Attempt to remove non-existent message from list, key: \"%s\"",
                 printable(nimbrelc_utils_empty_if_null(key)).c_str());
        return false;
    }
    return call_display(
        "clearEvent",
        [context = message->key](const message_bus_args &args) { delete_reply(args, context); },
        {mb_uint32(message->id)});
}

const char *lcd_event_get(lcd_event event) {
    switch (event) {
        case LCD_EVENT_SD_ATTACHED:
            return "SD card attached";
        case LCD_EVENT_USB_ATTACHED:
            return "USB device attached";
        case LCD_EVENT_USB_UNSUPPORTED:
            return "Unsupported USB device attached";
        case LCD_EVENT_SD_UNSUPPORTED:
            return "Unsupported SD device attached";
        case LCD_EVENT_STICK_IN_WRONG_PORT:
            return "Internet backup stick in wrong port";
        case LCD_EVENT_USB_FILESYSTEM_UNSUPPORTED:
            return "Unsupported filesystem on USB device";
        case LCD_EVENT_SD_FILESYSTEM_UNSUPPORTED:
            return "Unsupported filesystem on SD device";
        case LCD_EVENT_FIRMWARE_UPGRADE:
            return "Firmware upgrade is in process";
    }
    return nullptr;
}

int lcd_message_cmp(const lcd_message &a, const lcd_message &b) {
    return a.key.compare(b.key);
}
