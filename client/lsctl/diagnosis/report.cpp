// lsctl: facts and findings as text and as JSON.
#include "report.h"

#include <algorithm>
#include <array>
#include <ctime>

#include "lsctl_text.h"

namespace diagnosis {
namespace {

struct service_name {
    uint8_t id;
    const char *name;
};
constexpr std::array<service_name, 5> NAMES = {{{LS_SERV_SAL, "SAL"},
                                                {LS_SERV_VOIP, "VoIP"},
                                                {LS_SERV_WS, "WS"},
                                                {LS_OWN_SERV_ID, "location service"},
                                                {LS_SERV_TA, "TA"}}};

std::string line(const char *name, const std::string &value) {
    return lsctl_format("%-11s %s\n", name, value.c_str());
}

std::string service_text(uint8_t id) {
    for (const service_name &each : NAMES)
        if (each.id == id)
            return lsctl_format("%u %s", id, each.name);
    return std::to_string(id);
}

std::string utc_text(int64_t seconds) {
    const time_t when = static_cast<time_t>(seconds);
    tm fields{};
    gmtime_r(&when, &fields);
    std::array<char, 32> text{};
    strftime(text.data(), text.size(), "%Y-%m-%dT%H:%M:%SZ", &fields);
    return text.data();
}

std::string bus_text(const facts &found) {
    std::string text = found.where.bus + ":";
    for (const uint8_t id : found.bus.services)
        text += " " + service_text(id) + ",";
    return text + lsctl_format(" %u tool%s", found.bus.tools, found.bus.tools == 1 ? "" : "s");
}

std::string process_text(const process_facts &process) {
    if (!process.may_look)
        return "unknown: no right to enter the bus";
    if (!process.on_bus)
        return "not running";
    if (!process.pid)
        return "running, since when is not to be seen";
    std::string text = process.ready == false ? "starting" : "running";
    if (process.started_utc)
        text += " since " + utc_text(*process.started_utc);
    return text + lsctl_format(", process %d", static_cast<int>(*process.pid));
}

const char *board_text(const file_facts &files) {
    return !files.board        ? "unknown"
           : *files.board == 1 ? "1, receiver on the serial line"
                               : "2, receiver behind the TA";
}

std::string power_text(const facts &found) {
    std::string text = found.power_mode ? lsctl_power_text(*found.power_mode) : "unknown";
    if (found.files.settings == settings_state::read)
        text += "; stored: " + lsctl_power_text(static_cast<uint32_t>(found.files.stored_power));
    return text + "; services 3, 6 and 9 may change it";
}

std::string line_text(const receiver_facts &receiver) {
    if (!receiver.asked)
        return "not asked";
    const std::string took = lsctl_format(" (%.2f s)", receiver.took_s);
    if (receiver.result != LOCATION_ANSWERED)
        return std::string("fails: ") + lsctl_result_name(receiver.result) + took;
    return receiver.verdict == lsctl_verdict::good && !receiver.noise
               ? "alive" + took
               : std::string("damaged: ") + lsctl_verdict_name(receiver.verdict) + took;
}

std::string fix_text(const receiver_facts &receiver) {
    if (!receiver.navigation)
        return "unknown";
    if (!receiver.navigation->has_fix())
        return "none";
    std::string text = lsctl_format("%s, %u satellites", receiver.navigation->status.c_str(),
                                    receiver.navigation->satellites_used);
    if (receiver.navigation->horizontal_accuracy_m)
        text += lsctl_format(", +-%.1f m", *receiver.navigation->horizontal_accuracy_m);
    if (receiver.fix_age_s)
        text += lsctl_format(", %.1f s old", *receiver.fix_age_s);
    return text;
}

std::string satellites_text(const receiver_facts &receiver) {
    if (!receiver.in_view)
        return "unknown";
    return lsctl_format("%u in view, %u of %u told are heard, %u used", *receiver.in_view,
                        receiver.heard, receiver.told,
                        receiver.navigation ? receiver.navigation->satellites_used : 0);
}

std::string history_text(const file_facts &files) {
    std::string text = files.settings == settings_state::absent ? "off (default)"
                       : files.settings != settings_state::read ? "unknown"
                       : files.history_on ? lsctl_format("on, every %u s", files.history_interval_s)
                                          : std::string("off");
    if (files.ring_written_utc)
        text += ", written " + utc_text(*files.ring_written_utc);
    return text;
}

const char *settings_text(settings_state state) {
    constexpr std::array TEXTS = {"", " (not there: defaults)", " (no settings database)",
                                  " (not readable)"};
    return TEXTS.at(static_cast<size_t>(state));
}

template <class value>
lsctl_json or_null(const std::optional<value> &known) {
    return known ? lsctl_json(*known) : lsctl_json(nullptr);
}

lsctl_json time_or_null(const std::optional<int64_t> &seconds) {
    return seconds ? lsctl_json(utc_text(*seconds)) : lsctl_json(nullptr);
}

lsctl_json receiver_json(const receiver_facts &receiver) {
    const lsctl_navigation *const navigation =
        receiver.navigation ? &*receiver.navigation : nullptr;
    const bool has_fix = navigation != nullptr && navigation->has_fix();
    lsctl_json object = {
        {"line",
         {{"alive", receiver.asked ? lsctl_json(receiver.result == LOCATION_ANSWERED &&
                                                receiver.verdict == lsctl_verdict::good)
                                   : lsctl_json(nullptr)},
          {"answer", receiver.asked && receiver.result == LOCATION_ANSWERED
                         ? lsctl_json(lsctl_verdict_name(receiver.verdict))
                         : lsctl_json(nullptr)},
          {"took_s", receiver.asked ? lsctl_json(receiver.took_s) : lsctl_json(nullptr)}}},
        {"fix",
         {{"has_fix", navigation != nullptr ? lsctl_json(has_fix) : lsctl_json(nullptr)},
          {"type", has_fix ? lsctl_json(navigation->status) : lsctl_json(nullptr)},
          {"horizontal_accuracy_m",
           has_fix ? or_null(navigation->horizontal_accuracy_m) : lsctl_json(nullptr)},
          {"age_s", or_null(receiver.fix_age_s)},
          {"clock_offset_s", or_null(receiver.clock_offset_s)}}},
        {"satellites",
         {{"in_view", or_null(receiver.in_view)},
          {"told", receiver.in_view ? lsctl_json(receiver.told) : lsctl_json(nullptr)},
          {"heard", receiver.in_view ? lsctl_json(receiver.heard) : lsctl_json(nullptr)},
          {"used", navigation != nullptr ? lsctl_json(navigation->satellites_used)
                                         : lsctl_json(nullptr)}}}};
    return object;
}

} // namespace

std::string facts_text(const facts &found) {
    const bool gate_known = found.power == LOCATION_ANSWERED || found.power == LOCATION_GATE_CLOSED;
    return line("Bus", bus_text(found)) + line("Service", process_text(found.process)) +
           line("Board", board_text(found.files)) +
           line("Gate", !gate_known
                            ? "unknown"
                            : (gate_is_open(found) ? "open: " : "closed: ") + gate_text(found)) +
           line("Power", power_text(found)) + line("Line", line_text(found.receiver)) +
           line("Fix", fix_text(found.receiver)) +
           line("Satellites", satellites_text(found.receiver)) +
           line("History", history_text(found.files)) +
           line("Settings", (found.where.settings.empty() ? "unknown file" : found.where.settings) +
                                settings_text(found.files.settings));
}

std::string verdict_text(const std::vector<finding> &findings) {
    const severity worst = worst_of(findings);
    std::string names;
    for (const finding &each : findings)
        if (each.level != severity::healthy)
            names += (names.empty() ? ": " : ", ") + std::string(each.name);
    const char *word = worst == severity::no_answer ? "no answer"
                       : worst == severity::restart ? "degraded, a restart of the service mends it"
                                                    : severity_name(worst);
    return line("Status", word + names);
}

std::string remedies_text(const std::vector<finding> &findings) {
    std::string text;
    for (const finding &each : findings) {
        text += "\n" + std::string(each.name) + ": " + each.cause + ".\n";
        if (!each.remedy.empty())
            text += "  What to do: " + each.remedy + ".\n";
    }
    return text;
}

std::string line_of(const finding &each) {
    return lsctl_format("%s: %s%s%s\n", each.name, each.cause.c_str(),
                        each.remedy.empty() ? "" : "; ", each.remedy.c_str());
}

lsctl_json report_json(const facts &found, const std::vector<finding> &findings) {
    const file_facts &files = found.files;
    const bool known = files.settings == settings_state::read;
    lsctl_json object = {{"status", severity_name(worst_of(findings))}};
    lsctl_json list = lsctl_json::array();
    for (const finding &each : findings) {
        list.push_back({{"name", each.name},
                        {"severity", severity_name(each.level)},
                        {"cause", each.cause},
                        {"remedy", each.remedy}});
    }
    object["findings"] = list;
    object["bus"] = {{"directory", found.where.bus},
                     {"services", found.bus.services},
                     {"tools", found.bus.tools}};
    object["service"] = {
        {"on_bus", found.process.may_look ? lsctl_json(found.process.on_bus) : lsctl_json(nullptr)},
        {"pid", or_null(found.process.pid)},
        {"started_utc", time_or_null(found.process.started_utc)},
        {"ready", or_null(found.process.ready)}};
    object["board"] = or_null(files.board);
    const bool gate_known = found.power == LOCATION_ANSWERED || found.power == LOCATION_GATE_CLOSED;
    object["gate"] = {{"open", gate_known ? lsctl_json(gate_is_open(found)) : lsctl_json(nullptr)},
                      {"why", gate_text(found)}};
    object["power"] = {{"mode", or_null(found.power_mode)},
                       {"stored", known ? lsctl_json(files.stored_power) : lsctl_json(nullptr)},
                       {"changed_by", {LS_SERV_VOIP, LS_SERV_WS, LS_SERV_CLIENT_9}}};
    object.update(receiver_json(found.receiver));
    object["static_location_on"] = files.static_on;
    object["history"] = {
        {"on", known ? lsctl_json(files.history_on) : lsctl_json(nullptr)},
        {"interval_s", known ? lsctl_json(files.history_interval_s) : lsctl_json(nullptr)},
        {"written_utc", time_or_null(files.ring_written_utc)}};
    constexpr std::array STATES = {"read", "absent", "no_database", "unreadable"};
    object["settings"] = {{"file", found.where.settings.empty() ? lsctl_json(nullptr)
                                                                : lsctl_json(found.where.settings)},
                          {"state", STATES.at(static_cast<size_t>(files.settings))}};
    return object;
}

} // namespace diagnosis
