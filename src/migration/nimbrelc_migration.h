// The start-up migration: prepares /media/nimbrelc.json for the firmware that is now installed. It
// runs alone, without event loop, bus and services.
#pragma once

// Set by the command line: the process runs without the service layer.
extern bool g_migration_mode;

// Upgrades through the migration steps, rebuilds from the default configuration for a downgrade,
// and takes over the legacy configuration on the first start after its firmware was replaced. The
// file is written only by a success, atomically.
bool run_nimbrelc_migration();
