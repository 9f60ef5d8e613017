// Event handlers and jobs of the main loop on the host. Handlers live in one list per event type;
// jobs are one-shot idle sources on the default main context. Both may be added and deleted
// from any thread, so their bookkeeping sits behind a lock that is never held while a handler
// or a job runs.
#include "nimbos/events.h"

#include "HostEvents.h"
#include "HostLog.h"

#include <glib.h>

#include <algorithm>
#include <atomic>
#include <memory>
#include <mutex>
#include <vector>

struct ecore_event_handler_s {
    int type;
    ecore_event_handler_cb cb;
    void *userData;
    // Cleared on deletion; an event already being raised skips the handler from then on.
    std::atomic<bool> live{true};
};

struct ecore_job_s {
    ecore_job_cb cb;
    void *userData;
    GSource *source;  // owned by the default main context until the job ends
    bool running = false;
    bool cancelled = false;
};

namespace {

using HandlerRef = std::shared_ptr<ecore_event_handler_s>;
using HandlerList = std::vector<HandlerRef>;

bool IsEventType(int type)
{
    return type == ECORE_EVENT_KEY_DOWN || type == ECORE_EVENT_KEY_UP;
}

class HandlerRegistry {
public:
    ecore_event_handler_s *Add(int type, ecore_event_handler_cb cb, void *userData)
    {
        auto handler = std::make_shared<ecore_event_handler_s>();
        handler->type = type;
        handler->cb = cb;
        handler->userData = userData;
        std::lock_guard<std::mutex> lock(m_lock);
        m_handlers.push_back(handler);
        return handler.get();
    }

    // A handler being called keeps living in the snapshot of the event that calls it.
    bool Delete(ecore_event_handler_s *handler)
    {
        std::lock_guard<std::mutex> lock(m_lock);
        auto found = std::find_if(m_handlers.begin(), m_handlers.end(),
                                  [handler](const HandlerRef &entry) { return entry.get() == handler; });
        if (found == m_handlers.end())
            return false;
        (*found)->live = false;
        m_handlers.erase(found);
        return true;
    }

    HandlerList HandlersOf(int type) const
    {
        HandlerList handlers;
        std::lock_guard<std::mutex> lock(m_lock);
        std::copy_if(m_handlers.begin(), m_handlers.end(), std::back_inserter(handlers),
                     [type](const HandlerRef &entry) { return entry->type == type; });
        return handlers;
    }

private:
    mutable std::mutex m_lock;
    HandlerList m_handlers;  // in the order of adding
};

HandlerRegistry &Handlers()
{
    static HandlerRegistry registry;
    return registry;
}

// Guards the running and cancelled flags of every job.
std::mutex &JobLock()
{
    static std::mutex lock;
    return lock;
}

gboolean RunJob(gpointer data)
{
    auto *job = static_cast<ecore_job_s *>(data);
    {
        std::lock_guard<std::mutex> lock(JobLock());
        // Deleted on another thread after the main loop had picked the job.
        if (job->cancelled)
            return G_SOURCE_REMOVE;
        job->running = true;
    }
    job->cb(job->userData);
    return G_SOURCE_REMOVE;
}

// The source's destroy notify: the job ends with its source, after its callback has returned.
void FreeJob(gpointer data)
{
    delete static_cast<ecore_job_s *>(data);
}

} // namespace

namespace nimbos {

void RaiseKeyEvent(ecore_event_type_e type, ecore_event_key_s *event)
{
    for (const HandlerRef &handler : Handlers().HandlersOf(type)) {
        if (handler->live && handler->cb(type, event, handler->userData) == ECORE_EVENT_STOP)
            return;
    }
}

} // namespace nimbos

extern "C" ecore_event_handler_s *ecore_event_handler_add(int type, ecore_event_handler_cb cb, void *user_data)
{
    if (!IsEventType(type) || !cb) {
        HOST_LOG(DLOG_ERROR, "event handler refused: type %d, callback %s", type, cb ? "set" : "null");
        return nullptr;
    }
    return Handlers().Add(type, cb, user_data);
}

extern "C" void ecore_event_handler_del(ecore_event_handler_s *handler)
{
    if (handler && !Handlers().Delete(handler))
        HOST_LOG(DLOG_WARN, "event handler %p is not registered", static_cast<void *>(handler));
}

extern "C" ecore_job_s *ecore_job_add(ecore_job_cb cb, void *user_data)
{
    if (!cb) {
        HOST_LOG(DLOG_ERROR, "job with a null callback refused");
        return nullptr;
    }
    auto *job = new ecore_job_s{cb, user_data, g_idle_source_new()};
    g_source_set_callback(job->source, RunJob, job, FreeJob);
    // The context's reference keeps the source until the job ends; the job keeps a plain pointer.
    g_source_attach(job->source, g_main_context_default());
    g_source_unref(job->source);
    return job;
}

extern "C" void ecore_job_del(ecore_job_s *job)
{
    if (!job)
        return;
    std::lock_guard<std::mutex> lock(JobLock());
    if (job->running)
        return;
    job->cancelled = true;
    // Frees the job at once, or once a dispatch already under way on the main loop has ended.
    g_source_destroy(job->source);
}
