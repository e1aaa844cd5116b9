// The texts of messages: any text goes out as UTF-8, one that is UTF-8 as it is.
#include "common/msg_bus/message_bus_args.h"

#include "fuzz.h"

void fuzz(std::string_view input) {
    const bus_message_ptr signal(dbus_message_new_signal("/a", "a.b", "c"));
    const std::string text = fields(input, 1)[0];
    const std::string damaged = text + '\xFF';
    const message_bus_arg sent[] = {mb_string(text), mb_string(damaged)};
    must(message_bus_append_args(signal.get(), sent) == nullptr, "every text can be sent");
    const message_bus_args got(signal.get());
    const std::string_view read = got[0].string;
    must(dbus_validate_utf8(read.data(), nullptr), "a text is sent as UTF-8");
    must(read == text || !dbus_validate_utf8(text.c_str(), nullptr), "UTF-8 is sent as it is");
    must(got[1].string == std::string(read) + "\xEF\xBF\xBD", "wrong bytes alone are replaced");
}
