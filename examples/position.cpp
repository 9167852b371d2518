// Where the terminal is, once: a line for people, or what went wrong.
//
// On a simulated terminal: simterm run DIR --daemon DAEMON -- ./position
#include <cstdio>
#include <location_client.hpp>

int main() {
    using namespace std::chrono_literals;
    location_client_owner client;
    gps_pos_data here{};
    location_result result = location_client_open(0, client);
    if (result == LOCATION_ANSWERED)
        result = location_client_get_position(client.get(), 10s, &here);
    if (result != LOCATION_ANSWERED) {
        std::fprintf(stderr, "no position: %s\n", location_client_error_text(result));
        return 1;
    }
    const double latitude = here.lat_dir == 'S' ? -here.latitude : here.latitude;
    const double longitude = here.lon_dir == 'W' ? -here.longitude : here.longitude;
    std::printf("%.6f %.6f, +-%.1f m, %.1f m high, %u satellites\n", latitude, longitude,
                static_cast<double>(here.horizontal_accuracy), here.altitude, here.num_satellites);
    return 0;
}
