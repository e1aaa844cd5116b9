// The migration engine: carries a configuration document from one firmware version to a later one
// by running the steps of a table that lie between the two. It neither reads nor saves files.
#pragma once

#include <cjson/cJSON.h>

// One step; versions are "NN.NN.NN", so that byte order is version order. Rows of a table ascend.
struct migration {
    const char *from;
    const char *to;
    bool (*step)(cJSON *document);
};

// True when the document fits `to` (also when nothing had to be done). On false the document may be
// partly changed and must be thrown away. A document inside a step's range skips that step.
bool run_migration(const migration *table, unsigned int count, const char *from, const char *to,
                   cJSON *document);
