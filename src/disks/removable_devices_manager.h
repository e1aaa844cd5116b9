// The bus side of what is plugged in: keeps the lists current from the disk daemon's signals, tells
// one listener when partitions come and go, shows LCD messages for disks, and forwards requests.
#pragma once

// Forward a request to the disk daemon, whose answer is not awaited. True when the call was sent.
bool removable_devices_unmount_device(const char *uuid);
bool removable_devices_change_label(const char *uuid, const char *label);
