// Keeps the box's media server told whether it may stream the shared media: only while the user's
// switch and central storage are both on. One call at a time; later changes wait for its reply, and
// a server that is not ready is asked again every five seconds.
#pragma once

#include <event2/event.h>

// Serves the switch and tells the media server the current state; may be called again at any time.
// False when the methods could not be served (the state is told all the same).
bool dlna_manager_start(event_base *base);

// Tells the media server to stop streaming. Always true.
bool dlna_manager_stop();
