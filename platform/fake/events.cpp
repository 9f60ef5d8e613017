// Fake event handlers and jobs of the main loop: every call recorded, then the shared registry
// (EventRegistry.h). The key router raises its events through it.
#include "nimbos/events.h"

#include "EventRegistry.h"
#include "FakeCore.h"

namespace {

using nimbos::fake::detail::Enter;
using nimbos::fake::detail::Record;
using nimbos::fake::detail::Text;

} // namespace

namespace nimbos::fake::detail {

void ResetEvents()
{
    common::ClearEvents();
}

} // namespace nimbos::fake::detail

extern "C" ecore_event_handler_s *ecore_event_handler_add(int type, ecore_event_handler_cb cb, void *user_data)
{
    if (Enter(__func__, {Text(type)}))
        return nullptr;
    return nimbos::common::AddHandler(type, cb, user_data);
}

extern "C" void ecore_event_handler_del(ecore_event_handler_s *handler)
{
    Record(__func__, {});
    nimbos::common::DeleteHandler(handler);
}

extern "C" ecore_job_s *ecore_job_add(ecore_job_cb cb, void *user_data)
{
    if (Enter(__func__, {}))
        return nullptr;
    return nimbos::common::AddJob(cb, user_data);
}

extern "C" void ecore_job_del(ecore_job_s *job)
{
    Record(__func__, {});
    nimbos::common::DeleteJob(job);
}
