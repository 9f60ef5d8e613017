/* Reference for B4 and B5: the least a GLib D-Bus service is. It owns one name on the system
 * bus and runs its main loop until SIGTERM or SIGINT; nothing else.
 *   bench_ref_service NAME
 * Exit status 0 after a terminate request, 1 if the name could not be owned or was lost. */
#include <gio/gio.h>
#include <glib-unix.h>
#include <stdio.h>

typedef struct {
    GMainLoop *loop;
    int status;
} Service;

static gboolean OnTerminate(gpointer data)
{
    g_main_loop_quit(((Service *)data)->loop);
    return G_SOURCE_REMOVE;
}

static void OnNameLost(GDBusConnection *connection, const gchar *name, gpointer data)
{
    Service *service = data;
    fprintf(stderr, "bench_ref_service: %s not owned\n", name);
    service->status = 1;
    g_main_loop_quit(service->loop);
}

int main(int argc, char *argv[])
{
    if (argc != 2) {
        fprintf(stderr, "usage: bench_ref_service NAME\n");
        return 2;
    }
    Service service = {g_main_loop_new(NULL, FALSE), 0};
    g_unix_signal_add(SIGTERM, OnTerminate, &service);
    g_unix_signal_add(SIGINT, OnTerminate, &service);
    guint owner = g_bus_own_name(G_BUS_TYPE_SYSTEM, argv[1], G_BUS_NAME_OWNER_FLAGS_NONE, NULL, NULL,
                                 OnNameLost, &service, NULL);
    g_main_loop_run(service.loop);
    g_bus_unown_name(owner);
    g_main_loop_unref(service.loop);
    return service.status;
}
