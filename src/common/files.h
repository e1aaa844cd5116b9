// Whole-file reads, atomic writes, comparing a file with a text, and removing a tree. Only regular
// files are read and written; everything else fails as a file that cannot be opened, and so does
// writing through a symbolic link or into what somebody else may have planted.
#pragma once

#include <sys/types.h>

#include <cstdio>
#include <optional>
#include <string>
#include <string_view>

#include "common/handle.h"

// A writer closes by hand (`fclose(file.release())`) to see the flush fail.
using file_ptr = handle<FILE, fclose>;

// More than any file or output that this daemon handles; a larger one is not read.
constexpr size_t max_file_size = size_t{64} * 1024 * 1024;

// The whole file; nothing for an empty or unreadable one (logged at WARN, errno kept).
std::optional<std::string> nimbrelc_utils_read_binary_file(const char *path);

// The same as text: it ends at the first zero byte.
std::optional<std::string> nimbrelc_utils_read_file(const char *path);

bool nimbrelc_utils_check_if_file_exists(const char *path);

// Who may use a file that is written here. A file that was stricter stays so.
constexpr mode_t file_mode_open = 0644;
constexpr mode_t file_mode_secret = 0600;

// Truncates and writes `path` in place. Done only when every byte and the closing flush succeeded.
bool dump_string_to_file(const char *path, const char *text);

// Writes "PATH.tmp" and renames it onto `path`, which is whole at every moment. What could not be
// read again for its size is not written. Built with NIMBRELC_SYNC_WRITES it reaches the medium
// first.
bool safe_dump_string_to_file(const char *path, const char *text, mode_t mode = file_mode_open);

// Truncates and writes `path`, a secret file; true whenever the file could be opened, even if the
// write fell short.
bool dump_binary_to_file(const char *path, std::string_view data);

// Results of cmp_file_content.
enum cmp_file_result : int {
    CMP_FILE_EQUAL = 0,
    CMP_FILE_ERROR = -1,
    CMP_FILE_NO_PATH = -2,
    CMP_FILE_DIFFERENT = -7,  // also when the file does not exist
};
cmp_file_result cmp_file_content(const char *path, const char *text);

// Everything from the stream's position to its end, or nothing on a read error.
std::optional<std::string> read_to_buffer(FILE *stream);

// Removes a whole tree without following symbolic links; 0 on success. kept: nothing here calls it.
int rmrf(const char *directory);
