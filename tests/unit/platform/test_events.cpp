// Event handlers and main-loop jobs of the host platform.
#include <gtest/gtest.h>

#include "nimbos/events.h"

#include "HostEvents.h"

#include <glib.h>

#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace {

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

// A handler that records its label and the key, and answers `result`.
struct Recorder {
    explicit Recorder(std::string name, int answer = ECORE_EVENT_CONTINUE) : label(std::move(name)), result(answer) {}

    std::string label;
    std::vector<std::string> *calls = nullptr;
    int result;
    ecore_event_handler_s *toDelete = nullptr;
    ecore_event_handler_s *handle = nullptr;
};

int Record(int type, void *event, void *data)
{
    auto *recorder = static_cast<Recorder *>(data);
    const auto *key = static_cast<const ecore_event_key_s *>(event);
    recorder->calls->push_back(recorder->label + " " + std::to_string(type) + " " + key->keyname + " " +
                               key->device->name);
    if (recorder->toDelete) {
        ecore_event_handler_del(recorder->toDelete);
        recorder->toDelete = nullptr;
    }
    return recorder->result;
}

class EventHandlers : public ::testing::Test {
protected:
    ecore_event_handler_s *Add(Recorder &recorder, int type = ECORE_EVENT_KEY_DOWN)
    {
        recorder.calls = &calls;
        recorder.handle = ecore_event_handler_add(type, Record, &recorder);
        added.push_back(recorder.handle);
        return recorder.handle;
    }

    void TearDown() override
    {
        for (ecore_event_handler_s *handler : added)
            ecore_event_handler_del(handler);
    }

    std::vector<std::string> calls;
    std::vector<ecore_event_handler_s *> added;
};

TEST_F(EventHandlers, RunInAddOrderForTheirTypeOnly)
{
    Recorder first{"first"}, up{"up"}, second{"second"};
    Add(first);
    Add(up, ECORE_EVENT_KEY_UP);
    Add(second);

    RaiseKeyDown("XF86AudioRaiseVolume");

    EXPECT_EQ(calls, (std::vector<std::string>{"first 1 XF86AudioRaiseVolume rc device 0",
                                               "second 1 XF86AudioRaiseVolume rc device 0"}));
}

TEST_F(EventHandlers, StopEndsTheEventButNotTheNext)
{
    Recorder first{"first"}, stopper{"stopper", ECORE_EVENT_STOP}, last{"last"};
    Add(first);
    Add(stopper);
    Add(last);

    RaiseKeyDown();
    RaiseKeyDown();

    EXPECT_EQ(calls, (std::vector<std::string>{"first 1 XF86AudioMute rc device 0", "stopper 1 XF86AudioMute rc device 0",
                                               "first 1 XF86AudioMute rc device 0",
                                               "stopper 1 XF86AudioMute rc device 0"}));
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

    EXPECT_EQ(calls, (std::vector<std::string>{"self 1 XF86AudioMute rc device 0", "deleter 1 XF86AudioMute rc device 0",
                                               "witness 1 XF86AudioMute rc device 0",
                                               "deleter 1 XF86AudioMute rc device 0",
                                               "witness 1 XF86AudioMute rc device 0"}));
}

TEST_F(EventHandlers, UnknownTypeAndNullCallbackAreRefused)
{
    int data = 0;
    EXPECT_EQ(ecore_event_handler_add(0, Record, &data), nullptr);
    EXPECT_EQ(ecore_event_handler_add(3, Record, &data), nullptr);
    EXPECT_EQ(ecore_event_handler_add(ECORE_EVENT_KEY_UP, nullptr, &data), nullptr);
    ecore_event_handler_del(nullptr);
}

// A job that counts its runs and may delete a job when it runs.
struct CountedJob {
    int runs = 0;
    ecore_job_s *toDelete = nullptr;
    ecore_job_s *handle = nullptr;
    GThread *thread = nullptr;
};

void Count(void *data)
{
    auto *job = static_cast<CountedJob *>(data);
    ++job->runs;
    job->thread = g_thread_self();
    if (job->toDelete)
        ecore_job_del(job->toDelete);
}

TEST(Jobs, RunOnceOnTheMainLoop)
{
    CountedJob job;
    ASSERT_NE(ecore_job_add(Count, &job), nullptr);
    EXPECT_EQ(job.runs, 0);

    RunPending();
    RunPending();

    EXPECT_EQ(job.runs, 1);
}

TEST(Jobs, DeletedJobsNeverRun)
{
    // Deleted before the loop ran, by another job, and by itself while running.
    CountedJob deleted, deleter, victim, self;
    ecore_job_s *handle = ecore_job_add(Count, &deleted);
    deleter.handle = ecore_job_add(Count, &deleter);
    victim.handle = ecore_job_add(Count, &victim);
    deleter.toDelete = victim.handle;
    self.handle = ecore_job_add(Count, &self);
    self.toDelete = self.handle;

    ecore_job_del(handle);
    RunPending();
    RunPending();

    EXPECT_EQ(deleted.runs, 0);
    EXPECT_EQ(deleter.runs, 1);
    EXPECT_EQ(victim.runs, 0);
    EXPECT_EQ(self.runs, 1);
}

TEST(Jobs, AddedOnAnotherThreadRunOnTheMainLoop)
{
    CountedJob job;
    std::thread([&job] { ecore_job_add(Count, &job); }).join();

    RunPending();

    EXPECT_EQ(job.runs, 1);
    EXPECT_EQ(job.thread, g_thread_self());
}

TEST(Jobs, NullCallbackIsRefused)
{
    EXPECT_EQ(ecore_job_add(nullptr, nullptr), nullptr);
    ecore_job_del(nullptr);
}

} // namespace
