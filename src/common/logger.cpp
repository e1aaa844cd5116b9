#include "common/logger.h"

// The system log's header has macros of the same names.
#undef LOG_DEBUG
#undef LOG_INFO

#include <fcntl.h>
#include <strings.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <forward_list>
#include <iterator>
#include <string>
#include <string_view>
#include <variant>

namespace {

constexpr const char *level_names[] = {"TRACE", "DEBUG", "INFO", "WARN", "ERROR", "SYSLOG"};
constexpr int syslog_priorities[] = {LOG_DEBUG,   LOG_INFO, LOG_NOTICE,
                                     LOG_WARNING, LOG_ERR,  LOG_ERR};

constexpr size_t line_size = 8000;
constexpr size_t path_size = 4096;
constexpr uid_t no_user = static_cast<uid_t>(-1);
constexpr gid_t no_group = static_cast<gid_t>(-1);
constexpr std::string_view category_prefix = "category.";

struct category_threshold {
    std::string name;
    int threshold;
};

struct logger_settings {
    bool enabled = false;
    int threshold = LOG_LEVEL_DEBUG;
    bool to_stdout = false;
    bool to_syslog = false;
    std::string ident = "unknown";
    bool to_file = false;
    char file_path[256] = "";
    bool with_position = false;
    bool to_rolling = false;
    std::string rolling_directory = "/var/log";
    std::string rolling_name = "vodl";
    int rolling_count = 5;
    int rolling_size = 204800;
    uid_t owner_user = no_user;
    gid_t owner_group = no_group;
    const custom_logger *hooks = nullptr;
    std::forward_list<category_threshold> categories;
};

logger_settings settings;

// The C library keeps the pointer it was given, so this copy changes only when the log is reopened.
std::string opened_ident;

struct setting_row {
    const char *key;
    std::variant<bool logger_settings::*, std::string logger_settings::*, int logger_settings::*>
        setting;
    bool enables_logging = false;  // when it is switched on
};
constexpr setting_row setting_rows[] = {
    {"stdout", &logger_settings::to_stdout, true},
    {"syslog", &logger_settings::to_syslog, true},
    {"file", &logger_settings::to_file, true},
    {"lineandfile", &logger_settings::with_position},
    {"rollingfile", &logger_settings::to_rolling},
    {"syslog.ident", &logger_settings::ident},
    {"rollingfile.path", &logger_settings::rolling_directory},
    {"rollingfile.name", &logger_settings::rolling_name},
    {"rollingfile.count", &logger_settings::rolling_count},
    {"rollingfile.size", &logger_settings::rolling_size},
};

// One log line; the newline has room of its own beyond the bound.
struct log_line {
    char text[line_size + 1];
    size_t length = 0;

    bool append_list(const char *format, va_list arguments) {
        const int added = vsnprintf(text + length, line_size - length, format, arguments);
        if (added < 0) {
            return false;
        }
        length = std::min(length + static_cast<size_t>(added), line_size - 1);
        return true;
    }

    void append(const char *format, ...) __attribute__((format(printf, 2, 3))) {
        va_list arguments;
        va_start(arguments, format);
        append_list(format, arguments);
        va_end(arguments);
    }

