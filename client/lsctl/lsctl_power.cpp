// lsctl power: show or change the receiver's power mode.
#include "lsctl_bus.h"
#include "lsctl_text.h"

#include <CLI/CLI.hpp>

namespace {

struct power_command {
    std::string wanted; // as typed; empty = show

    void add_options(CLI::App &app);
    int run(const lsctl_options &options) const;
};

int show_mode(const lsctl_options &options, uint32_t mode) {
    return lsctl_show(options, lsctl_power_json(mode),
                      "Receiver  " + lsctl_power_text(mode) + "\n");
}

bool is_privileged(uint32_t serv_id) {
    return serv_id == LS_SERV_VOIP || serv_id == LS_SERV_WS || serv_id == LS_SERV_CLIENT_9;
}

std::string why_refused(uint32_t mode, uint32_t in_force, uint32_t serv_id) {
    if (mode == GPS_POWER_ON) {
        return lsctl_format("switching on was refused: service %u may not switch on a receiver "
                            "that is off; ",
                            serv_id) +
               lsctl_power_advice("on", {LS_SERV_WS, LS_SERV_CLIENT_9, LS_SERV_VOIP});
    }
    if (in_force != GPS_POWER_ON)
        return "the receiver is already " + lsctl_power_text(in_force);
    const std::string advice =
        lsctl_power_advice("off", {LS_SERV_WS, LS_SERV_CLIENT_9, LS_SERV_VOIP});
    if (!is_privileged(serv_id)) {
        return lsctl_format("switching off was refused: service %u may not switch off a receiver "
                            "that is to stay on; ",
                            serv_id) +
               advice;
    }
    return "switching off was refused: the receiver is still " + lsctl_power_text(in_force) +
           "; mode 0 may do: " + advice;
}

void power_command::add_options(CLI::App &app) {
    app.add_option("mode", wanted, "on (2) or off (0, or 1); without it the mode is shown")
        ->option_text("[on|off|0|1|2]")
        ->check(CLI::IsMember({"on", "off", "0", "1", "2"}));
}

int power_command::run(const lsctl_options &options) const {
    const lsctl_link link(options.as);
    if (link.result != LOCATION_ANSWERED)
        return lsctl_fail(options, link.result);
    uint32_t in_force = 0;
    if (wanted.empty()) {
        const location_result result =
            location_client_get_power(link.client, lsctl_timeout(options), &in_force);
        return result == LOCATION_ANSWERED ? show_mode(options, in_force)
                                           : lsctl_fail(options, result, link.client);
    }
    const uint32_t mode = wanted == "on"    ? GPS_POWER_ON
                          : wanted == "off" ? GPS_POWER_OFF
                                            : static_cast<uint32_t>(wanted[0] - '0');
    const location_result result =
        location_client_set_power(link.client, lsctl_timeout(options), mode, &in_force);
    if (result == LOCATION_FAILED) {
        return lsctl_fail(options, result,
                          why_refused(mode, in_force, location_client_serv_id(link.client)));
    }
    return result == LOCATION_ANSWERED ? show_mode(options, in_force)
                                       : lsctl_fail(options, result, link.client);
}

} // namespace

lsctl_runner lsctl_power(CLI::App &app) {
    return lsctl_make<power_command>(app);
}
