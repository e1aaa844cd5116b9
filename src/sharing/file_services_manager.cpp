#include "sharing/file_services_manager.h"

#include <cstring>

#include "common/logger.h"
#include "common/texts.h"
#include "disks/disks.h"
#include "sharing/file_service.h"
#include "sharing/file_service_events.h"
#include "sharing/file_service_queue.h"
#include "sharing/share_settings.h"
#include "sharing/sharing.h"

namespace {

constexpr const char *log_category = "file_services_manager";

// `event` is START or RELOAD.
void request_gated(file_service_queue &queue, file_service_event event) {
    const bool start = event == FILE_SERVICE_EVENT_START;
    if (!file_services_request_handler_is_central_storage_enabled()) {
        LOG_INFO(start ? "Central storage is off - START request cannot be generated"
                       : "Central storage is off - RELOAD request cannot be generated");
        return;
    }
    LOG_INFO(start ? "Central storage is on - START request can be generated"
                   : "Central storage is on - RELOAD request can be generated");
    file_service_queue_request(queue, event);
}

bool is_running_or_about_to(const file_service_queue &queue) {
    return queue.service.is_running() || file_service_queue_starts_soon(queue);
}

void update_without_partitions(file_service_queue &queue) {
    LOG_INFO("There are no supported partitions");
    if (is_running_or_about_to(queue)) {
        LOG_INFO("Service [%s] is enabled and running - requesting stop", queue.service.name);
        file_service_queue_request(queue, FILE_SERVICE_EVENT_STOP);
    } else {
        LOG_INFO("Service [%s] is not running - fine", queue.service.name);
    }
}

void update_with_partitions(file_service_queue &queue) {
    LOG_INFO("There are supported partitions");
    if (queue.service.is_running() && file_service_queue_newest(queue) != FILE_SERVICE_EVENT_STOP) {
        LOG_INFO("Service [%s] is enabled and running - requesting reload", queue.service.name);
        request_gated(queue, FILE_SERVICE_EVENT_RELOAD);
    } else {
        LOG_INFO("Service [%s] is enabled but not running - requesting start", queue.service.name);
        request_gated(queue, FILE_SERVICE_EVENT_START);
    }
}

void partition_list_received() {
    LOG_INFO("Update file services on startup");
    file_services_manager_update_file_services();
}

void partition_connected() {
    LOG_INFO("Update file services on partition connected");
    file_services_manager_update_file_services();
}

void partition_disconnected() {
    LOG_INFO("Update file services on partition disconnected");
    file_services_manager_update_file_services();
}

}  // namespace

bool file_services_manager_start() {
    removable_devices_set_listener(partition_list_received, partition_connected,
                                   partition_disconnected);
    return true;
}

bool file_services_manager_stop() {
    for (const file_service_queue &queue : file_service_queues) {
        file_service_queue_stop_service(queue);
    }
    return true;
}

bool file_services_manager_change_file_service_state_by_name(const char *name, bool enabled) {
    if (name == nullptr) {
        return false;
    }
    for (file_service_queue &queue : file_service_queues) {
        const file_service &service = queue.service;
        if (strcmp(service.name, name) != 0) {
            continue;
        }
        LOG_INFO("Saving new state of file service [%s]", service.name);
        if (!service.save_state(enabled)) {
            LOG_ERROR("Error saving new state of file service");
            return false;
        }
        if (!enabled) {
            LOG_INFO("Service [%s] has been disabled, requesting stop", service.name);
            file_service_queue_request(queue, FILE_SERVICE_EVENT_STOP);
            return true;
        }
        LOG_INFO("Service [%s] has been enabled", service.name);
        if (count_supported_partitions() >= 1) {
            LOG_INFO("Storage devices are present, requesting start of [%s] service", service.name);
            request_gated(queue, FILE_SERVICE_EVENT_START);
        }
        return true;
    }
    LOG_WARN("Unrecognised file service %s", printable(name).c_str());
    return false;
}

void file_services_manager_update_file_services() {
    const int partitions = count_supported_partitions();
    LOG_INFO("Updating file services, number of supported partitions: %d", partitions);
    for (file_service_queue &queue : file_service_queues) {
        if (!queue.service.is_enabled()) {
            LOG_INFO("Service [%s] is disabled", queue.service.name);
        } else if (partitions == 0) {
            update_without_partitions(queue);
        } else {
            update_with_partitions(queue);
        }
    }
}

void file_services_manager_reload_file_services() {
    LOG_INFO("Requesting reload of all file services");
    for (file_service_queue &queue : file_service_queues) {
        const file_service &service = queue.service;
        if (service.is_enabled() && service.is_running()) {
            LOG_INFO("Service [%s] is enabled and running - requesting restart", service.name);
            file_service_queue_request(queue, FILE_SERVICE_EVENT_STOP);
            request_gated(queue, FILE_SERVICE_EVENT_START);
        } else {
            LOG_INFO("Service [%s] is not enabled or not running - restart not needed",
                     service.name);
        }
    }
}

void file_services_manager_stop_file_services() {
    LOG_INFO("Requesting stop of all file services");
    for (file_service_queue &queue : file_service_queues) {
        const file_service &service = queue.service;
        if (!service.is_enabled()) {
            LOG_INFO("Service [%s] is not enabled - stop not needed", service.name);
        } else if (is_running_or_about_to(queue)) {
            LOG_INFO("Service [%s] is enabled and running - requesting stop", service.name);
            file_service_queue_request(queue, FILE_SERVICE_EVENT_STOP);
        } else {
            LOG_INFO("Service [%s] is not running - stop not needed", service.name);
        }
    }
}

json_ptr file_services_manager_get_services_status() {
    json_ptr status(cJSON_CreateObject());
    cJSON *list = cJSON_AddArrayToObject(status.get(), "fileServices");
    for (const file_service &service : file_services) {
        cJSON *entry = cJSON_CreateObject();
        cJSON_AddStringToObject(entry, "service", service.name);
        cJSON_AddBoolToObject(entry, "enabled", service.is_enabled());
        cJSON_AddBoolToObject(entry, "running", service.is_running());
        cJSON_AddItemToArray(list, entry);
    }
    return status;
}
