// The arguments of messages: any text goes out as UTF-8, one that is UTF-8 as it is; and a message
// of any bytes comes in.
#include "common/msg_bus/message_bus_args.h"

#include "common/bus_message_ptr.h"
#include "fuzz.h"

namespace {

void must_be_whole(DBusMessage *message) {
    const message_bus_incoming_args args(message);
    for (int32_t i = 0; i < std::min(args.count(), message_bus_max_args); ++i) {
        const message_bus_arg &arg = args.data()[i];
        must(arg.type == 0 || message_bus_is_known_type(arg.type), "an argument's type is known");
        must((arg.string != nullptr) == (arg.type == MB_ARG_STRING), "texts alone are texts");
        must(arg.string == nullptr || dbus_validate_utf8(arg.string, nullptr), "texts are UTF-8");
    }
}

}  // namespace

void fuzz(std::string_view input) {
    const bus_message_ptr signal(dbus_message_new_signal("/a", "a.b", "c"));
    const std::vector<std::string> texts = fields(input, message_bus_max_args);
    std::vector<message_bus_arg> sent;
    for (const std::string &text : texts) {
        sent.push_back(mb_string(text));
    }
    must(message_bus_append_args(signal.get(), sent) == nullptr, "every text can be sent");
    must_be_whole(signal.get());
    const message_bus_incoming_args got(signal.get());
    for (size_t i = 0; i < texts.size(); ++i) {
        const std::string text = got.data()[i].string;
        must(!dbus_validate_utf8(texts[i].c_str(), nullptr) || text == texts[i],
             "a text that is UTF-8 is sent as it is");
        must(text.size() >= texts[i].size() && text.size() <= 3 * texts[i].size(),
             "each wrong byte is replaced by one character");
    }
    if (const bus_message_ptr message{
            dbus_message_demarshal(input.data(), static_cast<int>(input.size()), nullptr)}) {
        must_be_whole(message.get());
    }
}
