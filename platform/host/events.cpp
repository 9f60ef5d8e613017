// Event handlers and jobs of the main loop on the host: the shared registry (EventRegistry.h),
// with the host's log lines for what it refuses.
#include "nimbos/events.h"

#include "EventRegistry.h"
#include "HostLog.h"

extern "C" ecore_event_handler_s *ecore_event_handler_add(int type, ecore_event_handler_cb cb, void *user_data)
{
    ecore_event_handler_s *handler = nimbos::common::AddHandler(type, cb, user_data);
    if (!handler)
        HOST_LOG(DLOG_ERROR, "event handler refused: type %d, callback %s", type, cb ? "set" : "null");
    return handler;
}

extern "C" void ecore_event_handler_del(ecore_event_handler_s *handler)
{
    if (handler && !nimbos::common::DeleteHandler(handler))
        HOST_LOG(DLOG_WARN, "event handler %p is not registered", static_cast<void *>(handler));
}

extern "C" ecore_job_s *ecore_job_add(ecore_job_cb cb, void *user_data)
{
    ecore_job_s *job = nimbos::common::AddJob(cb, user_data);
    if (!job)
        HOST_LOG(DLOG_ERROR, "job with a null callback refused");
    return job;
}

extern "C" void ecore_job_del(ecore_job_s *job)
{
    nimbos::common::DeleteJob(job);
}
