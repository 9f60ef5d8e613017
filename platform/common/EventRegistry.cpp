// Handlers and jobs may be added and deleted from any thread, so their bookkeeping sits behind
// locks that are never held while a handler or a job runs.
#include "EventRegistry.h"

#include "SourcePtr.h"

#include <glib.h>

#include <algorithm>
#include <atomic>
#include <iterator>
#include <memory>
#include <mutex>
#include <set>
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
    GSource *source; // owned by the default main context until the job ends
    bool running = false;
};

namespace {

using nimbos::SourcePtr;

using HandlerRef = std::shared_ptr<ecore_event_handler_s>;

// Never destroyed: threads may still add or delete while the process exits.
struct Handlers {
    std::mutex lock;
    std::vector<HandlerRef> list; // in the order of adding
};

Handlers &TheHandlers()
{
    static Handlers *handlers = new Handlers;
    return *handlers;
}

// The jobs that have neither run nor been deleted. Their sources are destroyed (SourcePtr) only
// after the lock is released.
struct Jobs {
    std::mutex lock;
    std::set<ecore_job_s *> pending;
};

Jobs &TheJobs()
{
    static Jobs *jobs = new Jobs;
    return *jobs;
}

std::vector<HandlerRef> HandlersOf(int type)
{
    Handlers &handlers = TheHandlers();
    std::lock_guard<std::mutex> lock(handlers.lock);
    std::vector<HandlerRef> matching;
    std::copy_if(handlers.list.begin(), handlers.list.end(), std::back_inserter(matching),
                 [type](const HandlerRef &handler) { return handler->type == type; });
    return matching;
}

gboolean RunJob(gpointer data)
{
    auto *job = static_cast<ecore_job_s *>(data);
    Jobs &jobs = TheJobs();
    {
        std::lock_guard<std::mutex> lock(jobs.lock);
        if (!jobs.pending.count(job))
            return G_SOURCE_REMOVE; // deleted on another thread after the loop had picked it
        job->running = true;
    }
    job->cb(job->userData);
    std::lock_guard<std::mutex> lock(jobs.lock);
    jobs.pending.erase(job);
    return G_SOURCE_REMOVE;
}

// The source's destroy notify: the job ends with its source, after its callback has returned. It
// may run inside g_source_destroy, so it takes no lock.
void FreeJob(gpointer data)
{
    delete static_cast<ecore_job_s *>(data);
}

} // namespace

namespace nimbos::common {

ecore_event_handler_s *AddHandler(int type, ecore_event_handler_cb cb, void *userData)
{
    if ((type != ECORE_EVENT_KEY_DOWN && type != ECORE_EVENT_KEY_UP) || !cb)
        return nullptr;
    auto handler = std::make_shared<ecore_event_handler_s>();
    handler->type = type;
    handler->cb = cb;
    handler->userData = userData;
    Handlers &handlers = TheHandlers();
    std::lock_guard<std::mutex> lock(handlers.lock);
    handlers.list.push_back(handler);
    return handler.get();
}

// A handler being called keeps living in the snapshot of the event that calls it.
bool DeleteHandler(ecore_event_handler_s *handler)
{
    Handlers &handlers = TheHandlers();
    std::lock_guard<std::mutex> lock(handlers.lock);
    auto found = std::find_if(handlers.list.begin(), handlers.list.end(),
                              [handler](const HandlerRef &entry) { return entry.get() == handler; });
    if (found == handlers.list.end())
        return false;
    (*found)->live = false;
    handlers.list.erase(found);
    return true;
}

void RaiseKeyEvent(ecore_event_type_e type, ecore_event_key_s *event)
{
    for (const HandlerRef &handler : HandlersOf(type))
        if (handler->live && handler->cb(type, event, handler->userData) == ECORE_EVENT_STOP)
            return;
}

ecore_job_s *AddJob(ecore_job_cb cb, void *userData)
{
    if (!cb)
        return nullptr;
    auto *job = new ecore_job_s{cb, userData, g_idle_source_new()};
    g_source_set_callback(job->source, RunJob, job, FreeJob);
    {
        Jobs &jobs = TheJobs();
        std::lock_guard<std::mutex> lock(jobs.lock);
        jobs.pending.insert(job);
    }
    // The context's reference keeps the source until the job ends; the job keeps a plain pointer.
    g_source_attach(job->source, g_main_context_default());
    g_source_unref(job->source);
    return job;
}

void DeleteJob(ecore_job_s *job)
{
    SourcePtr source;
    {
        Jobs &jobs = TheJobs();
        std::lock_guard<std::mutex> lock(jobs.lock);
        if (!job || !jobs.pending.count(job) || job->running)
            return;
        jobs.pending.erase(job);
        // The job may end as soon as the lock is released; its source must outlive the destroy.
        source.reset(g_source_ref(job->source));
    }
}

void ClearEvents()
{
    {
        Handlers &handlers = TheHandlers();
        std::lock_guard<std::mutex> lock(handlers.lock);
        for (const HandlerRef &handler : handlers.list)
            handler->live = false;
        handlers.list.clear();
    }
    std::vector<SourcePtr> sources;
    {
        Jobs &jobs = TheJobs();
        std::lock_guard<std::mutex> lock(jobs.lock);
        for (ecore_job_s *job : jobs.pending)
            sources.emplace_back(g_source_ref(job->source));
        jobs.pending.clear();
    }
}

} // namespace nimbos::common
