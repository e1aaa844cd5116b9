// Regular expressions: POSIX extended syntax, case-sensitive.
#pragma once

#include <regex.h>

#include "common/handle.h"
#include "common/logger.h"

void nimbrelc_regex_release(regex_t *compiled);
using nimbrelc_regex = handle<regex_t, nimbrelc_regex_release>;

bool nimbrelc_regex_compile(nimbrelc_regex &regex, const char *pattern);
// True if `text` matches anywhere; false for an expression that is not compiled.
bool nimbrelc_regex_match(const nimbrelc_regex &regex, const char *text);
void nimbrelc_regex_free(nimbrelc_regex &regex);

// The same in one question, for a pattern that is rarely asked: compiled, it would fill many pages
// for good. One that does not compile matches nothing; `not_compiled` is logged at ERROR for
// `caller` then.
bool text_matches(const log_source &caller, const char *pattern, const char *text,
                  const char *not_compiled);
