// The event handlers and jobs of events.h as both platform implementations keep them: handlers in
// one list, jobs as one-shot idle sources on the default main context. Each implementation's
// extern "C" functions check, log or record as it does, then call these.
#pragma once

#include "nimbos/events.h"

namespace nimbos::common {

// Adds a handler of `type`; null for an unknown type or a null cb.
ecore_event_handler_s *AddHandler(int type, ecore_event_handler_cb cb, void *userData);
// Removes the handler; false when it is not registered.
bool DeleteHandler(ecore_event_handler_s *handler);
// Calls the handlers of `type` in the order they were added, until one returns
// ECORE_EVENT_STOP. Call it on the default main context's thread: handlers run where it is
// called. A handler added during the call first sees the next event.
void RaiseKeyEvent(ecore_event_type_e type, ecore_event_key_s *event);

// Queues a job on the default main context; null for a null cb.
ecore_job_s *AddJob(ecore_job_cb cb, void *userData);
// Cancels a job that has neither run nor been deleted; anything else, null included, is ignored.
void DeleteJob(ecore_job_s *job);

// Removes every handler and cancels every pending job.
void ClearEvents();

} // namespace nimbos::common
