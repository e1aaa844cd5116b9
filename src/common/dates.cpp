// Logs as "nimbrelc_utils".
#include "common/dates.h"

#include <cerrno>
#include <cstring>

#include "common/logger.h"

namespace {

constexpr const char *log_category = "nimbrelc_utils";

// Conversions that every C library parses: "%F" is no such one.
constexpr const char *datetime_format = "%Y-%m-%dT%H:%M:%SZ";

// `fields` with what the text says, nothing when it does not parse.
std::optional<tm> parse(const char *text, tm fields = {}) {
    const bool parsed = text != nullptr && strptime(text, datetime_format, &fields) != nullptr;
    return parsed ? std::optional(fields) : std::nullopt;
}

}  // namespace

std::optional<time_t> parse_datetime(const char *text) {
    std::optional<tm> fields = parse(text);
    if (!fields) {
        return std::nullopt;
    }
    // kept: local time in spite of the "Z". Left to the library whether summer time applies, so
    // that what print_datetime() wrote reads back as the same time all the year round.
    fields->tm_isdst = -1;
    return mktime(&*fields);
}

std::optional<time_t> parse_datetime_as_of(const char *text, time_t now) {
    tm today{};
    localtime_r(&now, &today);
    std::optional<tm> fields = parse(text, today);
    return fields ? std::optional(mktime(&*fields)) : std::nullopt;
}

std::optional<std::string> print_datetime(time_t time) {
    constexpr size_t text_size = sizeof "2024-05-01T13:07:42Z";
    tm fields{};
    char text[text_size];
    if (localtime_r(&time, &fields) == nullptr ||
        strftime(text, sizeof text, datetime_format, &fields) == 0) {
        return std::nullopt;
    }
    return text;
}

bool is_datetime(const char *text) {
    if (!parse(text)) {
        // strptime() itself sets no error.
        LOG_ERROR("strptime failed to parse the date: %s", strerror(EINVAL));
        return false;
    }
    return true;
}
