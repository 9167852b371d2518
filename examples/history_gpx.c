// The location history as a GPX track on standard output.
//
// LOCATION_TERMINAL_ROOT is the directory of a simulated terminal, which simterm sets; a terminal
// has none.
#include <location_client.h>
#include <stdio.h>
#include <stdlib.h>
#include <time.h>

// A line without a fix, or cut, as the oldest one of a full history may be, is left out.
static void print_point(const char *line) {
    struct tm local = {.tm_isdst = -1};
    double latitude, longitude;
    char north_south, east_west, utc[32];
    if (sscanf(line, "%4d-%2d-%2d %2d:%2d:%2d,2D,%lf%c,%lf%c,", &local.tm_year, &local.tm_mon,
               &local.tm_mday, &local.tm_hour, &local.tm_min, &local.tm_sec, &latitude,
               &north_south, &longitude, &east_west) != 10)
        return;
    local.tm_year -= 1900;
    local.tm_mon -= 1;
    const time_t seconds = mktime(&local); // the lines carry the terminal's own time
    strftime(utc, sizeof utc, "%Y-%m-%dT%H:%M:%SZ", gmtime(&seconds));
    printf("<trkpt lat=\"%.6f\" lon=\"%.6f\"><time>%s</time></trkpt>\n",
           north_south == 'S' ? -latitude : latitude, east_west == 'W' ? -longitude : longitude,
           utc);
}

int main(void) {
    struct location_client *client = NULL;
    struct ls_history_path_reply reply;
    enum location_result result = location_client_open(0, &client);
    if (result == LOCATION_ANSWERED)
        result = location_client_get_history_path(client, 20000, &reply);
    location_client_close(client);
    if (result != LOCATION_ANSWERED) {
        fprintf(stderr, "no history: %s\n", location_client_error_text(result));
        return 1;
    }
    char path[512], line[128];
    const char *root = getenv("LOCATION_TERMINAL_ROOT");
    snprintf(path, sizeof path, "%s%s", root == NULL ? "" : root, reply.path);
    FILE *file = fopen(path, "re");
    if (file == NULL) {
        perror(path);
        return 1;
    }
    puts("<?xml version=\"1.0\" encoding=\"UTF-8\"?>");
    puts("<gpx version=\"1.1\" creator=\"history_gpx\" xmlns=\"http://www.topografix.com/GPX/1/1\">"
         "<trk><trkseg>");
    while (fgets(line, sizeof line, file) != NULL)
        print_point(line);
    puts("</trkseg></trk></gpx>");
    fclose(file);
    return 0;
}
