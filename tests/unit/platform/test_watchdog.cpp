// The watchdog speaks systemd's notify protocol to the socket named by NOTIFY_SOCKET; the test
// binds that socket itself (in the abstract namespace) and reads what arrives.
#include "nimbos/watchdog.h"

#include <gtest/gtest.h>

#include <glib.h>

#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <poll.h>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

struct NotifySocket {
    NotifySocket()
    {
        const std::string name = "hadrix-watchdog-test-" + std::to_string(getpid());
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        memcpy(address.sun_path + 1, name.data(), name.size());
        bound = bind(fd, reinterpret_cast<sockaddr *>(&address),
                     static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + name.size())) == 0;
        setenv("NOTIFY_SOCKET", ("@" + name).c_str(), 1);
    }
    ~NotifySocket()
    {
        unsetenv("NOTIFY_SOCKET");
        close(fd);
    }

    // The next message, or "" when none arrives while the default main context runs for timeoutMs.
    std::string Receive(int timeoutMs) const
    {
        for (const gint64 end = g_get_monotonic_time() + timeoutMs * 1000LL;;) {
            while (g_main_context_iteration(nullptr, FALSE)) {
            }
            pollfd waiting{fd, POLLIN, 0};
            if (poll(&waiting, 1, 10) == 1) {
                char buffer[256];
                const ssize_t n = recv(fd, buffer, sizeof buffer, 0);
                return n > 0 ? std::string(buffer, static_cast<size_t>(n)) : "";
            }
            if (g_get_monotonic_time() >= end)
                return "";
        }
    }

    int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    bool bound = false;
};

TEST(WatchdogTest, RegistrationAnnouncesReadinessAndPeriodOnceWhenTheLoopRuns)
{
    NotifySocket socket;
    ASSERT_TRUE(socket.bound);
    EXPECT_LT(smart_deadlock_register_watchdog_service(0), 0);
    EXPECT_LT(smart_deadlock_register_watchdog_service(-5), 0);
    ASSERT_EQ(smart_deadlock_register_watchdog_service(60), 0);
    pollfd early{socket.fd, POLLIN, 0};
    EXPECT_EQ(poll(&early, 1, 0), 0) << "announced before the loop ran";

    EXPECT_EQ(socket.Receive(5000), "READY=1");
    EXPECT_EQ(socket.Receive(1000), "WATCHDOG_USEC=60000000");
    EXPECT_EQ(smart_deadlock_register_watchdog_service(30), 0);
    EXPECT_EQ(socket.Receive(200), "") << "readiness announced twice";

    EXPECT_EQ(smart_deadlock_watchdog_notify(), 0);
    EXPECT_EQ(socket.Receive(1000), "WATCHDOG=1");
}

TEST(WatchdogTest, HeartbeatWithoutNotifySocketSucceedsAndAnUndeliveredOneFails)
{
    unsetenv("NOTIFY_SOCKET");
    EXPECT_EQ(smart_deadlock_watchdog_notify(), 0);
    setenv("NOTIFY_SOCKET", "/nonexistent/hadrix-notify", 1);
    EXPECT_LT(smart_deadlock_watchdog_notify(), 0);
    unsetenv("NOTIFY_SOCKET");
}

} // namespace
