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

// Runs the default main context until nothing is ready to run.
void RunPending()
{
    while (g_main_context_iteration(nullptr, FALSE)) {
    }
}

void RaiseKeyDown(const char *key = "XF86AudioMute")
{
    ecore_device_s device{"rc device 0"};
    ecore_event_key_s event{key, &device};
    nimbos::RaiseKeyEvent(ECORE_EVENT_KEY_DOWN, &event);
}

// A handler that records its label and the event, may delete a handler, and answers `result`.
struct Recorder {
    std::string label;
    int result = ECORE_EVENT_CONTINUE;
    Labels *calls = nullptr;
    std::string *event = nullptr;
    ecore_event_handler_s *toDelete = nullptr;
    ecore_event_handler_s *handle = nullptr;
};

int Record(int type, void *event, void *data)
{
    auto *recorder = static_cast<Recorder *>(data);
    const auto *key = static_cast<const ecore_event_key_s *>(event);
    recorder->calls->push_back(recorder->label);
    *recorder->event = std::to_string(type) + " " + key->keyname + " " + key->device->name;
    ecore_event_handler_del(recorder->toDelete);
    recorder->toDelete = nullptr;
    return recorder->result;
}

class EventHandlers : public ::testing::Test {
protected:
    ecore_event_handler_s *Add(Recorder &recorder, int type = ECORE_EVENT_KEY_DOWN)
    {
        recorder.calls = &calls;
        recorder.event = &lastEvent;
        recorder.handle = ecore_event_handler_add(type, Record, &recorder);
        added.push_back(recorder.handle);
        return recorder.handle;
    }

    void TearDown() override
    {
        for (ecore_event_handler_s *handler : added)
            ecore_event_handler_del(handler);
    }

    Labels calls;
    std::string lastEvent;
    std::vector<ecore_event_handler_s *> added;
};

TEST_F(EventHandlers, RunInAddOrderForTheirTypeUntilOneStopsThatEvent)
{
    Recorder first{"first"}, up{"up"}, stopper{"stopper", ECORE_EVENT_STOP}, last{"last"};
    Add(first);
    Add(up, ECORE_EVENT_KEY_UP);
    Add(stopper);
    Add(last);

    RaiseKeyDown("XF86AudioRaiseVolume");
    RaiseKeyDown("XF86AudioRaiseVolume");

    EXPECT_EQ(calls, (Labels{"first", "stopper", "first", "stopper"}));
    EXPECT_EQ(lastEvent, "1 XF86AudioRaiseVolume rc device 0");
}

TEST_F(EventHandlers, DeletedInsideAHandlerAreNotCalledAgain)
{
    Recorder self{"self"}, deleter{"deleter"}, victim{"victim"}, witness{"witness"};
    Add(self);
    self.toDelete = self.handle;
    Add(deleter);
    Add(victim);
    deleter.toDelete = victim.handle;
    Add(witness);
    added = {deleter.handle, witness.handle};

    RaiseKeyDown();
    RaiseKeyDown();

    EXPECT_EQ(calls, (Labels{"self", "deleter", "witness", "deleter", "witness"}));
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

TEST(Jobs, RunOnceOnTheMainLoopUnlessDeleted)
{
    CountedJob plain, fromThread, deleted, deleter, victim, self;
    ASSERT_NE(ecore_job_add(Count, &plain), nullptr);
    std::thread([&fromThread] { ecore_job_add(Count, &fromThread); }).join();
    ecore_job_del(ecore_job_add(Count, &deleted));
    ASSERT_NE(ecore_job_add(Count, &deleter), nullptr);
    deleter.toDelete = ecore_job_add(Count, &victim);
    self.toDelete = ecore_job_add(Count, &self);
    EXPECT_EQ(plain.runs, 0);

    RunPending();
    RunPending();

    EXPECT_EQ(plain.runs, 1);
    EXPECT_EQ(fromThread.runs, 1);
    EXPECT_EQ(fromThread.thread, g_thread_self());
    EXPECT_EQ(deleted.runs, 0);
    EXPECT_EQ(deleter.runs, 1);
    EXPECT_EQ(victim.runs, 0);
    EXPECT_EQ(self.runs, 1);
}

TEST(EventCalls, UnknownTypesAndNullCallbacksAreRefused)
{
    int data = 0;
    EXPECT_EQ(ecore_event_handler_add(0, Record, &data), nullptr);
    EXPECT_EQ(ecore_event_handler_add(3, Record, &data), nullptr);
    EXPECT_EQ(ecore_event_handler_add(ECORE_EVENT_KEY_UP, nullptr, &data), nullptr);
    EXPECT_EQ(ecore_job_add(nullptr, nullptr), nullptr);
    ecore_event_handler_del(nullptr);
    ecore_job_del(nullptr);
}

} // namespace
