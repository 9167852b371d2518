// The location history as a GPX track on standard output.
//
// LOCATION_TERMINAL_ROOT is the directory of a simulated terminal, which simterm sets; a terminal
// has none.
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <location_client.hpp>
#include <string>

namespace {

// A line without a fix, or cut, as the oldest one of a full history may be, is left out.
void print_point(const std::string &line) {
    std::tm local{};
    double latitude = 0, longitude = 0;
    char north_south = 0, east_west = 0, utc[32];
    if (std::sscanf(line.c_str(), "%4d-%2d-%2d %2d:%2d:%2d,2D,%lf%c,%lf%c,", &local.tm_year,
                    &local.tm_mon, &local.tm_mday, &local.tm_hour, &local.tm_min, &local.tm_sec,
                    &latitude, &north_south, &longitude, &east_west) != 10)
        return;
    local.tm_year -= 1900;
    local.tm_mon -= 1;
    local.tm_isdst = -1;
    const std::time_t seconds = std::mktime(&local); // the lines carry the terminal's own time
    std::strftime(utc, sizeof utc, "%Y-%m-%dT%H:%M:%SZ", std::gmtime(&seconds));
    std::printf("<trkpt lat=\"%.6f\" lon=\"%.6f\"><time>%s</time></trkpt>\n",
                north_south == 'S' ? -latitude : latitude,
                east_west == 'W' ? -longitude : longitude, utc);
}

} // namespace

int main() {
    using namespace std::chrono_literals;
    location_client_owner client;
    ls_history_path_reply reply{};
    location_result result = location_client_open(0, client);
    if (result == LOCATION_ANSWERED)
        result = location_client_get_history_path(client.get(), 20s, &reply);
    if (result != LOCATION_ANSWERED) {
        std::fprintf(stderr, "no history: %s\n", location_client_error_text(result));
        return 1;
    }
    const char *root = std::getenv("LOCATION_TERMINAL_ROOT");
    std::ifstream file((root == nullptr ? "" : root) + std::string(reply.path));
    if (!file) {
        std::fprintf(stderr, "%s cannot be read\n", reply.path);
        return 1;
    }
    std::puts(
        "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<gpx version=\"1.1\" creator=\"history_gpx\" "
        "xmlns=\"http://www.topografix.com/GPX/1/1\"><trk><trkseg>");
    for (std::string line; std::getline(file, line);)
        print_point(line);
    std::puts("</trkseg></trk></gpx>");
    return 0;
}
