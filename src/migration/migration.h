// The door of the migration: the start-up migration, which prepares /media/nimbrelc.json for the
// firmware that is now installed, and the engine that it drives.
#pragma once

#include <cjson/cJSON.h>

// Set by the command line: the process runs without the service layer.
extern bool g_migration_mode;

// Runs alone, without event loop, bus and services. Upgrades through the migration steps, rebuilds
// from the default configuration for a downgrade, and takes over the legacy configuration on the
// first start after its firmware was replaced. The file is written only by a success, atomically.
bool run_nimbrelc_migration();

// --- The engine: carries a configuration document from one firmware version to a later one by
// running the steps of a table that lie between the two. It neither reads nor saves files.

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
