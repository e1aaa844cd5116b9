// Entry point: logging, command line, identity, crypto library, then either the one-shot migration
// of the configuration or the event loop with all services.
#include <fcntl.h>
#include <grp.h>
#include <sys/stat.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <event2/event.h>
#include <openssl/evp.h>
#include <unistd.h>

#include "common/logger.h"
#include "daemon/nimbrelc.h"
#include "migration/migration.h"
#include "platform/service_manager.h"

namespace {

constexpr const char *log_category = "main";
constexpr const char *program_version = NIMBRELC_VERSION;

// In the order of switching: the group while the process may still change it, then the user.
struct identity {
    const char *variable;
    int (*set)(unsigned int id);
};
constexpr identity identities[] = {
    {"GID", setgid},
    {"UID", setuid},
};

// What the process was started with does not matter: three open descriptors, no signal ignored or
// blocked but the one that a reader's death sends, and files that only their owner can write.
void shed_inherited_state() {
    int descriptor = -1;
    do {
        descriptor = open("/dev/null", O_RDWR);
    } while (descriptor != -1 && descriptor < STDERR_FILENO);
    if (descriptor > STDERR_FILENO) {
        close(descriptor);
    }
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    for (int number = 1; number < NSIG; ++number) {
        signal(number, number == SIGPIPE ? SIG_IGN : SIG_DFL);
    }
    umask(umask(0) | S_IWGRP | S_IWOTH);
}

// Root's further groups do not belong to the daemon's user. Only root can drop them.
void drop_supplementary_groups() {
    if (geteuid() == 0 && getgroups(0, nullptr) > 0 && setgroups(0, nullptr) != 0) {
        LOG_WARN("Failed to drop supplementary groups: %s", strerror(errno));
        exit(1);
    }
}

void switch_identity() {
    if (getenv("GID") != nullptr || getenv("UID") != nullptr) {
        drop_supplementary_groups();
    }
    for (const identity &row : identities) {
        const char *value = getenv(row.variable);
        if (value == nullptr) {
            LOG_WARN("No variable %s in env. Skipped setting.", row.variable);
            continue;
        }
        // kept: no validation, a text that is no number is id 0.
        if (row.set(static_cast<unsigned int>(atoi(value))) == -1) {
            LOG_WARN("Failed to set %s to %s: %s", row.variable, value, strerror(errno));
            exit(1);
        }
        LOG_INFO("Switched %s to %s", row.variable, value);
    }
}

void print_usage(const char *program) {
    puts("Usage:");
    puts(" to configure logger:");
    printf("\t%s -l <logger config>\n", program);
    puts(" to run in migration mode:");
    printf("\t%s -m\n", program);
}

// As getopt(). Words between the options are passed over; the "+" stops each C library at them.
int next_option(int argc, char *argv[]) {
    for (;; ++optind) {
        int option = getopt(argc, argv, "+l:m");
        if (option != -1 || optind >= argc || strcmp(argv[optind - 1], "--") == 0) {
            return option;
        }
    }
}

// False when an unknown option ended the parsing.
bool parse_options(int argc, char *argv[]) {
    int option = 0;
    while ((option = next_option(argc, argv)) != -1) {
        switch (option) {
            case 'l':
                logger_init(optarg);
                break;
            case 'm':
                g_migration_mode = true;
                break;
            default:
                LOG_WARN("Unknown parameter: %d", option);
                print_usage(argv[0]);
                return false;
        }
    }
    return true;
}

int migrate() {
    LOG_INFO("NimbrelC launched in migration mode");
    if (!run_nimbrelc_migration()) {
        LOG_ERROR("Migration failed");
        return 1;
    }
    LOG_INFO("Migration succeeded");
    return 0;
}

// A loop that looks at the clock whenever a timer is started: a callback may have waited for
// commands for many seconds, and these are not a part of the timer's.
event_base *new_loop() {
    event_config *config = event_config_new();
    event_config_set_flag(config, EVENT_BASE_FLAG_NO_CACHE_TIME);
    event_base *loop = event_base_new_with_config(config);
    event_config_free(config);
    return loop;
}

// Until somebody ends the loop; false on an error, or for a loop without events.
bool run_loop(event_base *loop) {
    int result = 0;
    while (result == 0 && event_base_got_exit(loop) == 0 && event_base_got_break(loop) == 0) {
        result = event_base_loop(loop, EVLOOP_ONCE);
        service_manager_forget_states();
    }
    return result == 0;
}

// The loop is never freed: events of the bus and of the services point into it until the end.
int serve() {
    event_base *loop = new_loop();
    if (!nimbrelc_start(loop)) {
        return 1;
    }
    LOG_INFO("Services started successfully");
    // kept: the services are not stopped then.
    if (!run_loop(loop)) {
        return 1;
    }
    if (!nimbrelc_stop()) {
        LOG_WARN("Services failed to stop");
        return 1;
    }
    LOG_INFO("Services stopped successfully");
    return 0;
}

int run(int argc, char *argv[]) {
    if (!parse_options(argc, argv)) {
        return 1;
    }
    LOG_INFO("nimbrelc v%s", program_version);
    switch_identity();
    // Its tables of names and texts are big: they are filled when one is looked up.
    OPENSSL_init_crypto(OPENSSL_INIT_NO_LOAD_CONFIG, nullptr);
    const int exit_code = g_migration_mode ? migrate() : serve();
    EVP_cleanup();
    return exit_code;
}

}  // namespace

int main(int argc, char *argv[]) {
    shed_inherited_state();
    logger_enable_syslog("nimbrelc", LOG_LEVEL_INFO);
    printf("nimbrelc v%s\n", program_version);
    fflush(stdout);  // out before any child could inherit it
    const int exit_code = run(argc, argv);
    LOG_INFO("NimbrelC stopped with exit code: %d", exit_code);
    return exit_code;
}
