// events.h: key event handlers in the order added until one stops the event, and one-shot jobs,
// all on the default main context, added and deleted from any thread.
#include "KeyEvents.h"

#include <thread>

namespace contract {
namespace {

// A handler that records its name and answers `result`; it may delete a handler when called.
struct Handler {
    std::string name;
    Heard<std::string> *heard;
    int result = ECORE_EVENT_CONTINUE;
    ecore_event_handler_s **toDelete = nullptr;
};

int Handle(int, void *, void *data)
{
    auto *handler = static_cast<Handler *>(data);
    handler->heard->Add(handler->name);
    if (handler->toDelete)
        ecore_event_handler_del(*handler->toDelete);
    return handler->result;
}

class EventsContract : public ContractTest {
protected:
    void TearDown() override
    {
        keyrouter_disconnect();
        ContractTest::TearDown();
    }
};

TEST_F(EventsContract, HandlersRunInTheOrderAddedUntilOneStopsAndMayDeleteThemselves)
{
    Heard<std::string> heard;
    Handler once{"once", &heard}, stopper{"stopper", &heard, ECORE_EVENT_STOP}, after{"after", &heard};
    ecore_event_handler_s *first = ecore_event_handler_add(ECORE_EVENT_KEY_DOWN, Handle, &once);
    once.toDelete = &first;
    ecore_event_handler_s *stopping = nullptr;
    std::thread([&] { stopping = ecore_event_handler_add(ECORE_EVENT_KEY_DOWN, Handle, &stopper); }).join();
    ecore_event_handler_s *last = ecore_event_handler_add(ECORE_EVENT_KEY_DOWN, Handle, &after);
    ASSERT_TRUE(first && stopping && last);

    ASSERT_EQ(keyrouter_connect(), KEYROUTER_ERROR_NONE);
    Grab(0, {kMute});
    driver.PressKey(kMute, kRemote);
    ASSERT_TRUE(heard.WaitFor(2));
    ecore_event_handler_del(stopping);
    driver.PressKey(kMute, kRemote);
    ASSERT_TRUE(heard.WaitFor(3));
    RunPending();
    EXPECT_EQ(heard.Events(), (std::vector<std::string>{"once", "stopper", "after"}));
    EXPECT_TRUE(heard.AllOn(std::this_thread::get_id()));
    ecore_event_handler_del(last);

    EXPECT_EQ(ecore_event_handler_add(99, Handle, &once), nullptr) << "unknown type";
    EXPECT_EQ(ecore_event_handler_add(ECORE_EVENT_KEY_UP, nullptr, nullptr), nullptr);
    ecore_event_handler_del(nullptr);
}

// A job that counts its runs and may delete a job when it runs.
struct Job {
    int runs = 0;
    std::thread::id thread;
    ecore_job_s *toDelete = nullptr;
};

void RunJob(void *data)
{
    auto *job = static_cast<Job *>(data);
    ++job->runs;
    job->thread = std::this_thread::get_id();
    ecore_job_del(job->toDelete);
}

TEST_F(EventsContract, JobsRunOnceOnTheDefaultContextUnlessDeleted)
{
    Job plain, fromThread, deleted, deleter, victim, self;
    ASSERT_NE(ecore_job_add(RunJob, &plain), nullptr);
    std::thread([&fromThread] { ecore_job_add(RunJob, &fromThread); }).join();
    ecore_job_del(ecore_job_add(RunJob, &deleted));
    ASSERT_NE(ecore_job_add(RunJob, &deleter), nullptr);
    deleter.toDelete = ecore_job_add(RunJob, &victim);
    self.toDelete = ecore_job_add(RunJob, &self);
    EXPECT_EQ(plain.runs, 0) << "on a coming iteration, not at once";

    ASSERT_TRUE(WaitFor([&] { return plain.runs && fromThread.runs && deleter.runs && self.runs; }));
    RunPending();
    EXPECT_EQ(std::vector<int>({plain.runs, fromThread.runs, deleted.runs, deleter.runs, victim.runs, self.runs}),
              std::vector<int>({1, 1, 0, 1, 0, 1}));
    EXPECT_EQ(fromThread.thread, std::this_thread::get_id());
    EXPECT_EQ(ecore_job_add(nullptr, nullptr), nullptr);
    ecore_job_del(nullptr);
}

} // namespace
} // namespace contract
