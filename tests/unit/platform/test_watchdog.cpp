// The watchdog speaks systemd's notify protocol to the socket named by NOTIFY_SOCKET; the test
// binds that socket itself and reads what arrives.
#include "nimbos/watchdog.h"

#include <gtest/gtest.h>

#include <glib-unix.h>
#include <glib.h>
#include <glib/gstdio.h>

#include <cstdlib>
#include <cstring>
#include <poll.h>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

class NotifySocket {
public:
    NotifySocket()
    {
        char pattern[] = "/tmp/hadrix-watchdog-XXXXXX";
        m_dir = g_mkdtemp(pattern);
        m_path = m_dir + "/notify";
        m_fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        strncpy(address.sun_path, m_path.c_str(), sizeof address.sun_path - 1);
        m_bound = m_fd >= 0 && bind(m_fd, reinterpret_cast<sockaddr *>(&address), sizeof address) == 0;
        setenv("NOTIFY_SOCKET", m_path.c_str(), 1);
    }
    ~NotifySocket()
    {
        unsetenv("NOTIFY_SOCKET");
        if (m_fd >= 0)
            close(m_fd);
        g_unlink(m_path.c_str());
        g_rmdir(m_dir.c_str());
    }
    NotifySocket(const NotifySocket &) = delete;
    NotifySocket &operator=(const NotifySocket &) = delete;

    bool Bound() const { return m_bound; }
    int Fd() const { return m_fd; }

    // The next message, or "" when none arrives within timeoutMs.
    std::string Receive(int timeoutMs) const
    {
        pollfd waiting{m_fd, POLLIN, 0};
        if (poll(&waiting, 1, timeoutMs) != 1)
            return "";
        char buffer[256];
        ssize_t n = recv(m_fd, buffer, sizeof buffer, 0);
        return n > 0 ? std::string(buffer, static_cast<size_t>(n)) : "";
    }

private:
    std::string m_dir;
    std::string m_path;
    int m_fd = -1;
    bool m_bound = false;
};

TEST(WatchdogTest, RegistrationAnnouncesReadinessOnceWhenTheLoopRuns)
{
    NotifySocket socket;
    ASSERT_TRUE(socket.Bound());
    ASSERT_EQ(smart_deadlock_register_watchdog_service(60), 0);
    EXPECT_EQ(socket.Receive(0), "") << "announced before the loop ran";

    // Run the default loop until something arrives on the socket, or give up after 5 s.
    g_autoptr(GMainLoop) loop = g_main_loop_new(nullptr, FALSE);
    struct Wait {
        GMainLoop *loop;
        bool timedOut;
    } wait{loop, false};
    guint arrival = g_unix_fd_add(socket.Fd(), G_IO_IN, [](int, GIOCondition, gpointer data) {
        g_main_loop_quit(static_cast<Wait *>(data)->loop);
        return G_SOURCE_REMOVE;
    }, &wait);
    guint deadline = g_timeout_add(5000, [](gpointer data) {
        static_cast<Wait *>(data)->timedOut = true;
        g_main_loop_quit(static_cast<Wait *>(data)->loop);
        return G_SOURCE_REMOVE;
    }, &wait);
    g_main_loop_run(loop);
    g_source_remove(wait.timedOut ? arrival : deadline);

    ASSERT_FALSE(wait.timedOut) << "READY=1 never arrived";
    EXPECT_EQ(socket.Receive(1000), "READY=1");
    EXPECT_EQ(socket.Receive(1000), "WATCHDOG_USEC=60000000");

    EXPECT_EQ(smart_deadlock_register_watchdog_service(30), 0);
    while (g_main_context_iteration(nullptr, FALSE)) {
    }
    EXPECT_EQ(socket.Receive(200), "") << "readiness announced twice";
}

TEST(WatchdogTest, WithoutNotifySocketNothingFails)
{
    unsetenv("NOTIFY_SOCKET");
    EXPECT_EQ(smart_deadlock_watchdog_notify(), 0);
}

TEST(WatchdogTest, UndeliveredHeartbeatIsReported)
{
    setenv("NOTIFY_SOCKET", "/nonexistent/hadrix-notify", 1);
    EXPECT_LT(smart_deadlock_watchdog_notify(), 0);
    unsetenv("NOTIFY_SOCKET");
}

TEST(WatchdogTest, RefusesNonPositivePeriod)
{
    EXPECT_LT(smart_deadlock_register_watchdog_service(0), 0);
    EXPECT_LT(smart_deadlock_register_watchdog_service(-5), 0);
}

} // namespace
