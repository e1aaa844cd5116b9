// What the fuzz targets share. A target is one function; where something that must hold does not,
// it ends the process, and the fuzzer reports the input. What it writes under /media, /etc and /opt
// stays in its own memory.
#pragma once

#include <span>
#include <string_view>
#include <vector>

#include "helpers.h"

void fuzz(std::string_view input);        // one execution, written by each target
void must(bool holds, const char *what);  // `what` says what should have been

// The first texts of the input, which zero bytes separate; missing ones are empty.
std::vector<std::string> fields(std::string_view input, size_t count);

void must_read_back(const cJSON *item);  // printed and parsed it is the same
bool has_twins(const cJSON *item);       // whether an object has a member twice, case ignored

bool load_document(const std::string &text);  // makes it the configuration; false when it is none
void must_save_document();                    // and it loads again as it was
