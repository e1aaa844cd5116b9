#include "common/msg_bus/message_bus.h"

#include <event2/event.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <functional>
#include <memory>
#include <string>

#include "common/msg_bus/message_bus_calls.h"
#include "helpers.h"
#include "private_bus.h"

namespace {

constexpr const char *path = "/test";
constexpr const char *other_path = "/test/other";
constexpr const char *interface = "com.kelvanto.test";
constexpr const char *peer_name = "com.kelvanto.peer";
#define FFFD "\xEF\xBF\xBD"

struct peer_deleter {
    void operator()(DBusConnection *connection) const {
        dbus_connection_close(connection);
        dbus_connection_unref(connection);
    }
};

std::string describe(const message_bus_args &args) {
    std::string text = std::to_string(args.count()) + ":";
    for (const message_bus_arg &arg : args.values()) {
        text.append(" ").append(std::to_string(arg.type)).append("=");
        text += arg.type == MB_ARG_STRING ? arg.string : std::to_string(arg.word);
    }
    return text + ";";
}

// The arguments of a message that a peer received.
std::string describe(const bus_message_ptr &message) {
    std::string text;
    DBusMessageIter iterator;
    dbus_message_iter_init(message.get(), &iterator);
    while (const int type = dbus_message_iter_get_arg_type(&iterator)) {
        DBusBasicValue value;
        dbus_message_iter_get_basic(&iterator, &value);
        text += std::string(text.empty() ? "" : " ") + static_cast<char>(type) + "=";
        text += type == DBUS_TYPE_STRING ? value.str : std::to_string(value.u32);
        dbus_message_iter_next(&iterator);
    }
    return text;
}

// What the handlers saw, in order.
std::string seen;
std::function<void(message_bus_request)> answer;

void serve(const message_bus_args &args, message_bus_request request) {
    seen += describe(args);
    if (answer) {
        answer(std::move(request));
    }
}

void hear(const message_bus_args &args) {
    seen += args.count() == -1 ? "failed;" : describe(args);
}

// The module against a real bus. A second participant, the peer, takes what it receives by hand;
// nothing is answered for it.
class message_bus : public testing::Test {
protected:
    static void SetUpTestSuite() {
        static const private_bus daemon;
        ASSERT_TRUE(daemon.ready()) << "needs dbus-daemon";
        ASSERT_TRUE(message_bus_new(loop));
        ours = dbus_bus_get(DBUS_BUS_SYSTEM, nullptr);
        ASSERT_TRUE(message_bus_add_method_listener(path, interface, "Get", serve));
        ASSERT_TRUE(message_bus_add_method_listener(other_path, interface, "Other", serve));
    }

    void SetUp() override {
        peer.reset(dbus_bus_get_private(DBUS_BUS_SYSTEM, nullptr));
        ASSERT_TRUE(peer);
        dbus_connection_set_exit_on_disconnect(peer.get(), FALSE);
        settle();  // calls to the peer of the test before fail now
        seen.clear();
        answer = nullptr;
        ASSERT_NE(dbus_bus_request_name(peer.get(), peer_name, 0, nullptr), -1);
    }

    // Lets both sides work until `done`.
    template <class Condition>
    bool wait_for(Condition done) {
        for (int i = 0; i < 5000; ++i) {
            if (done()) {
                return true;
            }
            event_base_loop(loop, EVLOOP_NONBLOCK);
            usleep(1000);
            if (peer) {
                dbus_connection_read_write(peer.get(), 0);
            }
        }
        return false;
    }

    // The next message that the peer gets and that is not the bus's own talk; null when none comes.
    bus_message_ptr receive() {
        bus_message_ptr message;
        wait_for([&] {
            message.reset(dbus_connection_pop_message(peer.get()));
            return message && !dbus_message_has_sender(message.get(), DBUS_SERVICE_DBUS);
        });
        return message;
    }

    // All that was sent before has been handled, and all answers have come back.
    void settle() {
        for (DBusConnection *side : {peer.get(), ours, peer.get()}) {
            dbus_bus_name_has_owner(side, interface, nullptr);
            for (int i = 0; i < 5; ++i) {
                event_base_loop(loop, EVLOOP_NONBLOCK);
            }
        }
    }

    bus_message_ptr new_call(const char *member = "Get", const char *on_path = path,
                             const char *of_interface = interface) {
        return bus_message_ptr(dbus_message_new_method_call(dbus_bus_get_unique_name(ours), on_path,
                                                            of_interface, member));
    }

    void send(const bus_message_ptr &message) {
        dbus_connection_send(peer.get(), message.get(), nullptr);
    }

