// Date-times: the text, and what the box takes for now.
#include "common/dates.h"

#include <cstdlib>
#include <ctime>

#include "fuzz.h"

void fuzz(std::string_view input) {
    const std::vector<std::string> texts = fields(input, 2);
    const char *text = texts[0].c_str();
    const time_t now = strtoll(texts[1].c_str(), nullptr, 10);
    for (const char *zone : {"UTC0", "CET-1CEST,M3.5.0,M10.5.0/3"}) {
        setenv("TZ", zone, 1);
        tzset();
        const auto as_of = parse_datetime_as_of(text, now);
        must(is_datetime(text) == as_of.has_value(), "a text is a date-time or none");
        const time_t time = parse_datetime(text);
        const auto printed = print_datetime(time);
        must(!printed || time == -1 || print_datetime(parse_datetime(printed->c_str())) == printed,
             "a printed date-time reads back as the same");
    }
}
