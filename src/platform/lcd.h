// Short, translated event messages on the box's front display. The display service returns an
// identifier for each message it shows; it is kept under a key of the caller's choice, by which the
// message is cleared again.
#pragma once

#include <cstdint>
#include <string>

enum lcd_event : int {
    LCD_EVENT_SD_ATTACHED = 0,
    LCD_EVENT_USB_ATTACHED = 1,
    LCD_EVENT_USB_UNSUPPORTED = 2,
    LCD_EVENT_SD_UNSUPPORTED = 3,
    LCD_EVENT_STICK_IN_WRONG_PORT = 4,
    LCD_EVENT_USB_FILESYSTEM_UNSUPPORTED = 5,
    LCD_EVENT_SD_FILESYSTEM_UNSUPPORTED = 6,
    LCD_EVENT_FIRMWARE_UPGRADE = 7,
};

// Fails, and nothing will be shown, when the texts cannot be read or parsed.
bool lcd_start();
bool lcd_stop();

// Shows `event` (unknown numbers show nothing) under `key`. `flag` is handed to the display
// service.
void lcd_show_event(const char *key, lcd_event event, bool flag);
// Clears the first message shown under `key`.
void lcd_dismiss_event(const char *key);

// True when the bus call was sent. A key may be used more than once; what is shown without one
// (null) cannot be cleared. The meaning of `number` and of the two flags is the display service's.
bool lcd_display_message(const char *key, lcd_event event, uint32_t number, bool first_flag,
                         bool second_flag);
// True when the bus call was sent; false also for a key that is not stored.
bool lcd_delete_message(const char *key);

// The event's text, which also names it in the locale file; null for an unknown event.
const char *lcd_event_get(lcd_event event);

// A shown message: the display service's identifier (0 when it gave none) and the caller's key.
struct lcd_message {
    uint32_t id = 0;
    std::string key;
};
// Compares by key text, as strcmp does.
int lcd_message_cmp(const lcd_message &a, const lcd_message &b);
