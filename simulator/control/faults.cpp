#include "faults.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <optional>
#include <vector>

namespace sim {
namespace {

enum class kind {
    plain,  // on or off
    number, // on with a number, which has a default
    frame,  // a list of UBX frames, each switched by itself
    times,  // on, or on for once; `highest` stands for always
};

// A fault has exactly one of the members that belong to its kind.
struct fault {
    const char *name;
    const char *argument; // as people read it; empty = none
    kind type;
    unsigned lowest, highest, standard; // of a number
    bool &(*flag)(fault_targets);
    unsigned &(*value)(fault_targets);
    std::vector<uint16_t> &(*frames)(fault_targets);
    const char *meaning;
};

constexpr unsigned LONGEST_ANSWER = 4096;
// Longer than the three seconds for which a reader of the line waits.
constexpr unsigned LATE_MS = 4000;
// Longer than the 15 seconds for which the daemon waits for the TA.
constexpr unsigned TA_LATE_MS = 16000;
constexpr unsigned LONGEST_DELAY_MS = 600000;

// A cut without a number halves the answer; the number behind it is 0 then.
constexpr fault number_fault(const char *name, const char *argument, unsigned lowest,
                             unsigned highest, unsigned standard, unsigned &(*value)(fault_targets),
                             const char *meaning) {
    return {name,     argument, kind::number, lowest,  highest,
            standard, nullptr,  value,        nullptr, meaning};
}

constexpr fault plain_fault(const char *name, bool &(*flag)(fault_targets), const char *meaning) {
    return {name, "", kind::plain, 0, 0, 0, flag, nullptr, nullptr, meaning};
}

constexpr fault frame_fault(const char *name, std::vector<uint16_t> &(*frames)(fault_targets),
                            const char *meaning) {
    return {name, "CLASSID", kind::frame, 0, 0, 0, nullptr, nullptr, frames, meaning};
}

const std::array<fault, 16> FAULTS{{
    plain_fault(
        "silent", [](fault_targets t) -> bool & { return t.receiver.silent; },
        "the receiver answers nothing"),
    {"cut", "BYTES", kind::number, 1, LONGEST_ANSWER, 0,
     [](fault_targets t) -> bool & { return t.line.cut; },
     [](fault_targets t) -> unsigned & { return t.line.cut_bytes; }, nullptr,
     "an answer ends after BYTES (half of it without a number)"},
    plain_fault(
        "checksum", [](fault_targets t) -> bool & { return t.line.checksum; },
        "every answer has a wrong checksum"),
    number_fault(
        "garbage-before", "BYTES", 1, LONGEST_ANSWER, 16,
        [](fault_targets t) -> unsigned & { return t.line.garbage_before; },
        "random BYTES (16) in front of every answer"),
    number_fault(
        "garbage-after", "BYTES", 1, LONGEST_ANSWER, 16,
        [](fault_targets t) -> unsigned & { return t.line.garbage_after; },
        "random BYTES (16) behind every answer"),
    number_fault(
        "noise", "RATE", 1, 1000, 20, [](fault_targets t) -> unsigned & { return t.line.noise; },
        "RATE (20) of 1000 bytes get one wrong bit, both ways"),
    number_fault(
        "late", "MS", 1, LONGEST_DELAY_MS, LATE_MS,
        [](fault_targets t) -> unsigned & { return t.line.late_ms; },
        "every answer starts MS (4000) milliseconds later"),
    plain_fault(
        "unplugged", [](fault_targets t) -> bool & { return t.line.unplugged; },
        "the serial device is gone"),
    frame_fault(
        "nak", [](fault_targets t) -> std::vector<uint16_t> & { return t.receiver.nak_frames; },
        "UBX frames of CLASSID (hexadecimal, as 0608) are refused"),
    frame_fault(
        "ignore",
        [](fault_targets t) -> std::vector<uint16_t> & { return t.receiver.ignored_frames; },
        "UBX frames of CLASSID get no answer"),
    plain_fault(
        "no-fix", [](fault_targets t) -> bool & { return t.receiver.no_fix; },
        "the receiver has lost its fix"),
    plain_fault(
        "empty-fields", [](fault_targets t) -> bool & { return t.receiver.empty_fields; },
        "every value field is empty"),
    plain_fault(
        "week-rollover", [](fault_targets t) -> bool & { return t.receiver.week_rollover; },
        "dates are 1024 weeks in the past"),
    {"ta-silent", "once", kind::times, 1, TA_LOSES_ALL, TA_LOSES_ALL, nullptr,
     [](fault_targets t) -> unsigned & { return t.ta.lost; }, nullptr,
     "the TA answers nothing, or loses one answer (board 2)"},
    number_fault(
        "ta-late", "MS", 1, LONGEST_DELAY_MS, TA_LATE_MS,
        [](fault_targets t) -> unsigned & { return t.ta.late_ms; },
        "the TA answers MS (16000) milliseconds later"),
    number_fault(
        "ta-overlong", "LENGTH", GPS_DATA_RSP_SIZE + 1, UINT_MAX, GPS_DATA_RSP_SIZE + 1,
        [](fault_targets t) -> unsigned & { return t.ta.claimed_length; },
        "the TA says its answer has LENGTH (201) bytes"),
}};

std::optional<unsigned> whole_number(std::string_view text, int base) {
    unsigned number = 0;
    const auto [end, wrong] = std::from_chars(text.data(), text.data() + text.size(), number, base);
    if (text.empty() || wrong != std::errc{} || end != text.data() + text.size())
        return std::nullopt;
    return number;
}

bool switch_plain(const fault &entry, fault_targets targets, std::string_view argument, bool on,
                  std::string &error) {
    if (!argument.empty()) {
        error = std::string("fault ") + entry.name + " takes no argument";
        return false;
    }
    entry.flag(targets) = on;
    return true;
}

bool switch_number(const fault &entry, fault_targets targets, std::string_view argument, bool on,
                   std::string &error) {
    unsigned number = entry.standard;
    if (!argument.empty()) {
        const std::optional<unsigned> given = whole_number(argument, 10);
        if (!given.has_value() || *given < entry.lowest || *given > entry.highest) {
            error = std::string("fault ") + entry.name + ": " + entry.argument +
                    " must be a whole number from " + std::to_string(entry.lowest) + " to " +
                    std::to_string(entry.highest);
            return false;
        }
        number = *given;
    }
    entry.value(targets) = on ? number : 0;
    if (entry.flag != nullptr)
        entry.flag(targets) = on;
    return true;
}

bool switch_frame(const fault &entry, fault_targets targets, std::string_view argument, bool on,
                  std::string &error) {
    std::vector<uint16_t> &frames = entry.frames(targets);
    if (argument.empty() && !on) {
        frames.clear();
        return true;
    }
    const std::optional<unsigned> given = whole_number(argument, 16);
    if (argument.size() != 4 || !given.has_value()) {
        error = std::string("fault ") + entry.name +
                ": CLASSID must be four hexadecimal digits, class and id, as 0608";
        return false;
    }
    const auto frame = static_cast<uint16_t>(*given);
    std::erase(frames, frame);
    if (on)
        frames.push_back(frame);
    return true;
}

bool switch_times(const fault &entry, fault_targets targets, std::string_view argument, bool on,
                  std::string &error) {
    if (!argument.empty() && argument != entry.argument) {
        error = std::string("fault ") + entry.name + ": the argument must be " + entry.argument;
        return false;
    }
    entry.value(targets) = !on ? 0 : argument.empty() ? entry.highest : entry.lowest;
    return true;
}

// "" = off.
std::string state_of(const fault &entry, fault_targets targets) {
    switch (entry.type) {
    case kind::plain:
        return entry.flag(targets) ? "on" : "";
    case kind::number:
        if (entry.flag != nullptr && entry.value(targets) == 0)
            return entry.flag(targets) ? "on" : "";
        return entry.value(targets) == 0 ? "" : std::to_string(entry.value(targets));
    case kind::times:
        return entry.value(targets) == 0               ? ""
               : entry.value(targets) == entry.highest ? "on"
                                                       : entry.argument;
    case kind::frame:
        break;
    }
    std::string text;
    for (const uint16_t frame : entry.frames(targets)) {
        std::array<char, 8> hex;
        std::snprintf(hex.data(), hex.size(), "%04X", frame);
        text.append(text.empty() ? "" : ",").append(hex.data());
    }
    return text;
}

} // namespace

bool fault_switch(fault_targets targets, std::string_view name, std::string_view argument, bool on,
                  std::string &error) {
    const auto *const found = std::find_if(
        FAULTS.begin(), FAULTS.end(), [name](const fault &entry) { return name == entry.name; });
    if (found == FAULTS.end()) {
        error = "no fault \"" + std::string(name) + "\"; there are:";
        for (const fault &entry : FAULTS)
            error += std::string(" ") + entry.name;
        return false;
    }
    switch (found->type) {
    case kind::plain:
        return switch_plain(*found, targets, argument, on, error);
    case kind::number:
        return switch_number(*found, targets, argument, on, error);
    case kind::times:
        return switch_times(*found, targets, argument, on, error);
    case kind::frame:
        break;
    }
    return switch_frame(*found, targets, argument, on, error);
}

bool fault_switch_on(fault_targets targets, std::string_view text, std::string &error) {
    const size_t equals = text.find('=');
    if (equals == std::string_view::npos)
        return fault_switch(targets, text, "", true, error);
    if (equals + 1 == text.size()) {
        error = "fault \"" + std::string(text) + "\": nothing behind the =";
        return false;
    }
    return fault_switch(targets, text.substr(0, equals), text.substr(equals + 1), true, error);
}

std::string fault_list(fault_targets targets) {
    std::string text;
    for (const fault &entry : FAULTS) {
        const std::string state = state_of(entry, targets);
        const std::string name =
            std::string(entry.name) + (entry.argument[0] != '\0' ? "=" : "") + entry.argument;
        std::array<char, 160> row;
        std::snprintf(row.data(), row.size(), "%-22s %-8s %s\n", name.c_str(),
                      state.empty() ? "off" : state.c_str(), entry.meaning);
        text += row.data();
    }
    return text;
}

std::string fault_summary(fault_targets targets) {
    std::string text;
    for (const fault &entry : FAULTS) {
        const std::string state = state_of(entry, targets);
        if (!state.empty()) {
            text.append(text.empty() ? "" : " ").append(entry.name);
            text.append(state == "on" ? "" : "=" + state);
        }
    }
    return text.empty() ? "none" : text;
}

} // namespace sim
