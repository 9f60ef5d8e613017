// The host's own door into the event handlers of events.h: platform clients that receive input
// (the key router) raise their events through it.
#pragma once

#include "nimbos/events.h"

namespace nimbos {

// Calls the handlers of `type` in the order they were added, until one returns
// ECORE_EVENT_STOP. Call it on the default main context's thread: handlers run where it is
// called. A handler added during the call first sees the next event.
void RaiseKeyEvent(ecore_event_type_e type, ecore_event_key_s *event);

} // namespace nimbos
