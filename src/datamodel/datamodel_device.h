// The data model's rows about the box itself: up time, LAN interface, boot loader, disk sleep. Each
// function answers its request, the last three once the service they ask has answered.
#pragma once

#include "common/msg_bus/message_bus.h"

void datamodel_uptime_getter(message_bus_request request);  // seconds

// "0.0.0.0" and "" when the interface cannot be asked.
void datamodel_lan_ip_getter(message_bus_request request);
void datamodel_lan_mac_getter(message_bus_request request);

// An answer of another shape, or none, gives an empty reply.
void datamodel_bootloader_version_getter(message_bus_request request);
void datamodel_disk_sleep_enabled_getter(message_bus_request request);
bool datamodel_disk_sleep_enabled_setter(const message_bus_arg &value, message_bus_request request);
