// What the receiver does with a sentence or frame.
#include "core.h"
#include "sentence.h"
#include "ubx.h"

#include <algorithm>
#include <array>

namespace sim {

namespace {

using bytes_t = std::span<const uint8_t>;

constexpr uint8_t class_ack = 0x05;
constexpr uint8_t class_cfg = 0x06;

uint32_t mask_at(bytes_t payload, size_t at) {
    uint32_t mask = 0;
    for (size_t i = 0; i < 4; ++i)
        mask |= static_cast<uint32_t>(payload[at + i]) << (8 * i);
    return mask;
}

// What follows from configuration that has just changed.
void take_effect(receiver_core &core, const receiver_config &before) {
    if (epoch_period(core.config) != epoch_period(before))
        receiver_regrid(core);
    const gnss_state wanted = wanted_gnss_state(core.config);
    if (wanted == gnss_state::running && !core.gnss_running)
        gnss_start(core);
    if (wanted != gnss_state::running && core.gnss_running)
        gnss_stop(core);
}

enum class outcome { acknowledged, refused, unanswered };

// Clear, save and load, in this order, section by section. The one memory is battery-backed.
outcome run_cfg_cfg(receiver_core &core, bytes_t payload) {
    constexpr uint8_t battery_device = 1;
    if ((payload.size() != 12 && payload.size() != 13) ||
        (payload.size() == 13 && (payload[12] & battery_device) == 0))
        return outcome::refused;
    const battery_memory before = core.battery;
    config_copy_sections(fresh_config(), core.battery.saved, mask_at(payload, 0));
    config_copy_sections(core.config, core.battery.saved, mask_at(payload, 4));
    if (!(core.battery.saved == before.saved) && !store_battery(core)) {
        core.battery = before;
        return outcome::refused;
    }
    const receiver_config running = core.config;
    config_copy_sections(core.battery.saved, core.config, mask_at(payload, 8));
    take_effect(core, running);
    return outcome::acknowledged;
}

// A receiver that restarts acknowledges nothing; one that only restarts its satellite part does.
outcome run_cfg_rst(receiver_core &core, bytes_t payload) {
    enum : uint8_t {
        hardware = 0,
        software = 1,
        gnss_only = 2,
        hardware_later = 4,
        stop = 8,
        start = 9
    };
    constexpr unsigned ephemeris = 1 << 0, almanac = 1 << 1, clock = 1 << 8;
    if (payload.size() != 4)
        return outcome::refused;
    const uint8_t mode = payload[2];
    constexpr std::array<uint8_t, 6> modes{hardware,       software, gnss_only,
                                           hardware_later, stop,     start};
    if (std::find(modes.begin(), modes.end(), mode) == modes.end())
        return outcome::refused;
    if (mode != start)
        gnss_stop(core);
    const unsigned forget = payload[0] | static_cast<unsigned>(payload[1]) << 8;
    if ((forget & (ephemeris | almanac | clock)) != 0) {
        core.battery.ephemeris = false;
        if ((forget & (almanac | clock)) != 0)
            core.battery.almanac = core.clock_valid = false;
        store_battery(core);
    }
    if (mode == stop)
        return outcome::acknowledged;
    if (mode == gnss_only || mode == start) {
        if (!core.gnss_running)
            gnss_start(core);
        return outcome::acknowledged;
    }
    receiver_boot(core);
    return outcome::unanswered;
}

outcome run_cfg(receiver_core &core, uint16_t key, bytes_t payload) {
    if (key == ubx_cfg_cfg)
        return run_cfg_cfg(core, payload);
    if (key == ubx_cfg_rst)
        return run_cfg_rst(core, payload);
    if (config_is_poll(key, payload.size())) {
        const auto answer = config_get(core.config, key, payload);
        if (!answer)
            return outcome::refused;
        send_frame(core, ubx_frame(key, *answer));
        return outcome::acknowledged;
    }
    const receiver_config before = core.config;
    if (!config_set(core.config, key, payload))
        return outcome::refused;
    take_effect(core, before);
    return outcome::acknowledged;
}

outcome run_frame(receiver_core &core, uint16_t key, bytes_t payload) {
    if (key >> 8 == class_cfg)
        return run_cfg(core, key, payload);
    const auto answer =
        payload.empty() ? ubx_report(key, report_at(core, core.now)) : std::vector<uint8_t>{};
    if (answer.empty())
        return outcome::refused;
    send_frame(core, answer);
    return outcome::unanswered;
}

void handle_frame(receiver_core &core, const command &received) {
    const auto key = static_cast<uint16_t>(received.frame_class << 8 | received.frame_id);
    const auto named = [key](const std::vector<uint16_t> &keys) {
        return std::find(keys.begin(), keys.end(), key) != keys.end();
    };
    if (received.frame_class == class_ack || named(core.faults.ignored_frames))
        return;
    const size_t said_before = core.output.size();
    const outcome end =
        named(core.faults.nak_frames) ? outcome::refused : run_frame(core, key, received.payload);
    const std::array<uint8_t, 2> about{received.frame_class, received.frame_id};
    if (end != outcome::unanswered) {
        const auto ack = ubx_frame(end == outcome::acknowledged ? ubx_ack_ack : ubx_ack_nak, about);
        // What was polled and its acknowledge leave back to back: one answer.
        if (core.output.size() > said_before)
            core.output.back().insert(core.output.back().end(), ack.begin(), ack.end());
        else
            send_frame(core, ack);
    }
    // Only now: the last thing heard of a receiver that goes to sleep is that it will.
    if (wanted_gnss_state(core.config) == gnss_state::backup)
        core.phase = power_phase::backup;
}

void handle_pubx(receiver_core &core, std::span<const std::string_view> fields) {
    constexpr std::pair<std::string_view, int> polls[] = {{"00", 0}, {"03", 3}, {"04", 4}};
    const receiver_config before = core.config;
    if (fields[1] == "40")
        config_pubx_rate(core.config, fields.subspan(2));
    if (fields[1] == "41")
        config_pubx_port(core.config, fields.subspan(2));
    take_effect(core, before);
    for (const auto &[name, number] : polls)
        if (fields[1] == name)
            send_nmea(core, pubx_answer(number, report_at(core, core.now), current_style(core)));
}

void handle_sentence(receiver_core &core, std::string_view body) {
    const std::vector<std::string_view> fields = nmea_fields(body);
    if (fields.size() < 2)
        return;
    if (fields[0] == "PUBX")
        handle_pubx(core, fields);
    else if (fields[0].size() == 5 && fields[0].ends_with("GPQ"))
        send_nmea(core, nmea_answer(fields[1], report_at(core, core.now), current_style(core)));
}

} // namespace

void handle_command(receiver_core &core, const command &received) {
    const unsigned protocol = received.is_frame ? protocol_ubx : protocol_nmea;
    if ((input_protocols(core.config) & protocol) == 0)
        return;
    if (received.is_frame)
        handle_frame(core, received);
    else
        handle_sentence(core, received.body);
}

} // namespace sim
