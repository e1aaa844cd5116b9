// The arguments of messages: any text goes out as UTF-8, one that is UTF-8 as it is; and a message
// of any bytes comes in.
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

    const bus_message_ptr message(
        dbus_message_demarshal(input.data(), static_cast<int>(input.size()), nullptr));
    if (message) {
        DBusMessageIter there;
        dbus_message_iter_init(message.get(), &there);
        const message_bus_args args(message.get());
        for (const message_bus_arg &arg : args.values()) {
            const int type = dbus_message_iter_get_arg_type(&there);
            DBusBasicValue value = {};
            if (arg.type != 0) {
                dbus_message_iter_get_basic(&there, &value);
            }
            const size_t known = std::string_view("?suib").find(static_cast<char>(type));
            must(arg.type == static_cast<int>(known < 5 ? known : 0), "four types are read");
            must(arg.type == MB_ARG_STRING ? arg.string == value.str : arg.word == value.u32,
                 "values are read as they are");
            dbus_message_iter_next(&there);
        }
    }
}
