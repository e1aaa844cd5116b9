// What the fuzz targets share. A target is one function, fuzz(); where something that must hold
// does not, it ends the process, and the fuzzer reports the input. What it writes under /media,
// /etc and /opt stays in its own memory.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "helpers.h"

// One execution. Written by each target.
void fuzz(std::string_view input);

// Ends the process, naming what should have been, when it is not.
void must(bool holds, const char *what);

// The first `count` texts of the input, which zero bytes separate; those that are missing are
// empty.
std::vector<std::string> fields(std::string_view input, size_t count);

// JSON text, "nothing" for none.
std::string text_of(const cJSON *item);

// Printed, parsed and printed again, an item is the same.
void must_read_back(const cJSON *item);

// Whether a member stands twice in an object of the tree, case ignored.
bool has_twins(const cJSON *item);
