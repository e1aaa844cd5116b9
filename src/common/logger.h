// The process-wide logger: one line per message, filtered by category or default threshold, written
// to standard output, syslog, a file, a rolling set of files and an optional hook. Configured by
// one string of key=value pairs. Not thread-safe; every setting is process-wide.
#pragma once

#include <sys/types.h>

#include <cstddef>

enum log_level : int {
    LOG_LEVEL_TRACE = 0,
    LOG_LEVEL_DEBUG = 1,
    LOG_LEVEL_INFO = 2,
    LOG_LEVEL_WARN = 3,
    LOG_LEVEL_ERROR = 4,
    LOG_LEVEL_SYSLOG = 5,  // also what an unknown level name means: above every message
};

// Functions of an embedding program; each may be null. The text given to on_line carries the
// timestamp and ends in a newline.
struct custom_logger {
    void (*on_enable)();
    void (*on_disable)();
    void (*on_line)(const char *category, int level, const char *text, const char *source_file,
                    size_t line);
    void (*on_parameter)(const char *key, const char *value);
};

// Turns logging and the syslog sink on, with a copy of `ident` and `level` as default threshold.
void logger_enable_syslog(const char *ident, int level);

// Resets the logger and applies `config`: fields split at ":", each "key=value". A field without
// "=" is skipped.
void logger_init(const char *config);

// Applies one setting. Unknown keys change nothing.
void logger_set_parameter(const char *key, const char *value);

// Switches logging, the file sink and the syslog sink off and forgets the category thresholds;
// everything else is kept.
void logger_cleanup();

// Installs hooks (borrowed, null for none). kept: only the unit tests listen.
void logger_set_custom_logger(const custom_logger *hooks);

// Owner given to log files before a line is written, -1 for none. Group first, then user.
// kept: nothing here calls it.
void logger_set_file_owner(gid_t group_id, uid_t user_id);

// Writes one message, cut to what fits an 8000-byte line. `line` is a source line number.
void _log(const char *category, int level, const char *source_file, size_t line, const char *format,
          ...) __attribute__((format(printf, 5, 6)));

// For whom a line is logged where one module logs for another, and where that one asked for it: its
// category becomes one in the place where it is passed.
struct log_source {
    log_source(const char *of, const char *source_file = __builtin_FILE(),
               size_t source_line = __builtin_LINE())
        : category(of), file(source_file), line(source_line) {}

    const char *category;
    const char *file;
    size_t line;
};
#define LOG_FOR(source, level, ...) \
    _log((source).category, level, (source).file, (source).line, __VA_ARGS__)

// The value as it is. For one that is false, none or null the failure is logged at ERROR.
template <class Value>
Value or_log(const log_source &caller, Value value, const char *failure) {
    if (!value) {
        LOG_FOR(caller, LOG_LEVEL_ERROR, "%s", failure);
    }
    return value;
}

// Each source file names its category in a file-local `log_category`.
#define LOG_AT(level, ...) _log(log_category, level, __FILE__, __LINE__, __VA_ARGS__)
#define LOG_TRACE(...) LOG_AT(LOG_LEVEL_TRACE, __VA_ARGS__)
#define LOG_DEBUG(...) LOG_AT(LOG_LEVEL_DEBUG, __VA_ARGS__)
#define LOG_INFO(...) LOG_AT(LOG_LEVEL_INFO, __VA_ARGS__)
#define LOG_WARN(...) LOG_AT(LOG_LEVEL_WARN, __VA_ARGS__)
#define LOG_ERROR(...) LOG_AT(LOG_LEVEL_ERROR, __VA_ARGS__)
