#include "datamodel/datamodel.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string>
#include <utility>

#include "common/json.h"
#include "common/logger.h"
#include "common/texts.h"
#include "config/config.h"
#include "datamodel/datamodel_device.h"
#include "datamodel/datamodel_handler.h"
#include "datamodel/datamodel_storage.h"
#include "maintenance/maintenance.h"
#include "platform/launch.h"
#include "remote_access/remote_access.h"

namespace {

constexpr const char *log_category = "datamodel";
constexpr const char *provisioning_state_key = " deviceManagement provisioningState";

// --- Values in the configuration

// kept: the keys of the table are words, most of them behind a blank, and stand so in the log. A
// blank at the beginning changes nothing: empty parts of a path are skipped.
std::string config_path(const char *config_key) {
    std::string path = config_key;
    std::replace(path.begin(), path.end(), ' ', '.');
    return path;
}

// The value as an item of the document, or none where it is not of a kind that `item` takes.
json_ptr new_item(const cJSON *item, const message_bus_arg &value) {
    if (value.type == MB_ARG_BOOLEAN && cJSON_IsBool(item)) {
        return json_ptr(cJSON_CreateBool((value.word & 0xffU) != 0));
    }
    // kept: a signed value is read as an unsigned one, -1 becomes 4294967295. The item's integer
    // copy, which everybody reads, stops at the largest signed integer.
    if ((value.type == MB_ARG_UINT32 || value.type == MB_ARG_INT32) && cJSON_IsNumber(item)) {
        return json_ptr(cJSON_CreateNumber(value.word));
    }
    if (value.type == MB_ARG_STRING && (cJSON_IsNull(item) || cJSON_IsString(item))) {
        return json_ptr(cJSON_CreateString(value.string));
    }
    return nullptr;
}

// Writes a value of the item's own kind and saves the document. A failed save leaves the memory
// changed.
bool write_config(const char *config_key, const message_bus_arg &value) {
    const std::string item_path = config_path(config_key);
    const cJSON *item = get_config_item(item_path.c_str());
    if (item == nullptr) {
        LOG_WARN("Cannot find object for key %s", config_key);
        return false;
    }
    json_ptr changed = new_item(item, value);
    if (!changed) {
        LOG_WARN("Argument type mismatch when setting value for key %s", config_key);
        return false;
    }
    if (cJSON_IsString(changed.get()) && !nimbrelc_config_has_room_for(value.string)) {
        return false;
    }
    return set_config_item(item_path.c_str(), std::move(changed)) && nimbrelc_config_save();
}

// --- Provisioning state

// A comma would end the value in the tool's notation, and what follows would be other members of
// the agent's object.
bool is_one_value(const char *state) {
    return strchr(state, ',') == nullptr;
}

void refuse_provisioning_state() {
    LOG_WARN("Invalid ProvisioningState, ignoring");
}

// Hands the state to the agent's own service; waits until that has answered.
bool push_provisioning_state() {
    const cJSON *state = get_config_item(config_path(provisioning_state_key).c_str());
    if (!or_log(log_category, cJSON_IsString(state),
                "Cannot find ProvisioningState configuration")) {
        return false;
    }
    if (!is_one_value(state->valuestring)) {
        refuse_provisioning_state();
        return false;
    }
    // Not looked at, but read: the tool could fail on an output that nobody reads.
    std::string output;
    return launch_succeeds(
        &output,
        "dbus-send --print-reply --system --dest=com.softathome.dm /AP com.softathome.dm.AP.set "
        "dict:string:string:\"ProvisioningState\",\"%s\"",
        launch_escape_quoted(state->valuestring).c_str());
}

bool provisioning_state_setter(const message_bus_arg &value, message_bus_request request) {
    if (value.type != MB_ARG_STRING || value.string[0] == '\0' || !is_one_value(value.string)) {
        refuse_provisioning_state();
        return message_bus_send_bool_reply(std::move(request), false);
    }
    const bool written = write_config(provisioning_state_key, value);
    const bool replied = message_bus_send_bool_reply(std::move(request), written);
    if (written) {
        push_provisioning_state();
    }
    return replied;
}

// --- The table, searched front to back. kept: not every row with a key is writable.

constexpr datamodel_handler handlers[] = {
    {.name = "Device.DeviceInfo.SoftwareVersion",
     .config_key = " cpeDevice deviceInfo softwareVersion"},
    {.name = "Device.DeviceInfo.ProvisioningCode",
     .config_key = " cpeDevice deviceInfo provisioningCode",
     .config_writable = true},
    {.name = "Device.DeviceInfo.UpTime", .get = datamodel_uptime_getter},
    {.name = "Device.DeviceInfo.FirstUseDate", .config_key = " cpeDevice deviceInfo firstUseDate"},
    {.name = "Device.LAN.IPAddress", .get = datamodel_lan_ip_getter},
    {.name = "Device.LAN.MACAddress", .get = datamodel_lan_mac_getter},
    {.name = "Device.StorageService.1.PhysicalMediumNumberOfEntries",
     .get = physical_medium_number_of_entries_getter},
    {.name_format = "Device.StorageService.1.PhysicalMedium.%u",
     .get_indexed = physical_medium_getter},
    {.name = "Device.StorageService.1.LogicalVolumeNumberOfEntries",
     .get = logical_volume_number_of_entries_getter},
    {.name_format = "Device.StorageService.1.LogicalVolume.%u",
     .get_indexed = logical_volume_getter,
     .set_indexed = logical_volume_name_setter},
    {.name = "Device.X_KELVANTO-COM_DeviceManagement.ProvisioningState",
     .config_key = provisioning_state_key,
     .set = provisioning_state_setter},
    {.name = "Device.X_KELVANTO-COM_DeviceManagement.FWUpgradeValidation",
     .config_key = " upgradeConfig firmwareValidationEnabled",
     .config_writable = true},
    {.name = "Device.X_KELVANTO-COM_DeviceManagement.DevelopmentBuildsAllowed",
     .config_key = " upgradeConfig developmentBuildsAllowed",
     .config_writable = true},
    {.name = "Device.X_KELVANTO-COM_DeviceManagement.MinimumFWVersion",
     .config_key = " upgradeConfig minimumFirmwareVersion",
     .config_writable = true},
    {.name = "Device.X_KELVANTO-COM_DeviceManagement.BootloaderVersion",
     .get = datamodel_bootloader_version_getter},
    {.name = "Device.X_KELVANTO-COM_DeviceManagement.Storage.USBStorageDevicesCount",
     .get = usb_storage_devices_count_getter},
    {.name = "Device.X_KELVANTO-COM_DeviceManagement.Storage.SDCardPresent",
     .get = sd_card_present_getter},
    {.name = "Device.X_KELVANTO-COM_DeviceManagement.Storage.PasswordProtectionEnabled",
     .config_key = " storage enabled"},
    {.name = "Device.X_KELVANTO-COM_DeviceManagement.Storage.DiskSleepEnabled",
     .get = datamodel_disk_sleep_enabled_getter,
     .set = datamodel_disk_sleep_enabled_setter},
    {.name = "Device.X_KELVANTO-COM_DeviceManagement.Storage.CentralStorageEnabled",
     .config_key = "centralStorage enabled"},
    {.name = "Device.X_KELVANTO-COM_DeviceManagement.Syslog.NumberOfFiles",
     .config_key = " syslog numberOfFiles",
     .after_set = syslog_utils_configure,
     .reply_type = MB_ARG_UINT32,
     .config_writable = true},
    {.name = "Device.X_KELVANTO-COM_DeviceManagement.Syslog.MaxFileSize",
     .config_key = " syslog maxFileSize",
     .after_set = syslog_utils_configure,
     .reply_type = MB_ARG_UINT32,
     .config_writable = true},
    {.name = "Device.X_KELVANTO-COM_DeviceManagement.Syslog.Persistent",
     .config_key = " syslog persistent",
     .after_set = syslog_utils_configure,
     .reply_type = MB_ARG_UINT32,
     .config_writable = true},
    {.name = "Device.X_KELVANTO-COM_DeviceManagement.Syslog.PersistentLogActivationDuration",
     .config_key = " syslog activationDuration",
     .after_set = syslog_utils_configure,
     .reply_type = MB_ARG_UINT32,
     .config_writable = true},
    {.name = "Device.X_KELVANTO-COM_DeviceManagement.Syslog.PersistentLogActivationDate",
     .config_key = " syslog activationDate"},
    {.name = "Device.X_KELVANTO-COM_DeviceManagement.SerialConsole.TracesEnabled",
     .get = serial_console_traces_enabled_getter,
     .set = serial_console_traces_enabled_setter},
    {.name = "Device.X_KELVANTO-COM_DeviceManagement.SerialConsole.LoginEnabled",
     .get = serial_console_login_enabled_getter,
     .set = serial_console_login_enabled_setter},
    {.name = "Device.X_KELVANTO-COM_DeviceManagement.SerialConsole.LoginPassword",
     .get = serial_console_login_password_getter,
     .set = serial_console_login_password_setter},
    {.name = "Device.X_KELVANTO-COM_DeviceManagement.SSH.AuthorizedKey",
     .config_key = " ssh authorizedKey",
     .after_set = ssh_configure,
     .config_writable = true},
    {.name = "Device.X_KELVANTO-COM_DeviceManagement.SSH.Enable",
     .config_key = " ssh enable",
     .after_set = ssh_configure,
     .reply_type = MB_ARG_UINT32,
     .config_writable = true},
    {.name = "Device.X_KELVANTO-COM_DeviceManagement.SSH.ExternalNPPort",
     .config_key = " ssh externalNPPort",
     .after_set = ssh_configure,
     .reply_type = MB_ARG_UINT32,
     .config_writable = true},
    {.name = "Device.X_KELVANTO-COM_DeviceManagement.SSH.ActivationDuration",
     .config_key = " ssh activationDuration",
     .set = ssh_set_activation_duration,
     .reply_type = MB_ARG_UINT32},
    {.name = "Device.X_KELVANTO-COM_DeviceManagement.SSH.ActivationDate",
     .config_key = " ssh activationDate"},
    {.name = "Device.X_KELVANTO-COM_DeviceManagement.VPN.Enable",
     .config_key = " vpn enable",
     .after_set = vpn_after_set_enable,
     .reply_type = MB_ARG_UINT32,
     .config_writable = true},
    {.name = "Device.X_KELVANTO-COM_DeviceManagement.VPN.GlobalEnable",
     .config_key = " vpn globalEnable",
     .after_set = vpn_after_set_enable,
     .reply_type = MB_ARG_UINT32,
     .config_writable = true},
    {.name = "Device.X_KELVANTO-COM_DeviceManagement.VPN.VoIPCallsBlockEnable",
     .config_key = " vpn voIPCallsBlockEnable",
     .after_set = vpn_after_set_voip_calls_block_enable,
     .reply_type = MB_ARG_UINT32,
     .config_writable = true},
    {.name = "Device.X_KELVANTO-COM_DeviceManagement.Debug.Segfault.Count",
     .config_key = " segfault count",
     .reply_type = MB_ARG_UINT32},
    {.name = "Device.X_KELVANTO-COM_DeviceManagement.Debug.Segfault.LastTimeStamp",
     .config_key = " segfault lastTimestamp"},
    {.name = "Device.X_KELVANTO-COM_DeviceManagement.Debug.Segfault.DumpNumberOfEntries",
     .get = segfault_dump_number_of_entries_getter},
    {.name_format = "Device.X_KELVANTO-COM_DeviceManagement.Debug.Segfault.Dump.%u",
     .get_indexed = segfault_dump_getter},
};

// --- The three methods

void get_value_callback(const message_bus_args &args, message_bus_request request) {
    const char *key = args[0].string;
    const datamodel_handler *handler = find_handler(key, nullptr);
    if (handler == nullptr) {
        LOG_WARN("Failed to get value for key %s: handler not found", printable(key).c_str());
        message_bus_send_no_reply(std::move(request));
    } else if (handler->get != nullptr) {
        handler->get(std::move(request));
    } else if (handler->config_key != nullptr) {
        send_value_from_config(handler->config_key, handler->reply_type, std::move(request));
    } else {
        LOG_ERROR("Failed to get value for key %s: handler callback not found",
                  printable(key).c_str());
        message_bus_send_no_reply(std::move(request));
    }
}

// kept: its failures to set are logged as failures to get.
void set_value_callback(const message_bus_args &args, message_bus_request request) {
    // kept: checked here, since the value may be of any type, and the log does not say what is
    // wrong.
    if (args.count() != 2 || args[0].type != MB_ARG_STRING) {
        LOG_WARN("Bad args passed to set_value_callback");
        message_bus_send_bool_reply(std::move(request), false);
        return;
    }
    const char *key = args[0].string;
    const message_bus_arg &value = args[1];
    uint32_t index = 0;
    const datamodel_handler *handler = find_handler(key, &index);
    if (handler == nullptr) {
        LOG_ERROR("Failed to get value for key %s: handler not found", printable(key).c_str());
        message_bus_send_bool_reply(std::move(request), false);
        return;
    }
    if (handler->set_indexed != nullptr) {
        handler->set_indexed(value, std::move(request), index, key);
    } else if (handler->set != nullptr) {
        handler->set(value, std::move(request));
    } else if (handler->config_key != nullptr && handler->config_writable) {
        message_bus_send_bool_reply(std::move(request), write_config(handler->config_key, value));
    } else {
        LOG_ERROR("Failed to get value for key %s: handler callback not found",
                  printable(key).c_str());
        message_bus_send_bool_reply(std::move(request), false);
        return;
    }
    // kept: also after a value that was refused.
    if (handler->after_set != nullptr && !handler->after_set()) {
        LOG_ERROR("Failed to apply value for key %s", key);
    }
}

void get_object_callback(const message_bus_args &args, message_bus_request request) {
    const char *key = "";
    uint32_t index = 0;
    const datamodel_handler *handler = nullptr;
    // kept: checked here, since a refusal is logged a second time below, as an empty key.
    if (message_bus_validate_params(request, args, "s")) {
        key = args[0].string;
        handler = find_handler(key, &index);
    } else {
        LOG_WARN("Bad args passed to get_object_callback");
    }
    if (handler != nullptr && handler->get_indexed != nullptr) {
        handler->get_indexed(std::move(request), index, key);
    } else if (handler != nullptr && handler->get != nullptr) {
        handler->get(std::move(request));
    } else {
        LOG_WARN("Failed to get object for key %s", printable(key).c_str());
        message_bus_send_no_reply(std::move(request));
    }
}

constexpr message_bus_method methods[] = {
    {.member = "GetValue",
     .handler = get_value_callback,
     .args = "s",
     .refusal_text = "Bad args passed to get_value_callback",
     .refusal = message_bus_refusal::empty_reply},
    {.member = "SetValue", .handler = set_value_callback},
    {.member = "GetObject", .handler = get_object_callback},
};

}  // namespace

