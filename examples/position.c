// Where the terminal is, once: a line for people, or what went wrong.
//
// On a simulated terminal: simterm run DIR --daemon DAEMON -- ./position
#include <location_client.h>
#include <stdio.h>

int main(void) {
    struct location_client *client = NULL;
    struct gps_pos_data here;
    enum location_result result = location_client_open(0, &client);
    if (result == LOCATION_ANSWERED)
        result = location_client_get_position(client, 10000, &here);
    location_client_close(client);
    if (result != LOCATION_ANSWERED) {
        fprintf(stderr, "no position: %s\n", location_client_error_text(result));
        return 1;
    }
    printf("%.6f %c %.6f %c, +-%.1f m, %.1f m high, %04u-%02u-%02u %02u:%02u:%02u UTC\n",
           here.latitude, here.lat_dir, here.longitude, here.lon_dir,
           (double)here.horizontal_accuracy, here.altitude, here.time.year, here.time.month,
           here.time.day, here.time.hour, here.time.minute, here.time.second);
    return 0;
}
