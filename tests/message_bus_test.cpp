#include "common/msg_bus/message_bus.h"

#include <fcntl.h>
#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <functional>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

#include "logger.h"
#include "private_bus.h"

namespace {

constexpr const char *path = "/test";
constexpr const char *other_path = "/test/other";
constexpr const char *interface = "com.kelvanto.test";

// A second participant of the bus; what it receives is taken by hand, nothing is answered for it.
struct peer_deleter {
    void operator()(DBusConnection *connection) const {
        dbus_connection_close(connection);
        dbus_connection_unref(connection);
    }
};
using peer_ptr = std::unique_ptr<DBusConnection, peer_deleter>;

peer_ptr new_peer() {
    peer_ptr connection(dbus_bus_get_private(DBUS_BUS_SYSTEM, nullptr));
    dbus_connection_set_exit_on_disconnect(connection.get(), FALSE);
    return connection;
}

std::string describe(int32_t argc, const message_bus_arg *args) {
    std::string text = std::to_string(argc) + ":";
    for (int32_t i = 0; i < std::min(argc, message_bus_max_args); ++i) {
        const message_bus_arg &arg = args[i];
        text += " " + std::to_string(arg.type);
        if (arg.type == MB_ARG_STRING) {
            text += std::string("=") + arg.string;
        } else if (arg.type == MB_ARG_INT32) {
            text += "=" + std::to_string(arg.int32());
        } else if (arg.type != 0) {
            text += "=" + std::to_string(arg.word);
        }
    }
    return text;
}

// The same text for a message that a peer received.
std::string describe(DBusMessage *message) {
    std::string text;
    DBusMessageIter iterator;
    dbus_message_iter_init(message, &iterator);
    for (int type = 0; (type = dbus_message_iter_get_arg_type(&iterator)) != DBUS_TYPE_INVALID;
         dbus_message_iter_next(&iterator)) {
        DBusBasicValue value;
        dbus_message_iter_get_basic(&iterator, &value);
        text += text.empty() ? "" : " ";
        text += static_cast<char>(type);
        text += "=" + (type == DBUS_TYPE_STRING  ? std::string(value.str)
                       : type == DBUS_TYPE_INT32 ? std::to_string(value.i32)
                                                 : std::to_string(value.u32));
    }
    return text;
}

// What the handlers saw, in order.
std::vector<std::string> seen;
std::function<void(message_bus_request)> answer;
std::string warnings;

void handle(int32_t argc, const message_bus_arg *args, message_bus_request request) {
    seen.push_back(describe(argc, args));
    if (answer) {
        answer(std::move(request));
    }
}

void handle_otherwise(int32_t, const message_bus_arg *, message_bus_request request) {
    seen.emplace_back("second handler");
    message_bus_send_no_reply(std::move(request));
}

void hear(int32_t argc, const message_bus_arg *args) {
    seen.push_back(describe(argc, args));
}

void hear_otherwise(int32_t, const message_bus_arg *) {
    seen.emplace_back("second listener");
}

size_t open_descriptors() {
    const std::filesystem::directory_iterator entries("/proc/self/fd");
    return static_cast<size_t>(std::distance(begin(entries), end(entries)));
}

class message_bus_test : public testing::Test {
protected:
    static void SetUpTestSuite() {
        if (loop != nullptr) {
            return;  // the module keeps its one connection when tests are repeated
        }
        static const private_bus daemon;
        ASSERT_TRUE(daemon.ready()) << "needs dbus-daemon";
        // Before there is a connection nothing works and nothing ends the process.
        EXPECT_FALSE(connection_setup());
        EXPECT_FALSE(message_bus_request_name(interface));
        EXPECT_FALSE(message_bus_call_method("com.kelvanto.peer", "/", interface, "Get", nullptr));
        EXPECT_FALSE(message_bus_send_signal("/", interface, "Changed", "x"));
        loop = event_base_new();
        ASSERT_TRUE(message_bus_new(loop));
        ours = dbus_bus_get(DBUS_BUS_SYSTEM, nullptr);
        ASSERT_TRUE(message_bus_add_method_listener(path, interface, "Get", handle));
        ASSERT_TRUE(message_bus_add_method_listener(other_path, interface, "Other", handle));
    }

