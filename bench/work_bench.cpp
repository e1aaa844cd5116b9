// What every setting and every line of the log costs, against the C library and the JSON library.
#include <syslog.h>
#undef LOG_INFO
#undef LOG_DEBUG

#include <fcntl.h>
#include <unistd.h>

#include <string>

#include "common/logger.h"
#include "config/config.h"
#include "figures.h"
#include "helpers.h"

namespace {

constexpr const char *log_category = "bench";

// A document with a setting and that many bytes besides.
std::string document_of(size_t size) {
    std::string text = R"({"cpeDevice": {"deviceInfo": {"provisioningCode": "x"}})";
    for (size_t i = 0; text.size() < size; ++i) {
        text += ", \"section" + std::to_string(i) +
                R"(": {"enabled": true, "name": "a name of some length", "count": 123})";
    }
    return text + "}";
}

bool save_plainly(const cJSON *document, const std::string &path) {
    char *text = cJSON_Print(document);
    FILE *file = fopen((path + ".tmp").c_str(), "w");
    const bool saved = file != nullptr && fputs(text, file) >= 0 && fclose(file) == 0 &&
                       rename((path + ".tmp").c_str(), path.c_str()) == 0;
    cJSON_free(text);
    return saved;
}

void bench_save(const char *name, size_t size, int calls) {
    const stored_document ours(document_of(size), "/dev/shm");
    const json_ptr bare = parse(document_of(size));
    cJSON *info = cJSON_GetObjectItem(cJSON_GetObjectItem(bare.get(), "cpeDevice"), "deviceInfo");
    const temporary_directory directory("/dev/shm");
    const std::string path = directory / "document";
    const auto one = [calls](const std::function<bool()> &save) {
        bool saved = true;
        const double used = used_by([&] {
            for (int i = 0; i < calls; ++i) {
                saved = saved && save();
            }
        });
        return saved ? used / calls : -1;
    };
    print_figure(
        name, 15,
        [&] {
            return one([] {
                return nimbrelc_config_has_room_for("NORTH-7") &&
                       set_config_text("cpeDevice.deviceInfo.provisioningCode", "NORTH-7") &&
                       nimbrelc_config_save();
            });
        },
        [&] {
            return one([&] {
                cJSON_ReplaceItemInObject(info, "provisioningCode", cJSON_CreateString("NORTH-7"));
                return save_plainly(bare.get(), path);
            });
        });
}

double each(int count, const std::function<void()> &call) {
    return used_by([&] {
               for (int i = 0; i < count; ++i) {
                   call();
               }
           }) /
           count;
}

void log_one() {
    LOG_INFO("Requested event %s for [%s]", "START", "Samba");
}

std::string plain_line() {
    char stamp[64];
    const time_t now = time(nullptr);
    strftime(stamp, sizeof stamp, "%F %T", localtime(&now));
    char line[256];
    snprintf(line, sizeof line, "%s.%03d %5s %s - Requested event %s for [%s]\n", stamp, 0, "INFO",
             log_category, "START", "Samba");
    return line;
}

void log_plainly() {
    syslog(LOG_NOTICE, " INFO %s - Requested event %s for [%s]", log_category, "START", "Samba");
}

void bench_log() {
    const temporary_directory directory("/dev/shm");
    const std::string path = directory / "log";
    openlog("bench", 0, LOG_USER);
    const auto figure = [](const char *name, const std::string &configuration,
                           const std::function<void()> &bare) {
        logger_init(configuration.c_str());
        print_figure(
            name, 31, [] { return each(2000, log_one); }, [&] { return each(2000, bare); });
    };
    figure("log line, suppressed, against one to syslog", "enabled=true:level=error", log_plainly);
    figure("log line to syslog", "level=info:syslog=yes:syslog.ident=bench", log_plainly);
    figure("log line to a file", "level=info:syslog=no:file=yes:file.name=" + path, [&path] {
        const std::string line = plain_line();
        const int file = open((path + ".plain").c_str(), O_WRONLY | O_APPEND | O_CREAT, 0666);
        static_cast<void>(!write(file, line.data(), line.size()));
        close(file);
    });
    logger_cleanup();
}

}  // namespace

void bench_work() {
    bench_save("a setting in a document of 8 KB", 8 << 10, 200);
    bench_save("a setting in a document of 100 KB", 100 << 10, 20);
    bench_save("a setting in a document of 1 MB", 1 << 20, 3);
    bench_save("a setting in a document of 10 MB", 10 << 20, 1);
    bench_log();
}
