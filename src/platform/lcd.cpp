#include "platform/lcd.h"

#include <algorithm>
#include <iterator>
#include <optional>
#include <utility>
#include <vector>

#include "common/files.h"
#include "common/json.h"
#include "common/json_ptr.h"
#include "common/logger.h"
#include "common/msg_bus/message_bus.h"
#include "common/texts.h"

namespace {

constexpr const char *log_category = "lcd";
constexpr const char *locale_path = "/opt/app/locales.json";

// Indexed by event number.
constexpr const char *event_texts[] = {
    "SD card attached",
    "USB device attached",
    "Unsupported USB device attached",
    "Unsupported SD device attached",
    "Internet backup stick in wrong port",
    "Unsupported filesystem on USB device",
    "Unsupported filesystem on SD device",
    "Firmware upgrade is in process",
};

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

void display_reply(int32_t argc, const message_bus_arg *args,
                   const std::optional<std::string> &key) {
    if (!key) {
        LOG_ERROR("context is invalid");
        return;
    }
    if (find_message(key->c_str()) != stored_message_ids.end()) {
        LOG_INFO("Message with registration key: \"%s\" already exists in list", key->c_str());
    }
    lcd_message message = {.key = *key};
    if (argc == 1 && args[0].type == MB_ARG_UINT32) {
        message.id = args[0].word;
    } else {
        LOG_ERROR("DBus call to addEvent failed, we didn't get a valid ID in callback");
    }
    // kept: stored in every case, a second time under the same key and without an identifier too.
    stored_message_ids.push_back(std::move(message));
}

void delete_reply(int32_t argc, const std::string &key) {
    const auto message = find_message(key.c_str());
    if (message == stored_message_ids.end()) {
        LOG_ERROR("Requested to delete a non-existent message with key: \"%s\"", key.c_str());
        return;
    }
    // kept: forgotten whatever the display service answered.
    stored_message_ids.erase(message);
    LOG_INFO("Message with key: \"%s\" removed, dbus argc: %d", key.c_str(), argc);
}

}  // namespace

bool lcd_start(event_base * /*base*/) {
    const auto text = nimbrelc_utils_read_file(locale_path);
    if (!text) {
        LOG_ERROR("Can't load json LCD locale from: \"%s\"", locale_path);
        return false;
    }
    LOG_INFO("Loading json LCD locale from: \"%s\"", locale_path);
    json_ptr document(cJSON_Parse(text->c_str()));
    if (!document) {
        LOG_ERROR("Cannot parse json LCD locale");
        return false;
    }
    locale_root = std::move(document);
    return true;
}

bool lcd_stop() {
    locale_root.reset();
    stored_message_ids.clear();
    return true;
}

void lcd_show_event(const char *key, int event, bool flag) {
    const char *text = lcd_event_get(event);
    LOG_INFO("LCD show event \"%s\" (%s)", text != nullptr ? text : "(null)",
             nimbrelc_utils_empty_if_null(key));
    lcd_display_message(key, event, 1, true, flag);
}

void lcd_dismiss_event(const char *key) {
    LOG_INFO("LCD dismiss event \"%s\"", nimbrelc_utils_empty_if_null(key));
    lcd_delete_message(key);
}

bool lcd_display_message(const char *key, int event, uint32_t number, bool first_flag,
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
    const auto text = nimbrelc_utils_print_json_unformatted(list.get());
    if (!text) {
        return false;
    }
    auto context = key != nullptr ? std::optional<std::string>(key) : std::nullopt;
    return call_display(
        "addEvent",
        [context = std::move(context)](int32_t argc, const message_bus_arg *args) {
            display_reply(argc, args, context);
        },
        {mb_string(*text), mb_uint32(number), mb_boolean(first_flag), mb_boolean(second_flag)});
}

bool lcd_delete_message(const char *key) {
    const auto message = find_message(key);
    if (message == stored_message_ids.end()) {
        LOG_INFO("Attempt to remove non-existent message from list, key: \"%s\"",
                 nimbrelc_utils_empty_if_null(key));
        return false;
    }
    return call_display("clearEvent",
                        [context = message->key](int32_t argc, const message_bus_arg * /*args*/) {
                            delete_reply(argc, context);
                        },
                        {mb_uint32(message->id)});
}

const char *lcd_event_get(int event) {
    if (event < 0 || event >= static_cast<int>(std::size(event_texts))) {
        return nullptr;
    }
    return event_texts[event];
}

int lcd_message_cmp(const lcd_message &a, const lcd_message &b) {
    return a.key.compare(b.key);
}