    void SetUp() override {
        static custom_logger hooks;
        hooks.on_line = [](const char *, int, const char *text, const char *, size_t) {
            warnings += text;
        };
        logger_set_custom_logger(&hooks);
        logger_init("enabled=true:level=warn");
        peer = new_peer();
        ASSERT_TRUE(peer);
        // Calls to the peer of the test before fail now.
        settle();
        seen.clear();
        warnings.clear();
        answer = nullptr;
        ASSERT_NE(dbus_bus_request_name(peer.get(), "com.kelvanto.peer", 0, nullptr), -1);
    }

    void TearDown() override {
        logger_cleanup();
        logger_set_custom_logger(nullptr);
    }

    // Lets both sides work until `done`.
    template <class Condition>
    bool wait_for(Condition done) {
        using clock = std::chrono::steady_clock;
        for (const auto end = clock::now() + std::chrono::seconds(5); !done();) {
            if (clock::now() > end) {
                return false;
            }
            event_base_loop(loop, EVLOOP_NONBLOCK);
            dbus_connection_read_write(peer.get(), 1);
        }
        return true;
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

    bus_message_ptr exchange(const bus_message_ptr &call) {
        dbus_connection_send(peer.get(), call.get(), nullptr);
        return receive();
    }

    static event_base *loop;
    static DBusConnection *ours;
    peer_ptr peer;
};

event_base *message_bus_test::loop = nullptr;
DBusConnection *message_bus_test::ours = nullptr;

TEST_F(message_bus_test, binds_to_one_loop_and_queues_for_a_taken_name) {
    EXPECT_TRUE(message_bus_new(loop));
    event_base *second = event_base_new();
    EXPECT_FALSE(message_bus_new(second));
    event_base_free(second);

    ASSERT_TRUE(message_bus_request_name("com.kelvanto.peer"));
    dbus_bus_release_name(peer.get(), "com.kelvanto.peer", nullptr);
    EXPECT_EQ(dbus_bus_request_name(peer.get(), "com.kelvanto.peer", DBUS_NAME_FLAG_DO_NOT_QUEUE,
                                    nullptr),
              DBUS_REQUEST_NAME_REPLY_EXISTS);
    EXPECT_TRUE(message_bus_request_name("com.kelvanto.peer"));
    dbus_bus_release_name(ours, "com.kelvanto.peer", nullptr);
}

TEST_F(message_bus_test, listens_once_for_the_same_listener) {
    for (int i = 0; i < 3; ++i) {
        EXPECT_TRUE(message_bus_add_method_listener(path, "com.kelvanto.once", "Get", handle));
        EXPECT_TRUE(message_bus_add_signal_listener("com.kelvanto.once", "Toggled", hear));
    }
    // One match rule can be taken back, a second one is not there.
    for (const char *member : {"Get", "Toggled"}) {
        const std::string rule =
            std::string("type='signal',interface='com.kelvanto.once',member='") + member + "'";
        DBusError error = DBUS_ERROR_INIT;
        dbus_bus_remove_match(ours, rule.c_str(), &error);
        EXPECT_FALSE(dbus_error_is_set(&error));
        dbus_bus_remove_match(ours, rule.c_str(), &error);
        EXPECT_TRUE(dbus_error_has_name(&error, DBUS_ERROR_MATCH_RULE_NOT_FOUND));
        dbus_error_free(&error);
        dbus_bus_add_match(ours, rule.c_str(), nullptr);
    }
    // A rule that the bus refuses counts as success.
    EXPECT_TRUE(message_bus_add_signal_listener("not an interface", "Toggled", hear));
    EXPECT_NE(warnings.find("Failed to dbus_bus_add_match: "), std::string::npos);
}

TEST_F(message_bus_test, finds_the_first_listener_of_a_method) {
    answer = [](message_bus_request request) { message_bus_send_no_reply(std::move(request)); };
    EXPECT_TRUE(message_bus_add_method_listener(path, interface, "Get", handle_otherwise));
    EXPECT_TRUE(
        message_bus_add_method_listener(path, "com.kelvanto.test2", "Get", handle_otherwise));
    const struct {
        const char *path;
        const char *interface;
        const char *member;
        const char *seen;  // null: an error comes back
    } rows[] = {
        {path, interface, "Get", "0:"},
        {path, "com.kelvanto.test2", "Get", "second handler"},
        {path, nullptr, "Get", "0:"},          // an interface may be left out
        {other_path, interface, "Get", "0:"},  // any registered path will do
        {"/unknown", interface, "Get", nullptr},
        {path, interface, "Unknown", nullptr},
        {path, "com.kelvanto.unknown", "Get", nullptr},
    };
    for (const auto &row : rows) {
        seen.clear();
        const bus_message_ptr reply = exchange(new_call(row.member, row.path, row.interface));
        ASSERT_TRUE(reply);
        EXPECT_EQ(dbus_message_get_type(reply.get()),
                  row.seen != nullptr ? DBUS_MESSAGE_TYPE_METHOD_RETURN : DBUS_MESSAGE_TYPE_ERROR);
        EXPECT_EQ(seen, row.seen != nullptr ? std::vector<std::string>{row.seen}
                                            : std::vector<std::string>{});
    }
}

TEST_F(message_bus_test, reads_the_four_types_and_leaves_no_descriptor_open) {
    const bus_message_ptr call = new_call();
    const char *text = "t\xC3\xBCr";
    const uint32_t word = 4000000000U;
    const int32_t number = -5;
    const dbus_bool_t truth = TRUE;
    const int64_t wide = -1;
    const int descriptor = open("/dev/null", O_RDONLY | O_CLOEXEC);
    const char *names[] = {"a", "b"};
    const char **list = names;
    dbus_message_append_args(call.get(), DBUS_TYPE_STRING, &text, DBUS_TYPE_UINT32, &word,
                             DBUS_TYPE_INT32, &number, DBUS_TYPE_BOOLEAN, &truth, DBUS_TYPE_INT64,
                             &wide, DBUS_TYPE_UNIX_FD, &descriptor, DBUS_TYPE_ARRAY,
                             DBUS_TYPE_STRING, &list, 2, DBUS_TYPE_OBJECT_PATH, &path,
                             DBUS_TYPE_INVALID);
    for (int i = 0; i < 9; ++i) {
        dbus_message_append_args(call.get(), DBUS_TYPE_INT32, &number, DBUS_TYPE_INVALID);
    }
    settle();
    const size_t before = open_descriptors();
    // Nobody answers, so the request, the only owner of the descriptor, must be gone by itself.
    dbus_connection_send(peer.get(), call.get(), nullptr);
    ASSERT_TRUE(wait_for([] { return !seen.empty(); }));
    EXPECT_EQ(seen.front(),
              "17: 1=t\xC3\xBCr 2=4000000000 3=-5 4=1 0 0 0 0 "
              "3=-5 3=-5 3=-5 3=-5 3=-5 3=-5 3=-5 3=-5");
    EXPECT_EQ(open_descriptors(), before);
    close(descriptor);
}

TEST_F(message_bus_test, validates_parameters) {
    const message_bus_arg args[] = {mb_string("a"), mb_int32(-1), {}};
    const struct {
        int32_t argc;
        std::initializer_list<int32_t> codes;
        const char *reason;
    } rows[] = {
        {0, {}, nullptr},
        {2, {MB_ARG_STRING, MB_ARG_INT32}, nullptr},
        {-1, {}, "error reading parameters"},
        {1, {}, "count mismatch"},
        {1, {MB_ARG_STRING, MB_ARG_INT32}, "count mismatch"},
        {2, {MB_ARG_STRING, MB_ARG_UINT32}, "type mismatch"},
        {3, {MB_ARG_STRING, MB_ARG_INT32, MB_ARG_INT32}, "type mismatch"},
    };
    const bus_message_ptr call = new_call();
    for (const auto &row : rows) {
        warnings.clear();
        EXPECT_EQ(
            message_bus_validate_params(message_bus_request(call.get()), row.argc, args, row.codes),
            row.reason == nullptr);
        const std::string end =
            row.reason == nullptr ? "" : std::string("com.kelvanto.test.Get: ") + row.reason + "\n";
        EXPECT_TRUE(warnings.ends_with(end) && warnings.empty() == end.empty()) << warnings;
    }
    // Neither a call without interface nor a signal has all the names of the log line.
    const bus_message_ptr bare = new_call("Get", path, nullptr);
    EXPECT_FALSE(message_bus_validate_params(message_bus_request(bare.get()), 1, args, {}));
    EXPECT_FALSE(message_bus_validate_params({}, 1, args, {}));
}

TEST_F(message_bus_test, answers_with_each_reply_operation) {
    const struct {
        std::function<void(message_bus_request)> answer;
        const char *reply;
    } rows[] = {
        {[](auto request) { message_bus_send_no_reply(std::move(request)); }, ""},
        {[](auto request) { message_bus_send_bool_reply(std::move(request), true); }, "b=1"},
        {[](auto request) { message_bus_send_string_reply(std::move(request), "ok"); }, "s=ok"},
        {[](auto request) { message_bus_send_string_reply(std::move(request), nullptr); }, "s="},
        {[](auto request) { message_bus_send_string_reply(std::move(request), "a\xFF\xC3z"); },
         "s=a\xEF\xBF\xBD\xEF\xBF\xBDz"},
        {[](auto request) { message_bus_send_reply(std::move(request), {}); }, ""},
        {[](auto request) {
             message_bus_arg word = mb_boolean(true);
             word.word = 0x100;
             message_bus_send_reply(std::move(request),
                                    {mb_uint32(1), mb_string("\x80"), mb_int32(-2), word});
         },
         "u=1 s=\xEF\xBF\xBD i=-2 b=1"},
    };
    for (const auto &row : rows) {
        answer = row.answer;
        const bus_message_ptr reply = exchange(new_call());
        ASSERT_TRUE(reply);
        EXPECT_EQ(dbus_message_get_type(reply.get()), DBUS_MESSAGE_TYPE_METHOD_RETURN);
        EXPECT_EQ(describe(reply.get()), row.reply);
    }
    EXPECT_FALSE(message_bus_send_no_reply({}));

    // A deliberate second answer, after an argument of no type spoiled another one.
    answer = [](message_bus_request request) {
        EXPECT_FALSE(message_bus_send_reply(request.share(), {{.type = 7}}));
        EXPECT_TRUE(message_bus_send_string_reply(request.share(), "first"));
        EXPECT_TRUE(message_bus_send_string_reply(std::move(request), "second"));
    };
    const bus_message_ptr first = exchange(new_call());
    const bus_message_ptr second = receive();
    ASSERT_TRUE(first && second);
    EXPECT_EQ(describe(first.get()) + " " + describe(second.get()), "s=first s=second");
    EXPECT_EQ(dbus_message_get_reply_serial(first.get()),
              dbus_message_get_reply_serial(second.get()));
}

// The state captured by a reply callback dies with the last call of it, and only then.
TEST_F(message_bus_test, reports_the_outcome_of_a_call_once) {
    const auto call = [](const char *destination, std::initializer_list<message_bus_arg> args) {
        auto state = std::make_shared<int>(0);
        std::weak_ptr<int> observed = state;
        const bool queued = message_bus_call_method_with_args(
            destination, "/peer", "com.kelvanto.peer", "Do",
            [state = std::move(state)](int32_t argc, const message_bus_arg *reply) {
                seen.push_back(describe(argc, reply) + (reply == nullptr ? " null" : ""));
            },
            args);
        EXPECT_EQ(observed.expired(), !queued);
        return observed;
    };

    auto state = call("com.kelvanto.peer", {mb_string("x\xFE"), mb_int32(-1)});
    bus_message_ptr request = receive();
    ASSERT_TRUE(request);
    EXPECT_EQ(describe(request.get()), "s=x\xEF\xBF\xBD i=-1");
    bus_message_ptr reply(dbus_message_new_method_return(request.get()));
    const int32_t number = -3;
    dbus_message_append_args(reply.get(), DBUS_TYPE_INT32, &number, DBUS_TYPE_INVALID);
    dbus_connection_send(peer.get(), reply.get(), nullptr);
    // A second answer to the same call reaches nobody.
    const bus_message_ptr again(dbus_message_copy(reply.get()));
    dbus_connection_send(peer.get(), again.get(), nullptr);
    ASSERT_TRUE(wait_for([&] { return state.expired(); }));
    settle();
    EXPECT_EQ(seen, std::vector<std::string>{"1: 3=-3"});

    seen.clear();
    state = call("com.kelvanto.peer", {});
    request = receive();
    ASSERT_TRUE(request);
    reply.reset(dbus_message_new_error(request.get(), DBUS_ERROR_FAILED, "no"));
    dbus_connection_send(peer.get(), reply.get(), nullptr);
    ASSERT_TRUE(wait_for([&] { return state.expired(); }));
    state = call("com.kelvanto.nobody", {});
    ASSERT_TRUE(wait_for([&] { return state.expired(); }));
    // A callee that dies without an answer, here while a call without callback waits too.
    EXPECT_TRUE(
        message_bus_call_method("com.kelvanto.peer", "/", "com.kelvanto.peer", "Do", nullptr));
    state = call("com.kelvanto.peer", {});
    ASSERT_TRUE(receive());
    ASSERT_TRUE(receive());
    peer = new_peer();
    ASSERT_TRUE(wait_for([&] { return state.expired(); }));
    EXPECT_EQ(seen, (std::vector<std::string>{"-1: null", "-1: null", "-1: null"}));

    seen.clear();
    EXPECT_TRUE(call("com.kelvanto.nobody", {{.type = 5}}).expired());
    settle();
    EXPECT_TRUE(seen.empty());
}

TEST_F(message_bus_test, sends_tables_whose_booleans_are_one_byte_wide) {
    const auto hear_reply = [](int32_t argc, const message_bus_arg *) {
        seen.push_back(std::to_string(argc));
    };
    message_bus_arg wide = mb_boolean(true);
    wide.word = 0x100;
    message_bus_arg table[] = {wide, mb_boolean(true), mb_string("a"), mb_uint32(7)};
    ASSERT_TRUE(message_bus_call_method_with_args_table(
        "com.kelvanto.peer", "/", "com.kelvanto.peer", "Do", hear_reply, table));
    ASSERT_TRUE(message_bus_call_method_with_args("com.kelvanto.peer", "/", "com.kelvanto.peer",
                                                  "Do", hear_reply, {wide}));
    for (const char *expected : {"b=0 b=1 s=a u=7", "b=1"}) {
        const bus_message_ptr request = receive();
        ASSERT_TRUE(request);
        EXPECT_EQ(describe(request.get()), expected);
    }
    table[3].type = 5;
    EXPECT_FALSE(message_bus_call_method_with_args_table(
        "com.kelvanto.peer", "/", "com.kelvanto.peer", "Do", hear_reply, table));
    EXPECT_NE(warnings.find("Unknown arg type 5\n"), std::string::npos);
    settle();
    EXPECT_TRUE(seen.empty());
}

TEST_F(message_bus_test, ends_a_call_at_its_time_out) {
    // With the connection's own timer, on a time-out shorter than the library's default.
    const bus_message_ptr call(
        dbus_message_new_method_call("com.kelvanto.peer", "/", interface, "Do"));
    DBusPendingCall *pending = nullptr;
    ASSERT_TRUE(dbus_connection_send_with_reply(ours, call.get(), &pending, 30));
    EXPECT_TRUE(wait_for([&] { return dbus_pending_call_get_completed(pending) != FALSE; }));
    const bus_message_ptr reply(dbus_pending_call_steal_reply(pending));
    EXPECT_TRUE(dbus_message_is_error(reply.get(), DBUS_ERROR_NO_REPLY));
    dbus_pending_call_unref(pending);
}

TEST_F(message_bus_test, gives_a_signal_to_its_first_listener) {
    ASSERT_TRUE(message_bus_add_signal_listener(interface, "Changed", hear));
    ASSERT_TRUE(message_bus_add_signal_listener(interface, "Changed", hear_otherwise));
    // Own signals come back, as the bus delivers them to every listener.
    EXPECT_TRUE(message_bus_send_signal("/any", interface, "Changed", "b\xC0"));
    EXPECT_TRUE(message_bus_send_signal_with_args("/any", interface, "Changed",
                                                  {mb_int32(-1), mb_boolean(true)}));
    EXPECT_TRUE(message_bus_send_signal_with_args("/any", interface, "Unheard", {}));
    EXPECT_FALSE(message_bus_send_signal_with_args("/any", interface, "Changed", {{.type = 9}}));
    settle();
    EXPECT_EQ(seen, (std::vector<std::string>{"1: 1=b\xEF\xBF\xBD", "2: 3=-1 4=1"}));
}

TEST_F(message_bus_test, drains_all_queued_messages_in_one_pass) {
    settle();
    for (int i = 0; i < 3; ++i) {
        dbus_connection_send(peer.get(), new_call().get(), nullptr);
    }
    // The bus answers the peer after it has passed the calls on.
    dbus_bus_name_has_owner(peer.get(), interface, nullptr);
    for (int i = 0; i < 10 && seen.empty(); ++i) {
        event_base_loop(loop, EVLOOP_NONBLOCK);
    }
    EXPECT_EQ(seen.size(), 3U);
}

}  // namespace
