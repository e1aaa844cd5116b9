#include "common/logger.h"
#include "migration/migration_steps.h"

namespace {

constexpr const char *log_category = "migration_07.70.13_07.70.14";

}  // namespace

bool upgrade_from_07_70_13_to_07_70_14(cJSON *root) {
    LOG_INFO("Upgrading from %s to %s", "07.70.13", "07.70.14");
    if (cJSON_GetObjectItem(root, "centralStorage") == nullptr) {
        LOG_INFO("Adding 'centralStorage' section");
        cJSON *section = cJSON_AddObjectToObject(root, "centralStorage");
        cJSON_AddTrueToObject(section, "enabled");
        LOG_INFO("Section 'centralStorage' successfully added.");
    }
    return true;
}
