// lsctl: one connection for the time of a sub-command.
#include "lsctl.h"

lsctl_link::lsctl_link(uint32_t serv_id)
    : result(location_client_open(static_cast<uint8_t>(serv_id), &client)) {
    lsctl_signals_set_client(client);
}

lsctl_link::~lsctl_link() {
    lsctl_signals_set_client(nullptr);
    location_client_close(client);
}

std::chrono::milliseconds lsctl_timeout(const lsctl_options &options) {
    return std::chrono::milliseconds(static_cast<int64_t>(options.timeout_s * 1000));
}
