/* dbus-client - what a program that uses libdbus sees: blocking method calls,
 * one after the other, for S seconds.
 *
 *   dbus-client ADDRESS SECONDS service|bus|NAME [connect]
 *
 * "service" calls the method of dbus-service, NAME that of one that has taken this bus name, "bus" one that the bus
 * daemon answers itself. With "connect" every call is made on a new connection.
 * Prints one line of key=value pairs, as uload does.
 */
#include <dbus/dbus.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

static double now_us(void)
{
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return (double)ts.tv_sec * 1e6 + (double)ts.tv_nsec / 1e3;
}

static int by_value(const void *a, const void *b)
{
    double x = *(const double *)a, y = *(const double *)b;
    return (x > y) - (x < y);
}

static DBusConnection *join(const char *address)
{
    DBusError e = DBUS_ERROR_INIT;
    DBusConnection *c = dbus_connection_open_private(address, &e);
    if (!c || !dbus_bus_register(c, &e)) {
        fprintf(stderr, "dbus-client: %s\n", e.message ? e.message : "failed");
        exit(1);
    }
    dbus_connection_set_exit_on_disconnect(c, FALSE);
    return c;
}

static void leave(DBusConnection *c)
{
    dbus_connection_close(c);
    dbus_connection_unref(c);
}

int main(int argc, char **argv)
{
    if (argc < 4)
        return 2;
    int bus = strcmp(argv[3], "bus") == 0, churn = argc > 4;
    const char *name = strcmp(argv[3], "service") == 0 ? "org.example.Bench" : argv[3];
    double seconds = atof(argv[2]);
    size_t room = 1 << 22, n = 0;
    double *took = malloc(room * sizeof *took);
    DBusConnection *c = churn ? NULL : join(argv[1]);
    double start = now_us(), t = start;
    while (t - start < seconds * 1e6 && n < room) {
        if (churn)
            c = join(argv[1]);
        DBusMessage *m = bus
            ? dbus_message_new_method_call("org.freedesktop.DBus", "/org/freedesktop/DBus",
                                           "org.freedesktop.DBus", "GetId")
            : dbus_message_new_method_call(name, "/bench", "org.example.Bench", "Status");
        DBusError e = DBUS_ERROR_INIT;
        DBusMessage *r = dbus_connection_send_with_reply_and_block(c, m, 5000, &e);
        if (!r) {
            fprintf(stderr, "dbus-client: %s\n", e.message);
            return 1;
        }
        dbus_message_unref(r);
        dbus_message_unref(m);
        if (churn)
            leave(c);
        double done = now_us();
        took[n++] = done - t;
        t = done;
    }
    if (!churn)
        leave(c);
    qsort(took, n, sizeof *took, by_value);
    printf("rps=%.0f p50_us=%.2f p99_us=%.2f n=%zu\n", (double)n / (t - start) * 1e6,
           took[n / 2], took[n * 99 / 100], n);
    return 0;
}