bool datamodel_start() {
    return message_bus_add_methods(log_category, "/com/kelvanto/nimbrel",
                                   "com.kelvanto.nimbrel.datamodel", methods) &&
           push_provisioning_state();
}

bool datamodel_stop() {
    return true;
}

const datamodel_handler *find_handler(const char *key, uint32_t *index) {
    for (const datamodel_handler &handler : handlers) {
        if (handler.name != nullptr && strcmp(handler.name, key) == 0) {
            return &handler;
        }
        if (index != nullptr && handler.name_format != nullptr &&
            sscanf(key, handler.name_format, index) == 1) {
            return &handler;
        }
    }
    return nullptr;
}

bool send_value_from_config(const char *config_key, mb_arg_type reply_type,
                            message_bus_request request) {
    const cJSON *item = get_config_item(config_path(config_key).c_str());
    if (item == nullptr) {
        LOG_WARN("Cannot find object for key %s", config_key);
        return message_bus_send_no_reply(std::move(request));
    }
    if (cJSON_IsBool(item)) {
        return message_bus_send_bool_reply(std::move(request), cJSON_IsTrue(item));
    }
    if (cJSON_IsNull(item)) {
        return message_bus_send_string_reply(std::move(request), "");
    }
    if (cJSON_IsNumber(item)) {
        return message_bus_send_reply(
            std::move(request),
            {{.type = reply_type, .word = static_cast<uint32_t>(item->valueint)}});
    }
    if (cJSON_IsString(item)) {
        return message_bus_send_string_reply(std::move(request), item->valuestring);
    }
    LOG_WARN("Cannot handle config type %d in request for config value at key %s", json_type(item),
             config_key);
    return message_bus_send_no_reply(std::move(request));
}
