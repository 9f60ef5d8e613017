// Event handlers and main-loop jobs of the host platform.
#include <gtest/gtest.h>

#include "nimbos/events.h"

#include "HostEvents.h"

#include <glib.h>

#include <string>
#include <thread>
#include <vector>

namespace {

using Labels = std::vector<std::string>;

void RaiseKeyDown()
{
    ecore_device_s device{"rc device 0"};
    ecore_event_key_s event{"XF86AudioRaiseVolume", &device};
    nimbos::RaiseKeyEvent(ECORE_EVENT_KEY_DOWN, &event);
}

// A handler that records its label (the first also the event), may delete a handler, and answers `result`.
struct Handler {
    Handler(const char *name, int answer = ECORE_EVENT_CONTINUE) : label(name), result(answer) {}
    std::string label;
    int result;
    Labels *calls = nullptr;
    ecore_event_handler_s *self = nullptr;
    ecore_event_handler_s **toDelete = nullptr;
};

int Record(int type, void *event, void *data)
{
    auto *handler = static_cast<Handler *>(data);
    const auto *key = static_cast<const ecore_event_key_s *>(event);
    handler->calls->push_back(handler->label);
    if (handler->calls->size() == 1)
        handler->calls->push_back(std::to_string(type) + " " + key->keyname + " " + key->device->name);
    if (handler->toDelete)
        ecore_event_handler_del(*handler->toDelete);
    handler->toDelete = nullptr;
    return handler->result;
}

// Adds the handlers in order (the one labelled "up" for key-up events), raises two key-down
// events, deletes what is left, and returns the calls.
Labels RaiseTwice(std::vector<Handler> &handlers)
{
    Labels calls;
    for (Handler &handler : handlers) {
        handler.calls = &calls;
        handler.self = ecore_event_handler_add(handler.label == "up" ? ECORE_EVENT_KEY_UP : ECORE_EVENT_KEY_DOWN,
                                               Record, &handler);
    }
    RaiseKeyDown();
    RaiseKeyDown();
    for (Handler &handler : handlers)
        if (handler.label != "self" && handler.label != "victim")
            ecore_event_handler_del(handler.self);
    return calls;
}

TEST(EventHandlers, RunInAddOrderForTheirTypeUntilOneStopsThatEvent)
{
    std::vector<Handler> handlers{{"first"}, {"up"}, {"stopper", ECORE_EVENT_STOP}, {"last"}};
    EXPECT_EQ(RaiseTwice(handlers),
              (Labels{"first", "1 XF86AudioRaiseVolume rc device 0", "stopper", "first", "stopper"}));
    EXPECT_EQ(ecore_event_handler_add(0, Record, nullptr), nullptr);
    EXPECT_EQ(ecore_event_handler_add(3, Record, nullptr), nullptr);
    EXPECT_EQ(ecore_event_handler_add(ECORE_EVENT_KEY_UP, nullptr, nullptr), nullptr);
    ecore_event_handler_del(nullptr);
}

TEST(EventHandlers, DeletedInsideAHandlerAreNotCalledAgain)
{
    std::vector<Handler> handlers{{"self"}, {"deleter"}, {"victim"}, {"witness"}};
    handlers[0].toDelete = &handlers[0].self;
    handlers[1].toDelete = &handlers[2].self;
    EXPECT_EQ(RaiseTwice(handlers), (Labels{"self", "1 XF86AudioRaiseVolume rc device 0", "deleter", "witness",
                                            "deleter", "witness"}));
}

// A job that counts its runs and may delete a job when it runs.
struct CountedJob {
    int runs = 0;
    ecore_job_s *toDelete = nullptr;
    GThread *thread = nullptr;
};

void Count(void *data)
{
    auto *job = static_cast<CountedJob *>(data);
    ++job->runs;
    job->thread = g_thread_self();
    ecore_job_del(job->toDelete);
}

TEST(Jobs, RunOnceOnTheMainLoopUnlessDeletedAndNeedACallback)
{
    CountedJob plain, fromThread, deleted, deleter, victim, self;
    ASSERT_NE(ecore_job_add(Count, &plain), nullptr);
    std::thread([&fromThread] { ecore_job_add(Count, &fromThread); }).join();
    ecore_job_del(ecore_job_add(Count, &deleted));
    ASSERT_NE(ecore_job_add(Count, &deleter), nullptr);
    deleter.toDelete = ecore_job_add(Count, &victim);
    self.toDelete = ecore_job_add(Count, &self);
    EXPECT_EQ(plain.runs, 0);

    for (int round = 0; round < 2; ++round)
        while (g_main_context_iteration(nullptr, FALSE)) {
        }

    EXPECT_EQ(plain.runs, 1);
    EXPECT_EQ(fromThread.runs, 1);
    EXPECT_EQ(fromThread.thread, g_thread_self());
    EXPECT_EQ(deleted.runs, 0);
    EXPECT_EQ(deleter.runs, 1);
    EXPECT_EQ(victim.runs, 0);
    EXPECT_EQ(self.runs, 1);
    EXPECT_EQ(ecore_job_add(nullptr, nullptr), nullptr);
    ecore_job_del(nullptr);
}

} // namespace
