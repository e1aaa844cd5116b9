// A responder on sd-bus: answers Get(s) with a text.
#include <systemd/sd-bus.h>

#include "same_libraries.h"

namespace {

int answer(sd_bus_message *message, void *, sd_bus_error *) {
    const char *text = nullptr;
    const int read = sd_bus_message_read(message, "s", &text);
    return read < 0 ? read : sd_bus_reply_method_return(message, "s", "08.05.09");
}

constexpr sd_bus_vtable table[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_METHOD("Get", "s", "s", answer, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_VTABLE_END,
};

}  // namespace

int main(int, char *argv[]) {
    load_same_libraries();
    sd_bus *bus = nullptr;
    if (sd_bus_open_system(&bus) < 0 ||
        sd_bus_add_object_vtable(bus, nullptr, "/bench", "com.kelvanto.bench", table, nullptr) <
            0 ||
        sd_bus_request_name(bus, argv[1], 0) < 0) {
        return 1;
    }
    while (true) {
        int handled = sd_bus_process(bus, nullptr);
        if (handled == 0) {
            handled = sd_bus_wait(bus, UINT64_MAX);
        }
        if (handled < 0) {
            return 1;
        }
    }
}
