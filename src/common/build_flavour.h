// The build flavour, a choice of the build system.
#pragma once

// True for "release", false for "devel".
bool is_release();
