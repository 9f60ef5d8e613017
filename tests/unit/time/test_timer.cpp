// Main-loop timers owned by their objects, on the test's clock and on the system's.
#include <gtest/gtest.h>

#include <functional>
#include <memory>

#include "FakeClock.h"
#include "Timer.h"

namespace {

// A callback that counts its runs and answers what the test says.
struct Probe {
    int runs = 0;
    std::function<gboolean(Probe &)> answer = [](Probe &) { return G_SOURCE_REMOVE; };
    CTimer *timer = nullptr;

    static gboolean Run(gpointer data)
    {
        auto *self = static_cast<Probe *>(data);
        ++self->runs;
        return self->answer(*self);
    }
};

TEST(Timer, AOneShotFiresOnceWhenDueAndForgetsItsId)
{
    FakeClock clock;
    Probe probe;
    CTimer timer;
    timer.Start(100, Probe::Run, &probe);
    EXPECT_TRUE(timer.IsPending());
    clock.Advance(99);
    EXPECT_EQ(probe.runs, 0);
    clock.Advance(1);
    EXPECT_EQ(probe.runs, 1);
    EXPECT_FALSE(timer.IsPending());
    EXPECT_EQ(timer.Id(), 0u);
    clock.Advance(1000);
    EXPECT_EQ(probe.runs, 1);
}

TEST(Timer, ARepeatingTimerRunsEveryIntervalUntilItsCallbackSaysNo)
{
    FakeClock clock;
    Probe probe;
    probe.answer = [](Probe &p) { return p.runs < 3 ? G_SOURCE_CONTINUE : G_SOURCE_REMOVE; };
    CTimer timer;
    timer.Start(5000, Probe::Run, &probe);
    clock.Advance(14999);
    EXPECT_EQ(probe.runs, 2);
    EXPECT_TRUE(timer.IsPending());
    clock.Advance(30000);
    EXPECT_EQ(probe.runs, 3);
    EXPECT_FALSE(timer.IsPending());
}

TEST(Timer, StartingAgainReplacesThePendingTimeoutAndDestructionRemovesIt)
{
    FakeClock clock;
    Probe first, second;
    {
        CTimer timer;
        timer.Start(100, Probe::Run, &first);
        timer.Start(200, Probe::Run, &second);
        clock.Advance(150);
        EXPECT_EQ(first.runs, 0) << "a replaced timeout never fires";
        timer.Start(100, Probe::Run, &second);
    }
    EXPECT_EQ(clock.PendingCount(), 0u) << "the owner's end removes its timeout";
    clock.Advance(1000);
    EXPECT_EQ(second.runs, 0);
}

TEST(Timer, ACallbackMayStopOrArmItsOwnTimer)
{
    FakeClock clock;
    CTimer timer;
    Probe rearm;
    rearm.timer = &timer;
    rearm.answer = [](Probe &p) {
        if (p.runs == 1)
            p.timer->Start(50, Probe::Run, &p); // armed again from inside: the new timeout stays
        return G_SOURCE_REMOVE;
    };
    timer.Start(100, Probe::Run, &rearm);
    clock.Advance(100);
    EXPECT_TRUE(timer.IsPending());
    clock.Advance(50);
    EXPECT_EQ(rearm.runs, 2);
    EXPECT_FALSE(timer.IsPending());

    Probe stop;
    stop.timer = &timer;
    stop.answer = [](Probe &p) {
        p.timer->Stop();
        return G_SOURCE_CONTINUE; // stopped: it does not repeat all the same
    };
    timer.Start(10, Probe::Run, &stop);
    clock.Advance(100);
    EXPECT_EQ(stop.runs, 1);
    EXPECT_FALSE(timer.IsPending());
}

TEST(Timer, IsFiringTellsACallbackWhetherItsTimerWasArmedAgainMeanwhile)
{
    FakeClock clock;
    CTimer timer;
    Probe probe;
    bool firingBefore = false, firingAfter = true;
    probe.timer = &timer;
    probe.answer = [&](Probe &p) {
        firingBefore = p.timer->IsFiring();
        p.timer->Start(1000, Probe::Run, &p);
        firingAfter = p.timer->IsFiring();
        return G_SOURCE_REMOVE;
    };
    timer.Start(10, Probe::Run, &probe);
    EXPECT_FALSE(timer.IsFiring());
    clock.Advance(10);
    EXPECT_TRUE(firingBefore);
    EXPECT_FALSE(firingAfter);
}

TEST(Timer, OnTheSystemClockATimeoutFiresFromTheMainLoop)
{
    Probe probe;
    CTimer timer;
    timer.Start(0, Probe::Run, &probe);
    for (int i = 0; i < 1000 && probe.runs == 0; ++i)
        g_main_context_iteration(nullptr, TRUE);
    EXPECT_EQ(probe.runs, 1);
    EXPECT_FALSE(timer.IsPending());
}

} // namespace