    void end() {
        text[length++] = '\n';
        text[length] = '\0';
    }
};

int level_from_name(const char *name) {
    for (int level = LOG_LEVEL_TRACE; level <= LOG_LEVEL_ERROR; ++level) {
        if (strcasecmp(name, level_names[level]) == 0) {
            return level;
        }
    }
    return LOG_LEVEL_SYSLOG;
}

bool truth(const char *value) {
    return strcmp(value, "true") == 0 || strcmp(value, "yes") == 0;
}

void call_on_enable() {
    if (settings.hooks && settings.hooks->on_enable) {
        settings.hooks->on_enable();
    }
}

void call_on_disable() {
    if (settings.hooks && settings.hooks->on_disable) {
        settings.hooks->on_disable();
    }
}

int threshold_of(const char *category) {
    auto &nodes = settings.categories;
    for (auto before = nodes.before_begin(), node = nodes.begin(); node != nodes.end();
         before = node++) {
        if (node->name == category) {
            if (node != nodes.begin()) {
                nodes.splice_after(nodes.before_begin(), nodes, before);
            }
            return nodes.front().threshold;
        }
    }
    return settings.threshold;
}

// The system log has times of its own: for it alone the place of the time stays blank.
void append_timestamp(log_line &line) {
    constexpr int width = sizeof "2024-05-01 13:07:42.123";
    if (!settings.to_stdout && !settings.to_file && !settings.to_rolling &&
        (settings.hooks == nullptr || settings.hooks->on_line == nullptr)) {
        line.append("%*s", width, "");
        return;
    }
    timeval now{};
    gettimeofday(&now, nullptr);
    const time_t seconds = now.tv_sec;
    char text[64] = "";
    if (const tm *local = localtime(&seconds)) {
        strftime(text, sizeof(text), "%F %T", local);
    }
    line.append("%s.%03ld ", text, static_cast<long>(now.tv_usec / 1000));
}

// kept: the text is the format of the system log, so "%%" and "%m" mean there what they always
// mean. Any other conversion would read an argument that does not exist and is made plain text.
void write_to_syslog(int level, const char *text) {
    std::string escaped;
    if (strchr(text, '%') != nullptr) {
        for (const char *rest = text; *rest != '\0'; ++rest) {
            escaped += *rest;
            if (*rest == '%') {
                const bool pair = rest[1] == '%' || rest[1] == 'm';
                escaped += pair ? *++rest : '%';
            }
        }
        text = escaped.c_str();
    }
    const bool known = level >= LOG_LEVEL_TRACE && level <= LOG_LEVEL_SYSLOG;
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-security"
    syslog(known ? syslog_priorities[level] : LOG_ERR, text);
#pragma GCC diagnostic pop
}

void fix_file_permissions_if_needed(const char *path) {
    const uid_t user = settings.owner_user;
    const gid_t group = settings.owner_group;
    struct stat info {};
    if (user == no_user || group == no_group || stat(path, &info) != 0 || getuid() == user ||
        getgid() == group || info.st_uid == user || info.st_gid == group) {
        return;
    }
    if (chown(path, user, group) == 0) {
        chmod(path, 0666);
    }
}

// A link that another user may have planted is not followed; the system's own ones are.
bool is_foreign_link(const char *path) {
    struct stat info {};
    return lstat(path, &info) == 0 && S_ISLNK(info.st_mode) && info.st_uid != 0 &&
           info.st_uid != geteuid();
}

// Unbuffered, and opened for each line, so that a rotation or a deletion from outside counts at
// once.
void append_to_file(const char *path, const log_line &line) {
    if (is_foreign_link(path)) {
        return;
    }
    fix_file_permissions_if_needed(path);
    const int file = open(path, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0666);
    if (file < 0) {
        return;
    }
    size_t done = 0;
    while (done < line.length) {
        const ssize_t written = write(file, line.text + done, line.length - done);
        if (written <= 0) {
            break;
        }
        done += static_cast<size_t>(written);
    }
    close(file);
}

void rolling_path(char (&path)[path_size], int index) {
    snprintf(path, sizeof(path), "%s/%s.%d.log", settings.rolling_directory.c_str(),
             settings.rolling_name.c_str(), index);
}

// Buffers for paths stand on the stack only while there are files to turn: the log is called
// everywhere.
[[gnu::noinline]] void rotate() {
    char from[path_size];
    char to[path_size];
    if (settings.rolling_count < 1) {
        return;
    }
    rolling_path(to, settings.rolling_count - 1);
    unlink(to);
    for (int index = settings.rolling_count - 1; index >= 1; --index) {
        rolling_path(from, index - 1);
        rolling_path(to, index);
        rename(from, to);
    }
}

[[gnu::noinline]] void write_to_rolling(const log_line &line) {
    const char *directory = settings.rolling_directory.c_str();
    struct stat info {};
    if (stat(directory, &info) != 0 && mkdir(directory, 0744) != 0) {
        return;
    }
    char path[path_size];
    rolling_path(path, 0);
    if (stat(path, &info) == 0) {
        if (info.st_size > settings.rolling_size) {
            rotate();
        }
    } else if (errno != ENOENT) {
        return;
    }
    append_to_file(path, line);
}

}  // namespace

void logger_enable_syslog(const char *ident, int level) {
    settings.enabled = true;
    settings.to_syslog = true;
    settings.ident = ident ? ident : "unknown";
    settings.threshold = level;
}

