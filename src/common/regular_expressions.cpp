// Logs as "nimbrelc_utils".
#include "common/regular_expressions.h"

#include "common/texts.h"

namespace {

constexpr const char *log_category = "nimbrelc_utils";

}  // namespace

void nimbrelc_regex_release(regex_t *compiled) {
    regfree(compiled);
    std::default_delete<regex_t>()(compiled);
}

bool nimbrelc_regex_compile(nimbrelc_regex &regex, const char *pattern) {
    constexpr size_t message_size = 50;
    regex.reset();
    auto compiled = std::make_unique<regex_t>();
    const int error = regcomp(compiled.get(), nimbrelc_utils_empty_if_null(pattern), REG_EXTENDED);
    if (error != 0) {
        char message[message_size];
        regerror(error, compiled.get(), message, sizeof message);
        LOG_ERROR("Regex compilation error: %s", message);
        return false;
    }
    regex.reset(compiled.release());
    return true;
}

bool nimbrelc_regex_match(const nimbrelc_regex &regex, const char *text) {
    return regex != nullptr && text != nullptr && regexec(regex.get(), text, 0, nullptr, 0) == 0;
}

void nimbrelc_regex_free(nimbrelc_regex &regex) {
    regex.reset();
}

bool text_matches(const log_source &caller, const char *pattern, const char *text,
                  const char *not_compiled) {
    nimbrelc_regex compiled;
    if (!nimbrelc_regex_compile(compiled, pattern)) {
        LOG_FOR(caller, LOG_LEVEL_ERROR, "%s", not_compiled);
        return false;
    }
    return nimbrelc_regex_match(compiled, text);
}
