// Date-times: the text, what the box takes for now, and a number of minutes.
#include "common/dates.h"

#include <climits>
#include <cstdlib>
#include <ctime>

#include "fuzz.h"
#include "remote_access/ssh_time.h"

void fuzz(std::string_view input) {
    const std::vector<std::string> texts = fields(input, 3);
    const char *text = texts[0].c_str();
    const time_t now = strtoll(texts[1].c_str(), nullptr, 10);
    const auto minutes = static_cast<uint32_t>(strtoul(texts[2].c_str(), nullptr, 10));
    for (const char *zone : {"UTC0", "CET-1CEST,M3.5.0,M10.5.0/3"}) {
        setenv("TZ", zone, 1);
        tzset();
        const time_t time = parse_datetime(text);
        const auto as_of = parse_datetime_as_of(text, now);
        must(is_datetime(text) == as_of.has_value(), "a text is a date-time or none");
        if (const auto printed = print_datetime(time); printed && time != -1) {
            // An hour comes twice at the end of summer time.
            must(labs(parse_datetime(printed->c_str()) - time) <= (*zone == 'C' ? 3600 : 0),
                 "a printed date-time reads back as the same");
        }
        if (as_of) {
            for (const bool release : {false, true}) {
                const uint32_t duration = ssh_duration_seconds(minutes, release);
                const auto left = ssh_remaining_seconds(*as_of, duration, now, release);
                must(!left || *left >= 0 || *as_of < INT_MIN || *as_of > INT_MAX || now > INT_MAX ||
                         now < 0 || *as_of < 0,
                     "no activation lasts less than no time");
            }
        }
    }
}
