// The toolbox shared by all modules: whole-file reads and atomic writes, text helpers, regular
// expressions, date-times, the build flavour and recursive removal.
// Its JSON, encryption and disk-record parts have headers of their own (nimbrelc_utils_*.h).
#pragma once

#include <regex.h>

#include <cstdio>
#include <ctime>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

// --- Files. Only regular files are read; everything else fails as a file that cannot be opened.

// The whole file; nothing for an empty or unreadable one (logged at WARN, errno kept).
std::optional<std::string> nimbrelc_utils_read_binary_file(const char *path);

// The same as text: it ends at the first zero byte.
std::optional<std::string> nimbrelc_utils_read_file(const char *path);

bool nimbrelc_utils_check_if_file_exists(const char *path);

// Truncates and writes `path` in place. Done only when every byte and the closing flush succeeded.
bool dump_string_to_file(const char *path, const char *text);

// Writes "PATH.tmp" and renames it onto `path`, which is whole at every moment.
bool safe_dump_string_to_file(const char *path, const char *text);

// Truncates and writes `path`; true whenever the file could be opened, even if the write fell
// short.
bool dump_binary_to_file(const char *path, std::string_view data);

// Results of cmp_file_content.
enum cmp_file_result : int {
    CMP_FILE_EQUAL = 0,
    CMP_FILE_ERROR = -1,
    CMP_FILE_NO_PATH = -2,
    CMP_FILE_DIFFERENT = -7,  // also when the file does not exist
};
int cmp_file_content(const char *path, const char *text);

// Everything from the stream's position to its end, or nothing on a read error.
std::optional<std::string> read_to_buffer(FILE *stream);

// Removes a whole tree without following symbolic links; 0 on success.
int rmrf(const char *directory);

// --- Text.

bool nimbrelc_utils_is_null_or_empty(const char *text);
const char *nimbrelc_utils_empty_if_null(const char *text);

// Every double quote gets a backslash before it; nothing for null.
std::optional<std::string> nimbrelc_utils_escape_quotes(const char *text);

// Appends to a buffer that is kept within `capacity`, its terminator included; where the two do not
// fit, the capacity is doubled once. Null changes nothing. False, with nothing changed, for a text
// as long as the capacity or longer.
bool safe_append_string(std::string &buffer, size_t &capacity, const char *text);

// The first occurrence of `find` replaced.
std::string copy_replace_str(std::string_view text, std::string_view find,
                             std::string_view replacement);

// The characters from index `first` to index `last` inclusive, `last` clamped to the final one;
// nothing for null, first > last, or a first beyond the end.
std::optional<std::string> copy_substring(const char *text, size_t first, size_t last);

// Without leading and trailing white space; nothing for null.
std::optional<std::string> copy_trim_str(const char *text);

// The value as it may stand in a generated file: each control character becomes "_".
std::string nimbrelc_utils_printable(std::string_view value);

// --- Regular expressions (POSIX extended, case-sensitive).

struct nimbrelc_regex_deleter {
    void operator()(regex_t *compiled) const;
};
using nimbrelc_regex = std::unique_ptr<regex_t, nimbrelc_regex_deleter>;

bool nimbrelc_regex_compile(nimbrelc_regex &regex, const char *pattern);
// True if `text` matches anywhere; false for an expression that is not compiled.
bool nimbrelc_regex_match(const nimbrelc_regex &regex, const char *text);
void nimbrelc_regex_free(nimbrelc_regex &regex);

// --- Date and time: "%FT%TZ", which deliberately holds local time behind a literal "Z".

// -1 when the text does not parse.
time_t parse_datetime(const char *text);
std::optional<std::string> print_datetime(time_t time);
bool is_datetime(const char *text);

// --- Build flavour: true for "release", false for "devel".
bool is_release();