    static inline event_base *const loop = event_base_new();
    static inline DBusConnection *ours = nullptr;
    std::unique_ptr<DBusConnection, peer_deleter> peer;
    recorded_log log;
};

TEST_F(message_bus, takes_a_request_along_without_its_arguments) {
    answer = [](message_bus_request request) {
        const auto ask = [&request](std::initializer_list<message_bus_arg> args) {
            return message_bus_call_method_for_request(
                peer_name, "/", peer_name, "Do", request,
                [](const message_bus_args &, message_bus_request waiting) {
                    message_bus_send_bool_reply(std::move(waiting), true);
                },
                args);
        };
        EXPECT_FALSE(ask({{.type = 5}}));  // gives it back
        EXPECT_TRUE(request);
        EXPECT_TRUE(ask({mb_boolean(true)}));
        EXPECT_FALSE(request);
    };
    const bus_message_ptr call = new_call();
    const int descriptor = open("/dev/null", O_RDONLY | O_CLOEXEC);
    dbus_message_append_args(call.get(), DBUS_TYPE_UNIX_FD, &descriptor, DBUS_TYPE_INVALID);
    const size_t before = open_descriptors();
    send(call);
    const bus_message_ptr asked = receive();
    ASSERT_TRUE(asked);
    EXPECT_EQ(open_descriptors(), before);
    close(descriptor);
    send(bus_message_ptr(dbus_message_new_method_return(asked.get())));
    const bus_message_ptr reply = receive();
    ASSERT_TRUE(reply);
    EXPECT_EQ(describe(reply), "b=1");
    EXPECT_EQ(dbus_message_get_reply_serial(reply.get()), dbus_message_get_serial(call.get()));
}

TEST_F(message_bus, lets_a_hung_peer_hold_up_nobody_else) {
    const auto call = [](const char *name = peer_name) {
        return message_bus_call_method(name, "/", name, "Do", hear);
    };
    for (int i = 0; i < 120; ++i) {
        ASSERT_TRUE(call());
    }
    log.text.clear();
    EXPECT_FALSE(call());
    EXPECT_NE(log.text.find(" WARN message_bus - failed to call dbus method\n"), std::string::npos);
    EXPECT_TRUE(call("com.kelvanto.nobody"));
    const bus_message_ptr asked = receive();
    ASSERT_TRUE(asked);
    send(bus_message_ptr(dbus_message_new_method_return(asked.get())));
    ASSERT_TRUE(wait_for([] { return seen.find("0:;") != std::string::npos; }));
    EXPECT_TRUE(call());
    EXPECT_FALSE(call());

    // What timed out counts on, and for more, until an answer comes or the name has a new owner.
    const char *late = "com.kelvanto.late";
    const auto time_out = [&](dbus_uint32_t serial) {
        bus_message_ptr error(dbus_message_new(DBUS_MESSAGE_TYPE_ERROR));
        message_bus_calls_add(late, serial);
        dbus_message_set_reply_serial(error.get(), serial);
        message_bus_calls_reply(error.get());
        return error;
    };
    for (dbus_uint32_t serial = 0xF0000000U; serial < 0xF000003FU; ++serial) {
        time_out(serial);
    }
    EXPECT_TRUE(message_bus_calls_may_call(late));
    const bus_message_ptr error = time_out(0xF000003FU);
    EXPECT_FALSE(call(late));
    dbus_message_set_destination(error.get(), dbus_bus_get_unique_name(ours));
    dbus_message_set_error_name(error.get(), DBUS_ERROR_FAILED);
    send(error);
    ASSERT_TRUE(wait_for([&] { return message_bus_calls_may_call(late); }));
    time_out(0xF0000040U);
    EXPECT_FALSE(message_bus_calls_may_call(late));
    ASSERT_NE(dbus_bus_request_name(peer.get(), late, 0, nullptr), -1);
    EXPECT_TRUE(wait_for([&] { return message_bus_calls_may_call(late); }));
}

TEST_F(message_bus, finds_the_first_listener_of_a_method) {
    answer = [](message_bus_request request) { message_bus_send_no_reply(std::move(request)); };
    const auto later = [](const message_bus_args &, message_bus_request) {
        seen += "later handler;";
    };
    EXPECT_TRUE(message_bus_add_method_listener(path, interface, "Get", later));
    const struct {
        const char *path;
        const char *interface;
        const char *member;
        std::string seen;  // "": an error comes back
    } rows[] = {
        {path, interface, "Get", "0:;"},
        {path, nullptr, "Get", "0:;"},          // an interface may be left out
        {other_path, interface, "Get", "0:;"},  // any registered path will do
        {"/unknown", interface, "Get", ""},
        {path, "com.kelvanto.unknown", "Get", ""},
    };
    for (const auto &row : rows) {
        seen.clear();
        send(new_call(row.member, row.path, row.interface));
        const bus_message_ptr reply = receive();
        ASSERT_TRUE(reply);
        EXPECT_EQ(dbus_message_get_type(reply.get()),
                  row.seen.empty() ? DBUS_MESSAGE_TYPE_ERROR : DBUS_MESSAGE_TYPE_METHOD_RETURN);
        EXPECT_EQ(seen, row.seen);
    }
}

TEST_F(message_bus, reads_the_four_types) {
    const bus_message_ptr call = new_call();
    const char *text = "t\xC3\xBCr";
    const uint32_t word = 4000000000U;
    const int32_t number = -5;
    const dbus_bool_t truth = TRUE;
    const char **list = &text;
    dbus_message_append_args(call.get(), DBUS_TYPE_STRING, &text, DBUS_TYPE_UINT32, &word,
                             DBUS_TYPE_BOOLEAN, &truth, DBUS_TYPE_ARRAY, DBUS_TYPE_STRING, &list, 1,
                             DBUS_TYPE_OBJECT_PATH, &path, DBUS_TYPE_INVALID);
    std::string expected = "17: 1=t\xC3\xBCr 2=4000000000 4=1 0=0 0=0";
    for (int i = 5; i < 17; ++i) {
        dbus_message_append_args(call.get(), DBUS_TYPE_INT32, &number, DBUS_TYPE_INVALID);
        expected += i < 16 ? " 3=4294967291" : ";";
    }
    send(call);
    ASSERT_TRUE(wait_for([] { return !seen.empty(); }));
    EXPECT_EQ(seen, expected);
}

TEST_F(message_bus, validates_the_parameters_of_replies) {
    EXPECT_FALSE(message_bus_validate_params({}, {}, ""));
    EXPECT_EQ(log.text,
              " WARN message_bus - Error validating dbus message params for (null).(null): "
              "error reading parameters\n");
}

TEST_F(message_bus, answers_with_each_reply_operation) {
    message_bus_arg wide = mb_boolean(true);
    wide.word = 0x100;
    const struct {
        std::function<void(message_bus_request)> answer;
        const char *reply;
    } rows[] = {
        {[](auto request) { message_bus_send_no_reply(std::move(request)); }, ""},
        {[](auto request) { message_bus_send_bool_reply(std::move(request), true); }, "b=1"},
        {[](auto request) { message_bus_send_string_reply(std::move(request), nullptr); }, "s="},
        // Each wrong byte: stray, cut off, a new start inside, a surrogate, beyond the last plane.
        {[](auto request) {
             message_bus_send_string_reply(
                 std::move(request),
                 "a\xFF\xC3z\xE2\xC3\xA9\xED\xA0\x80\xF4\x8F\xBF\xBF\xF4\x90\x80\x80\xE2\x82");
         },
         "s=a" FFFD FFFD "z" FFFD "\xC3\xA9" FFFD FFFD FFFD
         "\xF4\x8F\xBF\xBF" FFFD FFFD FFFD FFFD FFFD FFFD},
        {[wide](auto request) {
             message_bus_send_reply(std::move(request),
                                    {mb_uint32(1), mb_string("\x80"), mb_int32(-2), wide});
         },
         "u=1 s=\xEF\xBF\xBD i=4294967294 b=1"},
        {[](auto request) {
             EXPECT_FALSE(message_bus_send_reply(request.share(), {{.type = 7}}));
             // More than the bus carries; it would end the connection.
             const std::string half(9 * 1024 * 1024, 'x');
             EXPECT_FALSE(
                 message_bus_send_reply(request.share(), {mb_string(half), mb_string(half)}));
             EXPECT_TRUE(message_bus_send_string_reply(std::move(request), "after a bad one"));
         },
         "s=after a bad one"},
    };
    for (const auto &row : rows) {
        answer = row.answer;
        send(new_call());
        const bus_message_ptr reply = receive();
        ASSERT_TRUE(reply);
        EXPECT_EQ(dbus_message_get_type(reply.get()), DBUS_MESSAGE_TYPE_METHOD_RETURN);
        EXPECT_EQ(describe(reply), row.reply);
    }
    EXPECT_FALSE(message_bus_send_no_reply({}));
}

// The state captured by a reply callback dies with the one call of it, and only then.
TEST_F(message_bus, reports_the_outcome_of_a_call_once) {
    const auto call = [](const char *destination, std::initializer_list<message_bus_arg> args) {
        auto state = std::make_shared<int>(0);
        std::weak_ptr<int> observed = state;
        const bool queued = message_bus_call_method_with_args(
            destination, "/peer", peer_name, "Do",
            [state = std::move(state)](const message_bus_args &reply) { hear(reply); }, args);
        EXPECT_EQ(observed.expired(), !queued);
        return observed;
    };
    EXPECT_TRUE(call(peer_name, {{.type = 5}}).expired());

    auto state = call(peer_name, {mb_string("x\xFE"), mb_int32(-1)});
    bus_message_ptr request = receive();
    ASSERT_TRUE(request);
    EXPECT_EQ(describe(request), "s=x\xEF\xBF\xBD i=4294967295");
    const bus_message_ptr reply(dbus_message_new_method_return(request.get()));
    const int32_t number = -3;
    dbus_message_append_args(reply.get(), DBUS_TYPE_INT32, &number, DBUS_TYPE_INVALID);
    send(reply);
    // A second answer to the same call reaches nobody.
    send(bus_message_ptr(dbus_message_copy(reply.get())));
    ASSERT_TRUE(wait_for([&] { return state.expired(); }));
    settle();
    EXPECT_EQ(seen, "1: 3=4294967293;");

    state = call(peer_name, {});
    request = receive();
    ASSERT_TRUE(request);
    send(bus_message_ptr(dbus_message_new_error(request.get(), DBUS_ERROR_FAILED, "no")));
    ASSERT_TRUE(wait_for([&] { return state.expired(); }));
    state = call("com.kelvanto.nobody", {});
    ASSERT_TRUE(wait_for([&] { return state.expired(); }));
    // A callee that dies without an answer, here while a call without callback waits too.
    EXPECT_TRUE(message_bus_call_method(peer_name, "/", peer_name, "Do", nullptr));
    state = call(peer_name, {});
    ASSERT_TRUE(receive() && receive());
    peer.reset();
    ASSERT_TRUE(wait_for([&] { return state.expired(); }));
    EXPECT_EQ(seen, "1: 3=4294967293;failed;failed;failed;");
}

TEST_F(message_bus, sends_tables_whose_booleans_are_one_byte_wide) {
    message_bus_arg wide = mb_boolean(true);
    wide.word = 0x100;
    message_bus_arg table[] = {wide, mb_boolean(true), mb_string("a"), mb_uint32(7)};
    ASSERT_TRUE(
        message_bus_call_method_with_args_table(peer_name, "/", peer_name, "Do", hear, table));
    const bus_message_ptr request = receive();
    ASSERT_TRUE(request);
    EXPECT_EQ(describe(request), "b=0 b=1 s=a u=7");
    table[3].type = 5;
    EXPECT_FALSE(
        message_bus_call_method_with_args_table(peer_name, "/", peer_name, "Do", hear, table));
    settle();
    EXPECT_EQ(seen, "");
}

TEST_F(message_bus, ends_a_call_at_its_time_out) {
    // With the connection's own timer, on a time-out shorter than the library's default.
    const bus_message_ptr call(dbus_message_new_method_call(peer_name, "/", interface, "Do"));
    DBusPendingCall *pending = nullptr;
    ASSERT_TRUE(dbus_connection_send_with_reply(ours, call.get(), &pending, 30));
    EXPECT_TRUE(wait_for([&] { return dbus_pending_call_get_completed(pending) != FALSE; }));
    const bus_message_ptr reply(dbus_pending_call_steal_reply(pending));
    EXPECT_TRUE(dbus_message_is_error(reply.get(), DBUS_ERROR_NO_REPLY));
    dbus_pending_call_unref(pending);
}

TEST_F(message_bus, gives_a_signal_to_its_first_listener) {
    ASSERT_TRUE(message_bus_add_signal_listener(interface, "Changed", hear));
    ASSERT_TRUE(message_bus_add_signal_listener(
        interface, "Changed",
        [](const message_bus_args &) { seen += "second listener;"; }));
    // Own signals come back, as the bus delivers them to every listener.
    EXPECT_TRUE(message_bus_send_signal("/any", interface, "Changed", "b\xC0"));
    EXPECT_TRUE(message_bus_send_signal_with_args("/any", interface, "Changed",
                                                  {mb_int32(-1), mb_boolean(true)}));
    EXPECT_TRUE(message_bus_send_signal_with_args("/any", interface, "Unheard", {}));
    EXPECT_FALSE(message_bus_send_signal_with_args("/any", interface, "Changed", {{.type = 9}}));
    settle();
    EXPECT_EQ(seen, "1: 1=b\xEF\xBF\xBD;2: 3=4294967295 4=1;");
}

TEST_F(message_bus, drains_all_queued_messages_in_one_pass) {
    settle();
    for (int i = 0; i < 3; ++i) {
        send(new_call());
    }
    // The bus answers the peer after it has passed the calls on.
    dbus_bus_name_has_owner(peer.get(), interface, nullptr);
    for (int i = 0; i < 10 && seen.empty(); ++i) {
        event_base_loop(loop, EVLOOP_NONBLOCK);
    }
    EXPECT_EQ(seen, "0:;0:;0:;");
}

}  // namespace
