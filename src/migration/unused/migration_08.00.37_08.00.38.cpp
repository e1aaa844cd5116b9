#include "common/logger.h"
#include "migration/migration_steps.h"
#include "migration/migration_utils.h"

namespace {

constexpr const char *log_category = "migration_08.00.37_08.00.38";

}  // namespace

bool upgrade_from_08_00_37_to_08_00_38(cJSON *root) {
    LOG_INFO("Upgrading from %s to %s", "08.00.37", "08.00.38");
    migration_utils_reset_storage_protection(root, "password2", "password3");
    return true;
}
