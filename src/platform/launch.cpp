#include "platform/launch.h"

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <optional>
#include <utility>
#include <vector>

#include "common/files.h"
#include "common/logger.h"
#include "common/texts.h"

namespace {

constexpr const char *log_category = "launch";

constexpr int no_descriptor = -1;

// Children whose writer gave up; nobody waits for them, but their ends are collected later.
std::vector<pid_t> abandoned_children;

void collect_abandoned_children() {
    std::erase_if(abandoned_children,
                  [](pid_t child) { return waitpid(child, nullptr, WNOHANG) != 0; });
}

// A shell that runs, and what it writes.
struct shell {
    pid_t process = -1;
    file_ptr output;
};

// popen() in mode "re", but for the process id. False, with errno.
bool start_shell(const char *command, shell &child) {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) == -1) {
        return false;
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, ends[1], STDOUT_FILENO);
    // The daemon and the bus library ignore this one.
    sigset_t defaults;
    sigemptyset(&defaults);
    sigaddset(&defaults, SIGPIPE);
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    posix_spawnattr_setsigdefault(&attributes, &defaults);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGDEF);
    const char *const argv[] = {"sh", "-c", "--", command, nullptr};
    const int error = posix_spawn(&child.process, "/bin/sh", &actions, &attributes,
                                  const_cast<char *const *>(argv), environ);
    posix_spawnattr_destroy(&attributes);
    posix_spawn_file_actions_destroy(&actions);
    close(ends[1]);
    child.output.reset(fdopen(ends[0], "r"));
    errno = error;
    return error == 0;
}

bool has_ended(pid_t child) {
    siginfo_t ended = {};
    return waitid(P_PID, static_cast<id_t>(child), &ended, WEXITED | WNOHANG | WNOWAIT) != 0 ||
           ended.si_pid != 0;
}

// Output that nobody wants is dropped while the shell runs: closing the pipe at once would kill a
// command that says a single line. One that says more than a pipe holds meets the closed pipe, and
// one that leaves a process behind with the pipe in its hands is not waited for, whatever that one
// says.
void drop_output(const shell &child) {
    constexpr size_t pipe_capacity = 65536;
    constexpr int check_interval_ms = 100;
    const int descriptor = fileno(child.output.get());
    char dropped[4096];
    size_t total = 0;
    while (total < pipe_capacity) {
        pollfd waiting = {.fd = descriptor, .events = POLLIN, .revents = 0};
        const int ready = poll(&waiting, 1, check_interval_ms);
        const ssize_t count = ready == 0 ? 0 : read(descriptor, dropped, sizeof dropped);
        if ((ready != 0 && count <= 0) || has_ended(child.process)) {
            return;
        }
        total += static_cast<size_t>(count);
    }
}

// pclose(): the raw wait status, or -1.
int end_shell(shell &child) {
    child.output.reset();
    int status = 0;
    return waitpid(child.process, &status, 0) == -1 ? -1 : status;
}

// Forks and executes; `input` (or no_descriptor) becomes the child's standard input. Gives the
// child's process id, or -1.
pid_t start_child(const char *const argv[], int input) {
    // What the child's log call flushes must not be the parent's pending output.
    fflush(stdout);
    const pid_t child = fork();
    if (child == -1) {
        LOG_ERROR("fork() failed");
    }
    if (child != 0) {
        return child;
    }
    // The pipe is close-on-exec, so its ends need no closing here, unless one is in the right
    // place.
    if (input == STDIN_FILENO) {
        fcntl(input, F_SETFD, 0);
    } else if (input != no_descriptor) {
        dup2(input, STDIN_FILENO);
    }
    signal(SIGPIPE, SIG_DFL);
    char *const empty_environment[] = {nullptr};
    execve(argv[0], const_cast<char *const *>(argv), empty_environment);
    LOG_ERROR("execve failed: %s", strerror(errno));
    // Not exit(): the exit handlers and what is buffered belong to the parent.
    _exit(1);
}

launch_result wait_for_child(pid_t child, int *status) {
    int child_status = 0;
    do {
        if (waitpid(child, &child_status, WUNTRACED | WCONTINUED) == -1) {
            LOG_ERROR("waitpid failed");
            return LAUNCH_ERROR;
        }
        if (WIFSIGNALED(child_status)) {
            return LAUNCH_ERROR;
        }
    } while (!WIFEXITED(child_status));
    if (status) {
        *status = child_status;
    }
    return LAUNCH_OK;
}

// False, with errno, when not all could be written. A child that is gone raises no signal here.
bool write_text(int descriptor, std::string_view text) {
    struct sigaction ignore {};
    struct sigaction before {};
    ignore.sa_handler = SIG_IGN;
    sigaction(SIGPIPE, &ignore, &before);
    ssize_t written = 0;
    // One call writes all, unless the child goes away in the middle; the next call then says so.
    do {
        written = write(descriptor, text.data(), text.size());
        text.remove_prefix(written > 0 ? static_cast<size_t>(written) : 0);
    } while (written > 0 && !text.empty());
    const int write_errno = errno;
    sigaction(SIGPIPE, &before, nullptr);
    errno = write_errno;
    return written != -1;
}

}  // namespace

launch_result launch(const char *command, int *status, std::string *output) {
    if (output) {
        output->clear();
    }
    if (!command) {
        LOG_ERROR("Command can't be NULL");
        return LAUNCH_NO_COMMAND;
    }
    collect_abandoned_children();
    shell child;
    if (!start_shell(command, child)) {
        LOG_ERROR("popen failed: %s", strerror(errno));
        return LAUNCH_SHELL_ERROR;
    }
    if (output) {
        std::optional<std::string> text = read_to_buffer(child.output.get());
        if (!text) {
            end_shell(child);
            return LAUNCH_SHELL_ERROR;
        }
        *output = *std::move(text);
    } else {
        drop_output(child);
    }
    const int child_status = end_shell(child);
    if (child_status == -1) {
        LOG_ERROR("pclose failed: %s", strerror(errno));
        return LAUNCH_SHELL_ERROR;
    }
    if (!WIFEXITED(child_status)) {
        LOG_ERROR("Command hasn't terminated normally - probably unexpected signal");
        return LAUNCH_SHELL_ERROR;
    }
    if (status) {
        *status = child_status;
    }
    return LAUNCH_OK;
}

launch_result launch_one(const char *const argv[], int *status) {
    collect_abandoned_children();
    const pid_t child = start_child(argv, no_descriptor);
    return child == -1 ? LAUNCH_ERROR : wait_for_child(child, status);
}

launch_result launch_and_write(const char *const argv[], int *status, const char *text) {
    collect_abandoned_children();
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) == -1) {
        LOG_ERROR("Failed to create a pipe");
        return LAUNCH_ERROR;
    }
    const pid_t child = start_child(argv, ends[0]);
    close(ends[0]);
    if (child == -1) {
        close(ends[1]);
        return LAUNCH_ERROR;
    }
    const bool written = write_text(ends[1], nimbrelc_utils_empty_if_null(text));
    if (!written) {
        LOG_ERROR("write failed: %s", strerror(errno));
        // kept: not waited for. No reader is left, so that only this process sees the pipe close.
        close(ends[1]);
        abandoned_children.push_back(child);
        return LAUNCH_ERROR;
    }
    close(ends[1]);
    return wait_for_child(child, status);
}
