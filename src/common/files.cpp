// Logs as "nimbrelc_utils".
#include "common/files.h"

#include <fcntl.h>
#include <ftw.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "common/logger.h"
#include "common/texts.h"

namespace {

constexpr const char *log_category = "nimbrelc_utils";

// Checks an open file before it is used; false with errno set.
using file_check = bool (*)(int fd, const struct stat &info, mode_t mode);

bool is_regular(const struct stat &info) {
    errno = S_ISDIR(info.st_mode) ? EISDIR : EINVAL;
    return S_ISREG(info.st_mode);
}

// A stream on a regular file, or null with errno set. Anything else would block (FIFO), have side
// effects (device) or fail late (directory). A file that this makes gets `mode`.
file_ptr open_regular_file(const char *path, int flags, mode_t mode, const char *stream_mode,
                           file_check check) {
    const int fd = open(path, flags | O_NONBLOCK | O_NOCTTY | O_CLOEXEC, mode);
    if (fd < 0) {
        return nullptr;
    }
    struct stat info {};
    file_ptr file;
    if (fstat(fd, &info) == 0 && is_regular(info) && check(fd, info, mode)) {
        file.reset(fdopen(fd, stream_mode));
    }
    if (file == nullptr) {
        const int error = errno;
        close(fd);
        errno = error;
    }
    return file;
}

bool accept_any(int /*fd*/, const struct stat & /*info*/, mode_t /*mode*/) {
    return true;
}

file_ptr open_for_reading(const char *path) {
    if (path == nullptr) {
        errno = EFAULT;
        return nullptr;
    }
    return open_regular_file(path, O_RDONLY, 0, "r", accept_any);
}

// A file that is there already may have been planted: one with a second name, or another user's
// that all may use, is refused. One of our own loses what is beyond `mode`, where the medium knows
// modes.
bool empty_for_writing(int fd, const struct stat &info, mode_t mode) {
    const bool planted =
        info.st_uid != geteuid() && info.st_uid != 0 && (info.st_mode & S_IRWXO & ~mode) != 0;
    if (info.st_nlink > 1 || planted) {
        errno = EPERM;
        return false;
    }
    if ((info.st_mode & (S_IRWXU | S_IRWXG | S_IRWXO) & ~mode) != 0) {
        (void)fchmod(fd, info.st_mode & mode);
    }
    return ftruncate(fd, 0) == 0;
}

// A file that was not there before is our own, whatever owner the medium shows.
file_ptr make_for_writing(const char *path, mode_t mode) {
    return open_regular_file(path, O_RDWR | O_CREAT | O_EXCL, mode, "w+", accept_any);
}

// As fopen() with "w+" does it, but never through a link. What is refused is made anew where it can
// be removed.
file_ptr open_for_writing(const char *path, mode_t mode) {
    file_ptr file = make_for_writing(path, mode);
    if (file == nullptr && errno == EEXIST) {
        file = open_regular_file(path, O_RDWR | O_NOFOLLOW, mode, "w+", empty_for_writing);
        if (file == nullptr && errno == EPERM && unlink(path) == 0) {
            file = make_for_writing(path, mode);
        }
    }
    return file;
}

// Whether a file that replaces another one reaches the medium before the name does, and the name
// before the operation ends.
constexpr bool sync_writes = NIMBRELC_SYNC_WRITES;

bool flush_to_medium(FILE *file) {
    return fflush(file) == 0 && fsync(fileno(file)) == 0;
}

// Not every medium can flush a directory: then the file is whole all the same.
void flush_directory_of(const std::string &path) {
    const size_t slash = path.rfind('/');
    const std::string name = slash == std::string::npos ? "." : path.substr(0, slash + 1);
    const int directory = open(name.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (directory != -1) {
        (void)fsync(directory);
        close(directory);
    }
}

bool write_text(const char *path, file_ptr file, const char *text, bool flush = false) {
    if (file == nullptr) {
        LOG_ERROR("Cannot open file %s for writing", path);
        return false;
    }
    const bool written = fputs(text, file.get()) >= 0 && (!flush || flush_to_medium(file.get()));
    if (fclose(file.release()) != 0 || !written) {
        LOG_ERROR("Error writing config file %s", path);
        return false;
    }
    return true;
}

// Logs the latest error under `format` (one %s), and leaves it in errno for the caller.
std::nullopt_t reading_failed(file_ptr file, const char *format) {
    const int error = errno;
    LOG_WARN(format, strerror(error));
    file.reset();
    errno = error;
    return std::nullopt;
}

int remove_entry(const char *path, const struct stat * /*info*/, int /*type*/, FTW * /*position*/) {
    const int result = remove(path);
    if (result != 0) {
        // kept: a conversion without its letter, printed as it stands; no error text.
        LOG_ERROR("Failed to remove %%: %s", path);
    }
    return result;
}

}  // namespace

std::optional<std::string> nimbrelc_utils_read_binary_file(const char *path) {
    file_ptr file = open_for_reading(path);
    if (file == nullptr) {
        const int error = errno;
        LOG_WARN("Cannot open the file %s: %s",
                 printable(nimbrelc_utils_empty_if_null(path)).c_str(), strerror(error));
        errno = error;
        return std::nullopt;
    }
    if (fseeko(file.get(), 0, SEEK_END) != 0) {
        return reading_failed(std::move(file), "Cannot determine size of the file (1): %s");
    }
    off_t size = ftello(file.get());
    if (size < 0) {
        LOG_WARN("Cannot determine size of the file (2): %s", strerror(errno));
        size = 0;
    }
    if (fseeko(file.get(), 0, SEEK_SET) != 0) {
        return reading_failed(std::move(file), "Cannot determine size of the file (3): %s");
    }
    // Memory counts as not available, rather than letting a sparse file end the process.
    if (size > static_cast<off_t>(max_file_size)) {
        errno = ENOMEM;
        return reading_failed(std::move(file), "Cannot alloc memory for the buffer: %s");
    }
    std::string content(static_cast<size_t>(size), '\0');
    errno = 0;
    if (fread(content.data(), content.size(), 1, file.get()) != 1) {
        if (errno == 0) {
            errno = ENODATA;
        }
        return reading_failed(std::move(file), "Cannot read data from the file: %s");
    }
    return content;
}

std::optional<std::string> nimbrelc_utils_read_file(const char *path) {
    std::optional<std::string> content = nimbrelc_utils_read_binary_file(path);
    if (content) {
        content->resize(strlen(content->c_str()));
    }
    return content;
}

bool nimbrelc_utils_check_if_file_exists(const char *path) {
    struct stat info {};
    return path != nullptr && stat(path, &info) == 0;
}

bool dump_string_to_file(const char *path, const char *text) {
    if (path == nullptr || text == nullptr) {
        return false;
    }
    return write_text(path, open_for_writing(path, file_mode_open), text);
}

bool safe_dump_string_to_file(const char *path, const char *text, mode_t mode) {
    if (path == nullptr || text == nullptr) {
        return false;
    }
    if (!or_log(log_category, strlen(text) <= max_file_size, "Error saving file")) {
        return false;
    }
    struct stat replaced {};
    if (stat(path, &replaced) == 0) {
        mode &= replaced.st_mode | S_IRUSR | S_IWUSR;
    }
    const std::string temporary = std::string(path) + ".tmp";
    if (remove(temporary.c_str()) == 0) {
        LOG_WARN("Previous file write failed, proceeding");
    }
    file_ptr file = make_for_writing(temporary.c_str(), mode);
    if (!or_log(log_category, write_text(temporary.c_str(), std::move(file), text, sync_writes),
                "Error saving file")) {
        return false;
    }
    if (rename(temporary.c_str(), path) != 0) {
        LOG_ERROR("Error renaming from %s to %s: %s", temporary.c_str(), path, strerror(errno));
        return false;
    }
    if (sync_writes) {
        flush_directory_of(path);
    }
    return true;
}

bool dump_binary_to_file(const char *path, std::string_view data) {
    if (path == nullptr) {
        return false;
    }
    const file_ptr file = open_for_writing(path, file_mode_secret);
    if (file == nullptr) {
        LOG_WARN("Cannot open file %s for writing", printable(path).c_str());
        return false;
    }
    // kept: a short write is not an error here.
    (void)fwrite(data.data(), 1, data.size(), file.get());
    return true;
}

cmp_file_result cmp_file_content(const char *path, const char *text) {
    if (path == nullptr) {
        return CMP_FILE_NO_PATH;
    }
    const file_ptr file = open_for_reading(path);
    if (file == nullptr) {
        if (errno == ENOENT) {
            return CMP_FILE_DIFFERENT;
        }
        // kept: the wording, although the file is only read.
        LOG_ERROR("Cannot open file %s for writing", path);
        return CMP_FILE_ERROR;
    }
    const std::optional<std::string> content = read_to_buffer(file.get());
    if (!content) {
        LOG_ERROR("Failed to read file into a buffer");
        return CMP_FILE_ERROR;
    }
    // Compared as text: it ends at the first zero byte.
    const bool equal = strcmp(content->c_str(), nimbrelc_utils_empty_if_null(text)) == 0;
    return equal ? CMP_FILE_EQUAL : CMP_FILE_DIFFERENT;
}

std::optional<std::string> read_to_buffer(FILE *stream) {
    std::string content;
    char step[128];
    size_t count = 0;
    do {
        count = fread(step, 1, sizeof step, stream);
        if (content.size() + count > max_file_size) {
            LOG_ERROR("realloc failed: %s", strerror(ENOMEM));
            return std::nullopt;
        }
        content.append(step, count);
    } while (count == sizeof step);
    if (ferror(stream) != 0) {
        LOG_ERROR("fread failed: %s", strerror(errno));
        return std::nullopt;
    }
    return content;
}

int rmrf(const char *directory) {
    constexpr int max_open_descriptors = 64;
    if (directory == nullptr) {
        return -1;
    }
    return nftw(directory, remove_entry, max_open_descriptors, FTW_DEPTH | FTW_PHYS);
}
