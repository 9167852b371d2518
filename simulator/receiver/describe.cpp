// The receiver's state in one line for people.
#include "core.h"
#include "nmea_fields.h"

#include <array>

namespace sim {

namespace {

const char *fix_name(fix_quality fix) {
    constexpr std::array names{"no fix", "2D fix", "3D fix"};
    return names[static_cast<size_t>(fix)];
}

std::string protocol_names(unsigned mask) {
    constexpr std::array<const char *, 4> names{"nothing", "UBX", "NMEA", "UBX and NMEA"};
    return names[mask & (protocol_ubx | protocol_nmea)];
}

bool speaks_unasked(const receiver_core &core) {
    return next_periodic(core).has_value();
}

std::string differences(const receiver_config &config) {
    const auto now = config_frames(config);
    const auto fresh = config_frames(fresh_config());
    std::string names;
    for (size_t i = 0; i < now.size(); ++i) {
        const std::string name(config_name(now[i].first));
        // The message rates are many frames of one name.
        if (now[i] != fresh[i] && !names.ends_with(name))
            names += " " + name;
    }
    return names;
}

std::string fault_names(const receiver_faults &faults) {
    std::string names;
    names += faults.silent ? " silent" : "";
    names += faults.no_fix ? " no-fix" : "";
    names += faults.empty_fields ? " empty-fields" : "";
    names += faults.week_rollover ? " week-rollover" : "";
    for (const uint16_t key : faults.nak_frames)
        names += text_of(" nak=%04X", key);
    for (const uint16_t key : faults.ignored_frames)
        names += text_of(" ignore=%04X", key);
    return names;
}

std::string working(const receiver_core &core, double now) {
    const nav_report report = report_at(core, now);
    std::string line = core.gnss_running ? fix_name(report.now.fix) : "satellites stopped";
    line += text_of(", %zu of %zu satellites used, every %.0f ms, talker ", used_count(report.now),
                    report.now.satellites.size(), epoch_period(core.config) * 1000.0);
    line += main_talker(core.config) + ", sends " + protocol_names(output_protocols(core.config));
    line += speaks_unasked(core) ? " unasked" : " when asked";
    const std::string set = differences(core.config);
    if (!set.empty())
        line += ", set:" + set;
    if (config_frames(core.config) != config_frames(core.battery.saved))
        line += ", not saved";
    return line;
}

} // namespace

std::string describe_receiver(const receiver_core &core, double now) {
    constexpr std::array names{"off", "starting", "on", "backup"};
    std::string line = names[static_cast<size_t>(core.phase)];
    if (core.phase == power_phase::listening)
        line += ", " + working(core, now);
    const std::string faults = fault_names(core.faults);
    return faults.empty() ? line : line + ", faults:" + faults;
}

} // namespace sim
