#include "common/build_flavour.h"

#include <strings.h>

bool is_release() {
    return strcasecmp(NIMBRELC_BUILD_FLAVOUR, "release") == 0;
}
