#include "common/json.h"
#include "common/logger.h"
#include "migration/migration_steps.h"
#include "migration/migration_utils.h"

namespace {

constexpr const char *log_category = "migration_07.71.99_07.77.00";

constexpr const char *obsolete_entries[] = {
    "procmon",
    "nas.fileSystemsHelper",
    "nas.fileServices.samba.restartOnFailure",
    "nas.fileServices.samba.configureTimeOut[ms]",
    "nas.fileServices.samba.startTimeOut[ms]",
    "nas.fileServices.samba.stopTimeOut[ms]",
    "nas.fileServices.samba.daemon",
    "nas.fileServices.afp.restartOnFailure",
    "nas.fileServices.afp.configureTimeOut[ms]",
    "nas.fileServices.afp.startTimeOut[ms]",
    "nas.fileServices.afp.stopTimeOut[ms]",
    "nas.fileServices.afp.daemon",
    "nas.fileServices.avahi.restartOnFailure",
    "nas.fileServices.avahi.configureTimeOut[ms]",
    "nas.fileServices.avahi.startTimeOut[ms]",
    "nas.fileServices.avahi.stopTimeOut[ms]",
    "nas.fileServices.avahi.daemon",
    "appLifecycle",
    "systemInteractor",
    "dbConfiguration",
    "webService",
    "cpeDevice.firstLaunch",
    "cpeDevice.launcher",
    "cpeDevice.fileDownloadHandler",
    "cpeDevice.fileUploadHandler",
    "cpeDevice.deviceInfo.manufacturer",
    "cpeDevice.deviceInfo.manufacturerOUI",
    "cpeDevice.deviceInfo.modelName",
    "cpeDevice.deviceInfo.description",
    "cpeDevice.deviceInfo.productClass",
    "cpeDevice.deviceInfo.hardwareVersion",
    "cpeDevice.deviceInfo.enabledOptions",
    "cpeDevice.deviceInfo.additionalHardwareVersion",
    "cpeDevice.deviceInfo.additionalSoftwareVersion",
    "cpeDevice.managementServer",
    "cpeDevice.xmpp",
    "cpeDevice.periodicInformHandler",
    "cpeDevice.lan",
    "cpeDevice.worker",
    "cpeDevice.requests",
    "logsCollector",
    "speedTest",
    "ssh",
    "vpn",
    "upgradeConfig",
    "md5SelfCheck",
};

}  // namespace

bool upgrade_from_07_71_99_to_07_77_00(cJSON *root) {
    LOG_INFO("Upgrading from %s to %s", "07.71.99", "07.77.00");
    for (const char *entry : obsolete_entries) {
        if (nimbrelc_utils_remove_json_object(root, entry)) {
            LOG_INFO("Successfully removed config entry: %s", entry);
        } else {
            LOG_WARN("Config entry does not exist: %s", entry);
        }
    }
    migration_utils_reset_storage_protection(root, "password", "password2");
    return true;
}