void logger_init(const char *config) {
    if (!config) {
        return;
    }
    logger_cleanup();
    std::string_view rest = config;
    while (!rest.empty()) {
        const std::string_view field = rest.substr(0, rest.find(':'));
        rest.remove_prefix(std::min(field.size() + 1, rest.size()));
        const size_t equals = field.find('=');
        if (equals != std::string_view::npos) {
            logger_set_parameter(std::string(field.substr(0, equals)).c_str(),
                                 std::string(field.substr(equals + 1)).c_str());
        }
    }
    if (settings.to_syslog) {
        opened_ident = settings.ident;
        openlog(opened_ident.c_str(), LOG_CONS | LOG_PID, LOG_USER);
    } else {
        closelog();
    }
    call_on_enable();
}

void logger_set_parameter(const char *key, const char *value) {
    if (!key || !value) {
        return;
    }
    const char *shown_key = key;
    // kept: only as much as the key has is compared, so "cat" or an empty key is a category key
    // too.
    const size_t compared = std::min(strlen(key), category_prefix.size());
    if (strncmp(key, category_prefix.data(), compared) == 0) {
        shown_key = key + compared;
        settings.categories.push_front({shown_key, level_from_name(value)});
    } else if (strcmp(key, "enabled") == 0) {
        if (truth(value)) {
            settings.enabled = true;
            call_on_enable();
        } else {
            // kept: the cleanup calls on_disable, too.
            logger_cleanup();
            call_on_disable();
        }
    } else if (strcmp(key, "level") == 0) {
        settings.threshold = level_from_name(value);
    } else if (strcmp(key, "file.name") == 0) {
        snprintf(settings.file_path, sizeof(settings.file_path), "%s", value);
    }
    for (const setting_row &row : setting_rows) {
        if (strcmp(key, row.key) != 0) {
            continue;
        }
        if (const auto *flag = std::get_if<0>(&row.setting)) {
            settings.**flag = truth(value);
            settings.enabled = settings.enabled || (row.enables_logging && truth(value));
        } else if (const auto *text = std::get_if<1>(&row.setting)) {
            settings.**text = value;
        } else {
            settings.*std::get<2>(row.setting) = atoi(value);
        }
    }
    if (settings.hooks && settings.hooks->on_parameter) {
        settings.hooks->on_parameter(shown_key, value);
    }
}

void logger_cleanup() {
    settings.enabled = false;
    settings.to_file = false;
    settings.categories.clear();
    if (settings.to_syslog) {
        settings.to_syslog = false;
        closelog();
    }
    call_on_disable();
}

void logger_set_custom_logger(const custom_logger *hooks) {
    settings.hooks = hooks;
}

void logger_set_file_owner(gid_t group_id, uid_t user_id) {
    settings.owner_group = group_id;
    settings.owner_user = user_id;
}

void _log(const char *category, int level, const char *source_file, size_t line, const char *format,
          ...) {
    if (!settings.enabled || level < threshold_of(category)) {
        return;
    }
    // The caller's errno is what "%m" shows, and it is still the caller's afterwards.
    const int caller_errno = errno;
    log_line text;
    append_timestamp(text);
    const size_t level_column = text.length;
    text.append("%5.10s ", level_names[std::clamp<int>(level, LOG_LEVEL_TRACE, LOG_LEVEL_SYSLOG)]);
    if (settings.with_position) {
        text.append("file: %s, line: %zu - ", source_file, line);
    }
    text.append("%s - ", category);

    va_list arguments;
    va_start(arguments, format);
    errno = caller_errno;
    const bool formatted = text.append_list(format, arguments);
    va_end(arguments);
    if (!formatted) {
        fprintf(stderr, "vsnprintf failed due to error %d\n", errno);
        errno = caller_errno;
        return;
    }

    if (settings.to_stdout) {
        puts(text.text);
        fflush(stdout);
    }
    if (settings.to_syslog) {
        errno = caller_errno;
        write_to_syslog(level, text.text + level_column);
    }
    text.end();
    if (settings.to_file) {
        append_to_file(settings.file_path, text);
    }
    if (settings.to_rolling) {
        write_to_rolling(text);
    }
    if (settings.hooks && settings.hooks->on_line) {
        settings.hooks->on_line(category, level, text.text, source_file, line);
    }
    errno = caller_errno;
}
