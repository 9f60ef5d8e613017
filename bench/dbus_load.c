/* Load for B3: CLIENTS client processes, each with its own bus connection, call one method of a
 * peer back to back (one call in flight per client) for SECONDS seconds.
 *   bench_dbus_load ADDRESS DESTINATION PATH INTERFACE METHOD CLIENTS SECONDS [INT_ARGUMENT]
 * With INT_ARGUMENT the call carries "(i)" with it, else no arguments. The clients connect and
 * make one call each before the clock starts. Prints one line:
 *   calls=<n> errors=<n> seconds=<s> rate=<calls per second>
 * Exit status 0 when every call was answered without an error. */
#include <gio/gio.h>
#include <signal.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#define MAX_CLIENTS 64
#define CALL_TIMEOUT_MS 5000

typedef struct {
    const char *address;
    const char *destination;
    const char *path;
    const char *interface;
    const char *method;
    int clients;
    double seconds;
    gboolean withArgument;
    gint32 argument;
} Load;

typedef struct {
    uint64_t calls;
    uint64_t errors;
} Tally;

static double Now(void)
{
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return ts.tv_sec + ts.tv_nsec / 1e9;
}

static gboolean CallOnce(const Load *load, GDBusConnection *connection)
{
    GError *error = NULL;
    GVariant *reply = g_dbus_connection_call_sync(
        connection, load->destination, load->path, load->interface, load->method,
        load->withArgument ? g_variant_new("(i)", load->argument) : NULL, NULL, G_DBUS_CALL_FLAGS_NONE,
        CALL_TIMEOUT_MS, NULL, &error);
    if (!reply) {
        fprintf(stderr, "bench_dbus_load: %s: %s\n", load->method, error->message);
        g_error_free(error);
        return FALSE;
    }
    g_variant_unref(reply);
    return TRUE;
}

static gboolean WriteAll(int fd, const void *data, size_t size)
{
    return write(fd, data, size) == (ssize_t)size;
}

static gboolean ReadAll(int fd, void *data, size_t size)
{
    return read(fd, data, size) == (ssize_t)size;
}

/* A client: connects, proves the call works, says it is ready, waits for the deadline, calls
 * until it, reports its tally. */
static int RunClient(const Load *load, int ready, int go)
{
    GError *error = NULL;
    GDBusConnection *connection = g_dbus_connection_new_for_address_sync(
        load->address, G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT | G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION,
        NULL, NULL, &error);
    if (!connection) {
        fprintf(stderr, "bench_dbus_load: no connection: %s\n", error->message);
        g_error_free(error);
        return 1;
    }
    Tally tally = {0, 0};
    gboolean works = CallOnce(load, connection);
    double deadline = 0;
    if (!WriteAll(ready, &works, sizeof works) || !ReadAll(go, &deadline, sizeof deadline))
        return 1;
    while (works && Now() < deadline) {
        if (CallOnce(load, connection))
            ++tally.calls;
        else
            ++tally.errors;
    }
    g_object_unref(connection);
    return WriteAll(ready, &tally, sizeof tally) ? 0 : 1;
}

static gboolean ParseArguments(int argc, char *argv[], Load *load)
{
    if (argc != 8 && argc != 9)
        return FALSE;
    *load = (Load){argv[1], argv[2], argv[3], argv[4], argv[5], atoi(argv[6]), atof(argv[7]), argc == 9,
                   argc == 9 ? atoi(argv[8]) : 0};
    return load->clients > 0 && load->clients <= MAX_CLIENTS && load->seconds > 0;
}

int main(int argc, char *argv[])
{
    Load load;
    if (!ParseArguments(argc, argv, &load)) {
        fprintf(stderr, "usage: bench_dbus_load ADDRESS DESTINATION PATH INTERFACE METHOD CLIENTS(1-%d) "
                        "SECONDS [INT_ARGUMENT]\n",
                MAX_CLIENTS);
        return 2;
    }
    /* A client that died must not take the parent with it when it hands out the deadline. */
    signal(SIGPIPE, SIG_IGN);
    int toParent[MAX_CLIENTS][2];
    int toClient[MAX_CLIENTS][2];
    pid_t pids[MAX_CLIENTS];
    for (int i = 0; i < load.clients; ++i) {
        if (pipe(toParent[i]) != 0 || pipe(toClient[i]) != 0) {
            perror("bench_dbus_load: pipe");
            return 1;
        }
        pids[i] = fork();
        if (pids[i] < 0) {
            perror("bench_dbus_load: fork");
            return 1;
        }
        if (pids[i] == 0) {
            close(toParent[i][0]);
            close(toClient[i][1]);
            _exit(RunClient(&load, toParent[i][1], toClient[i][0]));
        }
        /* Only the client holds the ends it writes, so a client that dies is an end of file. */
        close(toParent[i][1]);
        close(toClient[i][0]);
    }
    gboolean ready = TRUE;
    for (int i = 0; i < load.clients; ++i) {
        gboolean works = FALSE;
        ready = ReadAll(toParent[i][0], &works, sizeof works) && works && ready;
    }
    double start = Now();
    double deadline = start + load.seconds;
    for (int i = 0; i < load.clients; ++i)
        WriteAll(toClient[i][1], &deadline, sizeof deadline);
    Tally total = {0, 0};
    for (int i = 0; i < load.clients; ++i) {
        Tally tally = {0, 0};
        if (!ReadAll(toParent[i][0], &tally, sizeof tally))
            ready = FALSE;
        total.calls += tally.calls;
        total.errors += tally.errors;
    }
    double elapsed = Now() - start;
    int status = 0;
    for (int i = 0; i < load.clients; ++i) {
        int childStatus = 0;
        waitpid(pids[i], &childStatus, 0);
        if (!WIFEXITED(childStatus) || WEXITSTATUS(childStatus) != 0)
            status = 1;
    }
    printf("calls=%llu errors=%llu seconds=%.3f rate=%.1f\n", (unsigned long long)total.calls,
           (unsigned long long)total.errors, elapsed, total.calls / elapsed);
    return ready && status == 0 && total.errors == 0 ? 0 : 1;
}
