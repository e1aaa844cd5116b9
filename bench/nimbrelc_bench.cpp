// Measures the daemon against the least that its libraries allow, in the same run and on a message
// bus of its own: the processor time of an answer, and the time from start to the last bus name.
// Exit code 0 when both ratios are within their limits.
#include <spawn.h>

#include <algorithm>
#include <ctime>
#include <vector>

#include "common/msg_bus/message_bus.h"
#include "private_bus.h"

namespace {

constexpr int calls = 1000;
constexpr int answer_rounds = 20;
constexpr double answer_limit = 1.2;
constexpr int starts = 41;
constexpr double start_limit = 1.5;

constexpr const char *service = "com.kelvanto.bench";
constexpr const char *path = "/bench";
constexpr const char *argument = "Device.DeviceInfo.SoftwareVersion";
constexpr const char *answer = R"({"status":200,"value":"08.05.09"})";

event_base *loop = nullptr;

double seconds(clockid_t clock) {
    timespec now{};
    clock_gettime(clock, &now);
    return static_cast<double>(now.tv_sec) + 1e-9 * static_cast<double>(now.tv_nsec);
}

// Compares the least disturbed round of each; a round that failed is negative.
bool print_ratio(const char *what, const std::vector<double> &ours, const std::vector<double> &bare,
                 double limit) {
    const double least = *std::min_element(ours.begin(), ours.end());
    const double least_bare = *std::min_element(bare.begin(), bare.end());
    if (least <= 0 || least_bare <= 0) {
        printf("%s: failed\n", what);
        return false;
    }
    const double ratio = least / least_bare;
    printf("%s: %.1f us, bare %.1f us, ratio %.2f, limit %.2f\n", what, least * 1e6,
           least_bare * 1e6, ratio, limit);
    return ratio <= limit;
}

// --- A responder without the message bus module: reads, dispatches and sends, nothing else

DBusConnection *bare_connection = nullptr;

void bare_ready(evutil_socket_t, short what, void *data) {
    const unsigned int flags =
        (what & EV_READ) != 0 ? unsigned{DBUS_WATCH_READABLE} : unsigned{DBUS_WATCH_WRITABLE};
    dbus_watch_handle(static_cast<DBusWatch *>(data), flags);
    while (dbus_connection_dispatch(bare_connection) == DBUS_DISPATCH_DATA_REMAINS) {
    }
}

void bare_toggle(DBusWatch *watch, void *) {
    auto *io = static_cast<event *>(dbus_watch_get_data(watch));
    if (dbus_watch_get_enabled(watch)) {
        event_add(io, nullptr);
    } else {
        event_del(io);
    }
}

dbus_bool_t bare_add(DBusWatch *watch, void *) {
    const bool readable = (dbus_watch_get_flags(watch) & DBUS_WATCH_READABLE) != 0;
    event *io = event_new(loop, dbus_watch_get_unix_fd(watch),
                          static_cast<short>(EV_PERSIST | (readable ? EV_READ : EV_WRITE)),
                          bare_ready, watch);
    dbus_watch_set_data(watch, io, nullptr);
    bare_toggle(watch, nullptr);
    return TRUE;
}

DBusHandlerResult bare_answer(DBusConnection *connection, DBusMessage *message, void *) {
    if (!dbus_message_is_method_call(message, service, "Get")) {
        return DBUS_HANDLER_RESULT_NOT_YET_HANDLED;
    }
    const char *text = nullptr;
    dbus_message_get_args(message, nullptr, DBUS_TYPE_STRING, &text, DBUS_TYPE_INVALID);
    const bus_message_ptr reply(dbus_message_new_method_return(message));
    dbus_message_append_args(reply.get(), DBUS_TYPE_STRING, &answer, DBUS_TYPE_INVALID);
    dbus_connection_send(connection, reply.get(), nullptr);
    return DBUS_HANDLER_RESULT_HANDLED;
}

bool start_bare() {
    bare_connection = dbus_bus_get(DBUS_BUS_SYSTEM, nullptr);
    DBusObjectPathVTable handlers = {};
    handlers.message_function = bare_answer;
    return bare_connection != nullptr &&
           dbus_connection_set_watch_functions(bare_connection, bare_add, nullptr, bare_toggle,
                                               nullptr, nullptr) &&
           dbus_connection_register_object_path(bare_connection, path, &handlers, nullptr) &&
           dbus_bus_request_name(bare_connection, service, 0, nullptr) != -1;
}

// --- The daemon's own way

void get_callback(int32_t argc, const message_bus_arg *args, message_bus_request request) {
    if (message_bus_validate_params(request, argc, args, {MB_ARG_STRING})) {
        message_bus_send_string_reply(std::move(request), answer);
    }
}

bool start_ours() {
    return message_bus_new(loop) &&
           message_bus_add_method_listener(path, service, "Get", get_callback) &&
           message_bus_request_name(service);
}

// --- Answers

// Serves until the caller closes `stop`, then writes the processor time to `result`. A first byte
// says that the name is owned.
[[noreturn]] void respond(bool (*start)(), int stop, int result) {
    loop = event_base_new();
    const auto end = [](evutil_socket_t, short, void *) { event_base_loopbreak(loop); };
    event_add(event_new(loop, stop, EV_READ, end, nullptr), nullptr);
    if (!start() || write(result, "", 1) != 1) {
        _exit(1);
    }
    const double begin = seconds(CLOCK_PROCESS_CPUTIME_ID);
    event_base_dispatch(loop);
    const double used = seconds(CLOCK_PROCESS_CPUTIME_ID) - begin;
    _exit(write(result, &used, sizeof(used)) == sizeof(used) ? 0 : 1);
}

bool call_often(DBusConnection *connection) {
    for (int i = 0; i < calls; ++i) {
        const bus_message_ptr call(dbus_message_new_method_call(service, path, service, "Get"));
        dbus_message_append_args(call.get(), DBUS_TYPE_STRING, &argument, DBUS_TYPE_INVALID);
        const bus_message_ptr reply(
            dbus_connection_send_with_reply_and_block(connection, call.get(), -1, nullptr));
        if (!reply) {
            return false;
        }
    }
    return true;
}

// Processor seconds of the answering process for one call, negative on failure.
double measure_answer(bool (*start)()) {
    int stop[2];
    int result[2];
    if (pipe(stop) != 0 || pipe(result) != 0) {
        return -1;
    }
    const pid_t child = fork();
    if (child == 0) {
        close(stop[1]);
        respond(start, stop[0], result[1]);
    }
    close(stop[0]);
    close(result[1]);
    char ready = 0;
    double used = -1;
    if (read(result[0], &ready, 1) == 1) {
        DBusConnection *connection = dbus_bus_get_private(DBUS_BUS_SYSTEM, nullptr);
        const bool answered = connection != nullptr && call_often(connection);
        if (connection != nullptr) {
            dbus_connection_close(connection);
            dbus_connection_unref(connection);
        }
        close(stop[1]);
        if (read(result[0], &used, sizeof(used)) != sizeof(used) || !answered) {
            used = -1;
        }
    } else {
        close(stop[1]);
    }
    close(result[0]);
    waitpid(child, nullptr, 0);
    return used / calls;
}

bool bench_answers() {
    const private_bus bus;
    std::vector<double> ours;
    std::vector<double> bare;
    for (int i = 0; i < answer_rounds; ++i) {
        bare.push_back(measure_answer(start_bare));
        ours.push_back(measure_answer(start_ours));
    }
    return print_ratio("answer, processor time", ours, bare, answer_limit);
}

// --- Start

// Seconds until the program is gone.
double measure_start(const char *program) {
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    std::string name(program);
    char *arguments[] = {name.data(), nullptr};
    pid_t child = -1;
    const double begin = seconds(CLOCK_MONOTONIC);
    const int failure = posix_spawn(&child, program, &actions, nullptr, arguments, environ);
    int status = 0;
    if (failure == 0) {
        waitpid(child, &status, 0);
    }
    const double used = seconds(CLOCK_MONOTONIC) - begin;
    posix_spawn_file_actions_destroy(&actions);
    // The refused name ends both programs in this way.
    return failure == 0 && WIFEXITED(status) && WEXITSTATUS(status) == 1 ? used : -1;
}

// The bus refuses the last of the four names, so that the daemon gives up there and touches
// nothing of the machine.
bool bench_start() {
    const private_bus bus("<deny own='com.kelvanto.firmware'/>");
    unsetenv("GID");
    unsetenv("UID");
    std::vector<double> ours;
    std::vector<double> bare;
    for (int i = 0; i < starts; ++i) {
        bare.push_back(measure_start(BARE_START));
        ours.push_back(measure_start(DAEMON));
    }
    return print_ratio("start to the last bus name", ours, bare, start_limit);
}

}  // namespace

int main() {
    const bool answers = bench_answers();
    return bench_start() && answers ? 0 : 1;
}
