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

void close_peer(DBusConnection *connection) {
    dbus_connection_close(connection);
    dbus_connection_unref(connection);
}

std::string describe(const message_bus_args &args) {
    std::string text = std::to_string(args.count()) + ":";
    for (const message_bus_arg &arg : args.values()) {
        text.append(" ").append(1, "?suib"[arg.type]).append("=");
        text += arg.type == MB_ARG_STRING ? arg.string : std::to_string(arg.word);
    }
    return text + ";";
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

    // The next message that the peer gets and that is not the bus's own talk: what it holds.
    std::string receive() {
        const bool came = wait_for([&] {
            message.reset(dbus_connection_pop_message(peer.get()));
            return message && !dbus_message_has_sender(message.get(), DBUS_SERVICE_DBUS);
        });
        if (!came || dbus_message_get_type(message.get()) == DBUS_MESSAGE_TYPE_ERROR) {
            return came ? "error" : "nothing";
        }
        return describe(message_bus_args(message.get()));
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

    bus_message_ptr new_call(const char *on_path = path, const char *of_interface = interface) {
        return bus_message_ptr(dbus_message_new_method_call(dbus_bus_get_unique_name(ours), on_path,
                                                            of_interface, "Get"));
    }

    void send(const bus_message_ptr &sent) {
        dbus_connection_send(peer.get(), sent.get(), nullptr);
    }
    bus_message_ptr new_reply() {  // to what was received
        return bus_message_ptr(dbus_message_new_method_return(message.get()));
    }

    static inline event_base *const loop = event_base_new();
    static inline DBusConnection *ours = nullptr;
    handle<DBusConnection, close_peer> peer;
    bus_message_ptr message;
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
    ASSERT_EQ(receive(), "1: b=1;");
    EXPECT_EQ(open_descriptors(), before);
    close(descriptor);
    send(new_reply());
    ASSERT_EQ(receive(), "1: b=1;");
    EXPECT_EQ(dbus_message_get_reply_serial(message.get()), dbus_message_get_serial(call.get()));
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
    ASSERT_EQ(receive(), "0:;");
    send(new_reply());
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
    const auto reply = [this](const char *on_path, const char *of_interface) {
        send(new_call(on_path, of_interface));
        return receive();
    };
    EXPECT_EQ(reply(path, interface) + reply(path, nullptr), "0:;0:;");  // it may be left out
    EXPECT_EQ(reply(other_path, interface), "0:;");  // any registered path will do
    EXPECT_EQ(reply("/unknown", interface), "error");
    EXPECT_EQ(reply(path, "com.kelvanto.unknown"), "error");
    EXPECT_EQ(seen, "0:;0:;0:;");
}

TEST_F(message_bus, answers_with_each_reply_operation) {
    message_bus_arg wide = mb_boolean(true);
    wide.word = 0x100;
    const auto reply = [this](std::initializer_list<message_bus_arg> args) {
        answer = [args](message_bus_request request) {
            EXPECT_FALSE(message_bus_send_reply(request.share(), {{.type = 7}}));
            // More than the bus carries; it would end the connection.
            const std::string half(9 * 1024 * 1024, 'x');
            EXPECT_FALSE(
                message_bus_send_reply(request.share(), {mb_string(half), mb_string(half)}));
            EXPECT_TRUE(message_bus_send_reply(std::move(request), args));
        };
        send(new_call());
        return receive();
    };
    EXPECT_EQ(reply({mb_uint32(1), wide, mb_string(nullptr)}), "3: u=1 b=1 s=;");
    // Each wrong byte: stray, cut off, a new start inside, a surrogate, beyond the last plane.
    EXPECT_EQ(reply({mb_string("a\xFF\xC3z\xE2\xC3\xA9\xED\xA0\x80\xF4\x8F\xBF\xBF"
                               "\xF4\x90\x80\x80\xE2\x82")}),
              "1: s=a" FFFD FFFD "z" FFFD "\xC3\xA9" FFFD FFFD FFFD
              "\xF4\x8F\xBF\xBF" FFFD FFFD FFFD FFFD FFFD FFFD ";");
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
    ASSERT_EQ(receive(), "2: s=x\xEF\xBF\xBD i=4294967295;");
    const bus_message_ptr reply = new_reply();
    const int32_t number = -3;
    dbus_message_append_args(reply.get(), DBUS_TYPE_INT32, &number, DBUS_TYPE_INVALID);
    send(reply);
    // A second answer to the same call reaches nobody.
    send(bus_message_ptr(dbus_message_copy(reply.get())));
    ASSERT_TRUE(wait_for([&] { return state.expired(); }));
    settle();
    EXPECT_EQ(seen, "1: i=4294967293;");

    state = call(peer_name, {});
    ASSERT_EQ(receive(), "0:;");
    send(bus_message_ptr(dbus_message_new_error(message.get(), DBUS_ERROR_FAILED, "no")));
    ASSERT_TRUE(wait_for([&] { return state.expired(); }));
    state = call("com.kelvanto.nobody", {});
    ASSERT_TRUE(wait_for([&] { return state.expired(); }));
    // A callee that dies without an answer, here while a call without callback waits too.
    EXPECT_TRUE(message_bus_call_method(peer_name, "/", peer_name, "Do", nullptr));
    state = call(peer_name, {});
    ASSERT_EQ(receive() + receive(), "0:;0:;");
    peer.reset();
    ASSERT_TRUE(wait_for([&] { return state.expired(); }));
    EXPECT_EQ(seen, "1: i=4294967293;failed;failed;failed;");
    // What nobody asked for has no name to be refused under.
    log.text.clear();
    EXPECT_FALSE(message_bus_validate_params({}, {}, ""));
    EXPECT_TRUE(log.has(" for (null).(null): error reading parameters\n"));
}

TEST_F(message_bus, ends_a_call_at_its_time_out) {
    // With the connection's own timer, on a time-out shorter than the library's default.
    const bus_message_ptr call(dbus_message_new_method_call(peer_name, "/", interface, "Do"));
    DBusPendingCall *pending = nullptr;
    ASSERT_TRUE(dbus_connection_send_with_reply(ours, call.get(), &pending, 30));
    EXPECT_TRUE(wait_for([&] { return dbus_pending_call_get_completed(pending) != FALSE; }));
    dbus_pending_call_unref(pending);
}

// Tables, whose booleans are one byte wide, and signals, which go to their first listener.
TEST_F(message_bus, sends_what_nothing_here_sends_yet) {
    message_bus_arg wide = mb_boolean(true);
    wide.word = 0x100;
    message_bus_arg table[] = {wide, mb_boolean(true), mb_string("a"), mb_uint32(7)};
    const auto call = [&table] {
        return message_bus_call_method_with_args_table(peer_name, "/", peer_name, "Do", hear,
                                                       table);
    };
    ASSERT_TRUE(call());
    EXPECT_EQ(receive(), "4: b=0 b=1 s=a u=7;");
    table[3].type = 5;
    EXPECT_FALSE(call());

    ASSERT_TRUE(message_bus_add_signal_listener(interface, "Changed", hear));
    ASSERT_TRUE(message_bus_add_signal_listener(
        interface, "Changed", [](const message_bus_args &) { seen += "second;"; }));
    EXPECT_TRUE(message_bus_send_signal("/any", interface, "Changed", "b\xC0"));
    const auto signal = [](std::initializer_list<message_bus_arg> args) {
        return message_bus_send_signal_with_args("/any", interface, "Changed", args);
    };
    EXPECT_TRUE(signal({mb_int32(-1), mb_boolean(true)}));
    EXPECT_FALSE(signal({{.type = 9}}));
    settle();
    EXPECT_EQ(seen, "1: s=b" FFFD ";2: i=4294967295 b=1;");
}

}  // namespace
