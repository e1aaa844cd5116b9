// Regular expressions: POSIX extended syntax, case-sensitive.
#pragma once

#include <regex.h>

#include "common/handle.h"

void nimbrelc_regex_release(regex_t *compiled);
using nimbrelc_regex = handle<regex_t, nimbrelc_regex_release>;

bool nimbrelc_regex_compile(nimbrelc_regex &regex, const char *pattern);
// True if `text` matches anywhere; false for an expression that is not compiled.
bool nimbrelc_regex_match(const nimbrelc_regex &regex, const char *text);
void nimbrelc_regex_free(nimbrelc_regex &regex);
