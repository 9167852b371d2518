// lsctl stream: positions as they come, for programs that read a receiver or gpsd.
#include <algorithm>

#include <CLI/CLI.hpp>

#include "stream_loop.h"

namespace {

const std::vector<std::string> FORMATS = {"nmea", "json", "gpsd"}; // as stream_form

struct stream_command {
    std::string format;
    std::optional<uint16_t> port;

    void add_options(CLI::App &app);
    int run(const lsctl_options &options) const;
};

void stream_command::add_options(CLI::App &app) {
    app.add_option("-f,--format", format, "What to speak (default: nmea; json with --json)")
        ->option_text("nmea|json|gpsd")
        ->check(CLI::IsMember(FORMATS));
    app.add_option("-l,--listen", port,
                   "Serve programs of this machine on this port, 0 for any free one, instead of "
                   "the standard output")
        ->option_text("PORT")
        ->check(CLI::Range(0, 65535));
}

int stream_command::run(const lsctl_options &options) const {
    const std::string wanted = !format.empty() ? format : options.json ? "json" : "nmea";
    if (options.json && wanted != "json")
        return lsctl_fail(options, LOCATION_BAD_ARGUMENT,
                          "--json is --format json: leave one of the two out");
    const auto form = static_cast<stream_form>(std::find(FORMATS.begin(), FORMATS.end(), wanted) -
                                               FORMATS.begin());
    if (form == stream_form::gpsd && !port)
        return lsctl_fail(options, LOCATION_BAD_ARGUMENT,
                          "gpsd's clients connect to a port: --format gpsd needs --listen PORT");
    lsctl_options as_json = options;
    as_json.json = as_json.stream = form == stream_form::json;
    return stream_serve(as_json, form, port);
}

} // namespace

lsctl_runner lsctl_stream(CLI::App &app) {
    return lsctl_make<stream_command>(app);
}
