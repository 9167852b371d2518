// The GNSS receiver: power, start-up, satellites found and lost, and the calls from outside.
#include "receiver.h"

#include "calendar.h"
#include "core.h"
#include "sentence.h"

#include <algorithm>
#include <iterator>
#include <utility>

namespace sim {

namespace {

// How long orbits from the sky stay good enough for a hot start, seconds.
constexpr double ephemeris_life = 4 * 3600.0;
// The battery memory takes down that there is a fix, so often; seconds.
constexpr double note_interval = 600.0;
// Messages that wait for the line; what comes on top is lost.
constexpr size_t longest_output = 256;

constexpr const char *start_lines[] = {
    "TXT,01,01,02,SIMULATED RECEIVER",
    "TXT,01,01,02,HW 00080000",
    "TXT,01,01,02,SW SIM 1.00",
};

void queue(receiver_core &core, std::vector<uint8_t> message) {
    if (!core.faults.silent && !message.empty() && core.output.size() < longest_output)
        core.output.push_back(std::move(message));
}

double time_to_first_fix(receiver_core &core) {
    const double off = core.options.wall_clock() - core.battery.last_fix;
    core.cold = !core.battery.almanac;
    if (core.cold)
        return core.options.cold_ttff_s;
    const bool hot = core.battery.ephemeris && off >= 0 && off < ephemeris_life;
    return hot ? core.options.hot_ttff_s : core.options.warm_ttff_s;
}

// Takes down that there is a fix now, if there is one.
bool note_fix(receiver_core &core) {
    if (!core.gnss_running || report_at(core, core.now).now.fix == fix_quality::none)
        return false;
    core.clock_valid = true;
    core.battery.almanac = core.battery.ephemeris = true;
    core.battery.last_fix = core.options.wall_clock();
    return true;
}

void begin_listening(receiver_core &core) {
    core.phase = power_phase::listening;
    if (wanted_gnss_state(core.config) == gnss_state::running)
        gnss_start(core);
    receiver_regrid(core);
    if (!notices_on_nmea(core.config))
        return;
    for (const char *line : start_lines)
        send_nmea(core, nmea_sentence(main_talker(core.config) + line));
}

// The configuration a host would have left in the battery memory.
receiver_config polled_gps_config() {
    constexpr uint8_t gps_only[] = {0, 0, 32, 1, 0, 8, 32, 0, 1, 0, 1, 0};
    constexpr uint8_t talker_gp[] = {0, 0x40, 0, 0, 0x72, 0, 0, 0, 0, 1, 1, 0};
    constexpr uint8_t no_notices[] = {1, 0, 0, 0, 0, 0, 0, 0, 0, 0};
    receiver_config config = fresh_config();
    config_set(config, ubx_cfg_gnss, gps_only);
    config_set(config, ubx_cfg_nmea, talker_gp);
    config_set(config, ubx_cfg_inf, no_notices);
    config.rates = {};
    return config;
}

} // namespace

struct receiver::state {
    receiver_core core;
    bool gpio102 = false, gpio37 = false;
};

bool store_battery(const receiver_core &core) {
    return core.options.battery_file.empty() ||
           battery_store(core.options.battery_file, core.battery);
}

void send_nmea(receiver_core &core, const std::string &text) {
    if ((output_protocols(core.config) & protocol_nmea) != 0)
        queue(core, {text.begin(), text.end()});
}

void send_frame(receiver_core &core, const std::vector<uint8_t> &frame) {
    if ((output_protocols(core.config) & protocol_ubx) != 0)
        queue(core, frame);
}

void gnss_start(receiver_core &core) {
    core.gnss_running = true;
    core.gnss_start = core.now;
    const double wait = time_to_first_fix(core);
    core.clock_valid = core.clock_valid || core.battery.almanac;
    core.fix_at =
        core.options.instant_fix ? std::numeric_limits<double>::lowest() : core.now + wait;
    core.note_fix_at = std::max(core.fix_at, core.now);
}

void gnss_stop(receiver_core &core) {
    if (note_fix(core))
        store_battery(core);
    core.gnss_running = false;
}

void receiver_boot(receiver_core &core) {
    const receiver_config before = core.config;
    core.config = core.battery.saved;
    core.phase = power_phase::starting;
    core.listen_at = core.now + core.options.startup_s;
    core.input = {};
    core.gnss_running = core.clock_valid = false;
    if (!core.origin || epoch_period(before) != epoch_period(core.config))
        receiver_regrid(core);
}

void receiver_power_off(receiver_core &core) {
    gnss_stop(core);
    core.phase = power_phase::off;
    core.output.clear();
    core.config = fresh_config();
}

void receiver_advance(receiver_core &core) {
    if (core.phase == power_phase::starting && core.now >= core.listen_at)
        begin_listening(core);
    if (core.phase != power_phase::listening)
        return;
    if (core.gnss_running && core.now >= core.note_fix_at) {
        const bool noted = note_fix(core);
        core.note_fix_at = core.now + (noted ? note_interval : epoch_period(core.config));
        if (noted)
            store_battery(core);
    }
    send_periodic(core);
}

receiver::receiver(receiver_options options) : self(std::make_unique<state>()) {
    if (!options.wall_clock)
        options.wall_clock = system_wall_clock;
    self->core.options = std::move(options);
}

receiver::~receiver() = default;

void receiver::set_power(bool gpio102, bool gpio37, double now) {
    receiver_core &core = self->core;
    const bool was = powered();
    core.now = now;
    self->gpio102 = gpio102;
    self->gpio37 = gpio37;
    if (was && !powered()) {
        receiver_power_off(core);
    } else if (!was && powered()) {
        core.battery = core.options.battery_file.empty() ? battery_memory{}
                                                         : battery_load(core.options.battery_file);
        if (core.options.preconfigured && core.battery.saved == fresh_config())
            core.battery.saved = polled_gps_config();
        receiver_boot(core);
    }
    receiver_advance(core);
}

bool receiver::powered() const {
    return self->gpio102 && self->gpio37;
}

void receiver::input(std::span<const uint8_t> bytes, double now) {
    receiver_core &core = self->core;
    core.now = now;
    receiver_advance(core);
    if (core.phase == power_phase::backup && !bytes.empty())
        receiver_boot(core); // what wakes it is lost
    else if (core.phase == power_phase::listening)
        for (const command &received : split_input(core.input, bytes, now)) {
            if (core.phase != power_phase::listening)
                break;
            handle_command(core, received);
        }
    receiver_advance(core);
}

std::vector<std::vector<uint8_t>> receiver::take_output(double now) {
    receiver_core &core = self->core;
    core.now = now;
    receiver_advance(core);
    std::vector<std::vector<uint8_t>> messages(std::make_move_iterator(core.output.begin()),
                                               std::make_move_iterator(core.output.end()));
    core.output.clear();
    return messages;
}

std::optional<double> receiver::next_event() const {
    const receiver_core &core = self->core;
    if (!core.output.empty())
        return core.now;
    if (core.phase == power_phase::starting)
        return core.listen_at;
    if (core.phase != power_phase::listening || core.faults.silent)
        return std::nullopt;
    return next_periodic(core);
}

receiver_faults &receiver::faults() {
    return self->core.faults;
}

std::string receiver::describe(double now) const {
    return describe_receiver(self->core, now);
}

} // namespace sim
