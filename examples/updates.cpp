// Position updates in a loop of epoll: updates [COUNT] [SECONDS]. Only epoll_wait waits.
#include <cstdio>
#include <cstdlib>
#include <location_client.hpp>
#include <sys/epoll.h>
#include <unistd.h>

namespace {

using namespace std::chrono_literals;

// Takes all that is there. `registration` is the ticket of the request while it is under way.
location_result take(location_client *client, uint32_t &registration, unsigned &left) {
    location_result result = LOCATION_ANSWERED;
    if (registration != 0)
        result = location_client_take_done(client, registration);
    if (result == LOCATION_PENDING)
        result = LOCATION_ANSWERED;
    else
        registration = 0;
    ls_position_reply update;
    for (; left > 0 && location_client_next_update(client, 0ms, &update) == LOCATION_ANSWERED;
         --left)
        if (update.status == LS_STATUS_OK)
            std::printf("%.6f %c %.6f %c\n", update.pos.latitude, update.pos.lat_dir,
                        update.pos.longitude, update.pos.lon_dir);
        else
            std::puts("no fix");
    return result;
}

} // namespace

int main(int argc, char **argv) {
    unsigned left = argc > 1 ? static_cast<unsigned>(std::atoi(argv[1])) : 10;
    const unsigned seconds = argc > 2 ? static_cast<unsigned>(std::atoi(argv[2])) : 5;
    location_client_owner client;
    uint32_t ticket = 0;
    location_result result = location_client_open(0, client);
    if (result == LOCATION_ANSWERED)
        result = location_client_start_register_periodic(client.get(), 5s, left, seconds, &ticket);
    const int loop = epoll_create1(EPOLL_CLOEXEC);
    epoll_event event{.events = EPOLLIN, .data = {}};
    epoll_ctl(loop, EPOLL_CTL_ADD, location_client_fd(client.get()), &event);
    while (result == LOCATION_ANSWERED && left > 0) {
        // Three intervals without anything: the service was restarted and has forgotten us.
        if (epoll_wait(loop, &event, 1, static_cast<int>(3000 * seconds)) == 1)
            result = take(client.get(), ticket, left);
        else
            result = LOCATION_NO_REPLY;
    }
    close(loop);
    if (result == LOCATION_ANSWERED)
        return 0;
    std::fprintf(stderr, "no updates: %s\n", location_client_error_text(result));
    if (client != nullptr)
        location_client_unregister_periodic(client.get(), 2s);
    return 1;
}
