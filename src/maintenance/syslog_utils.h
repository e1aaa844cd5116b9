// Keeps the options of the box's log service in line with the configuration, and ends persistent
// logging (the log on the persistent medium instead of RAM) when its time is over.
//
// Options file, one line without a newline: "sSIZE nCOUNT DIRECTORY", SIZE in bytes.
#pragma once

#include <event2/event.h>

// Applies the configuration's section "syslog"; the log service is restarted only when its options
// change. False (logged) on bad values, or when saving, writing or restarting fails.
bool syslog_utils_configure(event_base *base);
