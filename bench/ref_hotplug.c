/* Reference for B2: the least a hot-plug to "Start" path is. A bare udev monitor of the sound
 * subsystem; a card announced ready (SOUND_INITIALIZED, on "add" or "change") makes one "Start"
 * signal with its card number on the system bus, from the same object and interface as the
 * service's. Prints "listening" on standard output once the monitor receives.
 *   bench_ref_hotplug
 * Runs until SIGTERM or SIGINT (exit status 0). */
#include <gio/gio.h>
#include <glib-unix.h>
#include <libudev.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#define SIGNAL_PATH "/org/nimbos/hadrix"
#define SIGNAL_IFACE "org.nimbos.hadrix"

typedef struct {
    struct udev_monitor *monitor;
    GDBusConnection *bus;
} Listener;

static int ReadyCardNumber(struct udev_device *event)
{
    const char *action = udev_device_get_action(event);
    const char *sysname = udev_device_get_sysname(event);
    const char *ready = udev_device_get_property_value(event, "SOUND_INITIALIZED");
    const char *number = udev_device_get_sysattr_value(event, "number");
    if (!action || (strcmp(action, "add") != 0 && strcmp(action, "change") != 0))
        return -1;
    if (!sysname || strncmp(sysname, "card", 4) != 0 || !ready || strcmp(ready, "1") != 0 || !number)
        return -1;
    return atoi(number);
}

static void EmitStart(Listener *listener, int card)
{
    GError *error = NULL;
    if (!g_dbus_connection_emit_signal(listener->bus, NULL, SIGNAL_PATH, SIGNAL_IFACE, "Start",
                                       g_variant_new("(i)", card), &error)) {
        fprintf(stderr, "bench_ref_hotplug: Start not sent: %s\n", error->message);
        g_error_free(error);
    }
}

static gboolean OnMonitorReadable(gint fd, GIOCondition condition, gpointer data)
{
    Listener *listener = data;
    struct udev_device *event;
    while ((event = udev_monitor_receive_device(listener->monitor))) {
        int card = ReadyCardNumber(event);
        udev_device_unref(event);
        if (card >= 0)
            EmitStart(listener, card);
    }
    return G_SOURCE_CONTINUE;
}

static gboolean OnTerminate(gpointer loop)
{
    g_main_loop_quit(loop);
    return G_SOURCE_REMOVE;
}

int main(void)
{
    GError *error = NULL;
    Listener listener = {NULL, g_bus_get_sync(G_BUS_TYPE_SYSTEM, NULL, &error)};
    if (!listener.bus) {
        fprintf(stderr, "bench_ref_hotplug: no system bus: %s\n", error->message);
        g_error_free(error);
        return 1;
    }
    struct udev *udev = udev_new();
    listener.monitor = udev ? udev_monitor_new_from_netlink(udev, "udev") : NULL;
    if (!listener.monitor || udev_monitor_filter_add_match_subsystem_devtype(listener.monitor, "sound", NULL) < 0 ||
        udev_monitor_enable_receiving(listener.monitor) < 0) {
        fprintf(stderr, "bench_ref_hotplug: cannot watch the sound cards\n");
        return 1;
    }
    GMainLoop *loop = g_main_loop_new(NULL, FALSE);
    g_unix_fd_add(udev_monitor_get_fd(listener.monitor), G_IO_IN, OnMonitorReadable, &listener);
    g_unix_signal_add(SIGTERM, OnTerminate, loop);
    g_unix_signal_add(SIGINT, OnTerminate, loop);
    printf("listening\n");
    fflush(stdout);
    g_main_loop_run(loop);
    g_main_loop_unref(loop);
    udev_monitor_unref(listener.monitor);
    udev_unref(udev);
    g_object_unref(listener.bus);
    return 0;
}
