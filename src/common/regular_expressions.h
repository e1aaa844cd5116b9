// Regular expressions: POSIX extended syntax, case-sensitive.
#pragma once

#include <regex.h>

#include <memory>

struct nimbrelc_regex_deleter {
    void operator()(regex_t *compiled) const;
};
using nimbrelc_regex = std::unique_ptr<regex_t, nimbrelc_regex_deleter>;

bool nimbrelc_regex_compile(nimbrelc_regex &regex, const char *pattern);
// True if `text` matches anywhere; false for an expression that is not compiled.
bool nimbrelc_regex_match(const nimbrelc_regex &regex, const char *text);
void nimbrelc_regex_free(nimbrelc_regex &regex);
