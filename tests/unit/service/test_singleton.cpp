// Creation, sharing and release of process-wide singletons.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

#include "Singleton.h"

namespace {

std::atomic<int> g_constructed{0};

class Counted : public CSingleton<Counted> {
    friend class CSingleton<Counted>;

public:
    int value = 0;

private:
    Counted()
    {
        ++g_constructed;
        // Widen the window in which racing callers could build a second instance.
        std::this_thread::yield();
    }
};

// A release and a fresh instance after it are what every in-process service test starts from
// (ServiceHarness).
TEST(Singleton, RacingCallersShareOneInstance)
{
    Counted::ReleaseInstance();
    g_constructed = 0;
    std::vector<Counted *> seen(8, nullptr);
    std::vector<std::thread> threads;
    for (size_t i = 0; i < seen.size(); ++i)
        threads.emplace_back([&seen, i] { seen[i] = Counted::GetInstance(); });
    for (auto &t : threads)
        t.join();
    EXPECT_EQ(g_constructed, 1);
    for (Counted *p : seen)
        EXPECT_EQ(p, seen[0]);
}

TEST(Singleton, ReleaseWaitsForAUserOnAnotherThread)
{
    Counted::ReleaseInstance();
    std::atomic<bool> inside{false};
    std::atomic<bool> released{false};
    std::atomic<bool> releasedWhileInside{false};
    std::thread user([&] {
        Counted::WithInstance([&](Counted &counted) {
            inside = true;
            // Give a releasing thread every chance to get in while the instance is in use.
            for (int i = 0; i < 50 && !released; ++i)
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
            releasedWhileInside = released.load();
            counted.value = 1;
            return 0;
        });
    });
    while (!inside)
        std::this_thread::yield();
    Counted::ReleaseInstance();
    released = true;
    user.join();
    EXPECT_FALSE(releasedWhileInside) << "the instance was released while in use";
}

} // namespace
