// Position updates in a GLib main loop: updates [COUNT] [SECONDS]. Only the loop waits.
#include <glib-unix.h>
#include <location_client.h>
#include <signal.h>
#include <stdio.h>

static GMainLoop *loop;
static struct location_client *client;
static uint32_t registration; // the ticket of the request while it is under way
static unsigned left;         // updates still to come

static gboolean quit(gpointer why) {
    if (why != NULL)
        fprintf(stderr, "no updates: %s\n", (const char *)why);
    g_main_loop_quit(loop);
    return G_SOURCE_REMOVE;
}

static gboolean on_ready(gint fd, GIOCondition condition, gpointer unused) {
    (void)fd, (void)condition, (void)unused;
    if (registration != 0) {
        enum location_result result = location_client_take_done(client, registration);
        if (result != LOCATION_PENDING)
            registration = 0;
        if (result != LOCATION_PENDING && result != LOCATION_ANSWERED)
            return quit((gpointer)location_client_error_text(result));
    }
    struct ls_position_reply update;
    for (; left > 0 && location_client_next_update(client, 0, &update) == LOCATION_ANSWERED; --left)
        if (update.status == LS_STATUS_OK)
            printf("%.6f %c %.6f %c\n", update.pos.latitude, update.pos.lat_dir,
                   update.pos.longitude, update.pos.lon_dir);
        else
            puts("no fix");
    return left == 0 ? quit(NULL) : G_SOURCE_CONTINUE;
}

int main(int argc, char **argv) {
    left = argc > 1 ? (unsigned)g_ascii_strtoull(argv[1], NULL, 10) : 10;
    unsigned seconds = argc > 2 ? (unsigned)g_ascii_strtoull(argv[2], NULL, 10) : 5;
    enum location_result result = location_client_open(0, &client);
    if (result == LOCATION_ANSWERED)
        result =
            location_client_start_register_periodic(client, 5000, left, seconds, &registration);
    if (result != LOCATION_ANSWERED) {
        fprintf(stderr, "no updates: %s\n", location_client_error_text(result));
        return 1;
    }
    loop = g_main_loop_new(NULL, FALSE);
    g_unix_fd_add(location_client_fd(client), G_IO_IN, on_ready, NULL);
    g_unix_signal_add(SIGINT, quit, NULL);
    g_unix_signal_add(SIGTERM, quit, NULL);
    g_timeout_add_seconds(seconds * (left + 2), quit, "they stayed away");
    g_main_loop_run(loop);
    g_main_loop_unref(loop);
    if (left > 0)
        location_client_unregister_periodic(client, 2000);
    location_client_close(client);
    return left == 0 ? 0 : 1;
}
