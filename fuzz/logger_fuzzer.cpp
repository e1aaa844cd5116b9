// The logger: settings (none that names a file), category, message. The system log, which takes a
// text as a format, shows the line with "%%" and "%m" expanded and everything else as it is.
#include "common/logger.h"

#include <cerrno>
#include <cstdarg>
#include <cstring>

#include "fuzz.h"

namespace {

std::string shown;

std::string expanded(std::string text) {
    const std::string error = strerror(ENOENT);
    for (size_t at = 0; (at = text.find('%', at)) != std::string::npos; ++at) {
        if (text[at + 1] == '%') {
            text.erase(at, 1);
        } else if (text[at + 1] == 'm') {
            text.replace(at, 2, error);
            at += error.size() - 1;
        }
    }
    return text;
}

}  // namespace

// The program's own definition comes before the C library's.
extern "C" void syslog(int, const char *format, ...) {
    static char text[1 << 18];
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    shown = std::string(text) + '\n';
}

void fuzz(std::string_view input) {
    const std::vector<std::string> texts = fields(input, 3);
    if (texts[0].find("file") != std::string::npos || texts[0].find("out") != std::string::npos) {
        return;
    }
    shown.clear();
    recorded_log log;
    logger_init(("syslog=yes:level=trace:" + texts[0]).c_str());
    errno = ENOENT;
    _log(texts[1].c_str(), LOG_LEVEL_WARN, "file", 1, "%s", texts[2].c_str());
    must(log.text.empty() || log.text.back() == '\n', "a line ends with a newline");
    must(shown.empty() || shown == expanded(log.text), "the system log shows the line");
}
