// Main-loop jobs of the host platform (the key-event handlers are the daemon's volume-key tests).
#include <gtest/gtest.h>

#include "nimbos/events.h"

#include <glib.h>

#include <thread>

namespace {

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
