// lsctl: the table of findings.
#include "findings_rows.h"

#include <algorithm>
#include <array>
#include <cmath>

#include "lsctl_text.h"

namespace diagnosis {
namespace {

constexpr double WEEK_S = 604800;
constexpr double ROLLOVER_WEEKS = 1024;
// The history counts as overdue after this many of its intervals, and this many seconds.
constexpr int64_t OVERDUE_INTERVALS = 3;
constexpr int64_t OVERDUE_LEAST_S = 180;

finding joining(const facts &found) {
    constexpr std::array CLOSED = {LOCATION_ANSWERED, LOCATION_CANCELLED, LOCATION_GATE_CLOSED};
    const location_result result = found.link != LOCATION_ANSWERED ? found.link : found.power;
    const bool starting = found.link == LOCATION_ANSWERED && found.process.ready == false;
    if (starting || std::find(CLOSED.begin(), CLOSED.end(), result) != CLOSED.end())
        return NOTHING;
    const char *remedy = "";
    switch (result) {
    case LOCATION_NO_BUS:
        remedy = "start the terminal's platform, or name the bus directory with MQUTILS_DIR";
        break;
    case LOCATION_NO_DAEMON:
        remedy = "start it: systemctl start location_service; its log says why it ended";
        break;
    case LOCATION_BUS_DENIED:
        remedy = "become a member of the groups terminal-bus and terminal-tools";
        break;
    case LOCATION_NO_REPLY:
    case LOCATION_BUS_FULL:
        remedy = "look at its log; when it stays like this: systemctl restart location_service";
        break;
    default:
        remedy = "look at the log of the service and at who else uses the bus: lsctl doctor";
        break;
    }
    return {lsctl_result_name(result), severity::no_answer, location_client_error_text(result),
            remedy};
}

finding starting(const facts &found) {
    if (!found.process.on_bus || found.process.ready != false)
        return NOTHING;
    return {"starting", severity::degraded,
            "the service is starting: it is configuring the receiver",
            "wait for it: lsctl wait; with a silent receiver a start takes more than a minute"};
}

finding gate(const facts &found) {
    if (found.power != LOCATION_GATE_CLOSED)
        return NOTHING;
    return {"gate_closed", severity::degraded,
            "the service refuses all requests: " + gate_text(found),
            "with a GNSS antenna: lsctl settings --antenna 4, then restart the service; or let the "
            "TA report it"};
}

finding receiver_off(const facts &found) {
    if (!found.power_mode || *found.power_mode == GPS_POWER_ON)
        return NOTHING;
    return {"receiver_off", severity::degraded,
            lsctl_format("the receiver is switched off (power mode %u)", *found.power_mode),
            "switch it on as one of the services 3, 6 and 9: lsctl power on --as ID, where ID is "
            "one that is not on the bus"};
}

finding static_without_place(const facts &found) {
    if (!found.files.static_on || found.files.static_place)
        return NOTHING;
    return {"static_no_place", severity::degraded,
            "the static location is on, but its file holds no place, or not in the fixed columns",
            "write the place as DDMM.MMM,N,DDDMM.MMM,E: location_service_static_location(5)"};
}

finding static_on(const facts &found) {
    if (!found.files.static_place)
        return NOTHING;
    return {"static_on", severity::healthy,
            "the static location is on: positions are that place, not the receiver's", ""};
}

finding rollover(const facts &found) {
    const double weeks = found.receiver.clock_offset_s.value_or(0) / WEEK_S;
    if (std::fabs(weeks) < ROLLOVER_WEEKS / 2)
        return NOTHING;
    return {"wrong_date", severity::degraded,
            lsctl_format("the receiver's date is %.0f weeks %s the system clock's",
                         std::fabs(weeks), weeks < 0 ? "before" : "behind"),
            std::fabs(std::fabs(weeks) - ROLLOVER_WEEKS) < 2
                ? "GPS counts weeks up to 1024: the receiver needs newer firmware"
                : "set the system clock, or look at the receiver's firmware"};
}

finding full_sky(const facts &found) {
    if (!found.receiver.in_view || found.receiver.told >= *found.receiver.in_view)
        return NOTHING;
    return {
        "full_sky", severity::healthy,
        lsctl_format("of %u satellites in view only %u fit into an answer: lsctl satellites may "
                     "fail meanwhile",
                     *found.receiver.in_view, found.receiver.told),
        ""};
}

finding settings(const facts &found) {
    if (found.files.settings == settings_state::no_database) {
        return {"settings_damaged", severity::degraded,
                found.where.settings + " is not a settings database: defaults are in force",
                "remove it or put a good copy in its place, and restart the service"};
    }
    if (found.files.settings == settings_state::unreadable) {
        return {"settings_unreadable", severity::healthy,
                "this user cannot read the settings" +
                    (found.where.settings.empty() ? "" : " in " + found.where.settings),
                ""};
    }
    return NOTHING;
}

finding history(const facts &found) {
    if (!found.files.history_on)
        return NOTHING;
    if (!found.files.ring_there || !found.files.ring_header) {
        return {"history_not_written", severity::degraded,
                std::string("the history is on, but its file ") +
                    (found.files.ring_there ? "has no header" : "is not there"),
                "restart the service, which makes the file at its start when the history is on"};
    }
    if (!found.files.ring_written_utc) // without a fix there is nothing to write
        return NOTHING;
    const int64_t age = found.seen_utc - *found.files.ring_written_utc;
    const int64_t longest =
        std::max(OVERDUE_INTERVALS * found.files.history_interval_s, OVERDUE_LEAST_S);
    const bool just_started = found.seen_utc - found.process.started_utc.value_or(0) < longest;
    if (age < longest || just_started)
        return NOTHING;
    return {"history_overdue", severity::degraded,
            lsctl_format("the history is on, every %u s, but was last written %lld s ago",
                         found.files.history_interval_s, static_cast<long long>(age)),
            "look at the disk of /user and at the service's log"};
}

// What explains a failed query comes before what else is wrong.
constexpr std::array<row, 18> EXPLAINING = {
    joining,         starting,  gate,         receiver_off, out_of_step,   line_lost, line_gone,
    board_unknown,   ta_absent, antenna,      ta_silent,    ta_bad_answer, busy,      silent,
    wrong_checksums, damaged,   late_answers, noisy};
constexpr std::array<row, 7> OTHERS = {
    static_without_place, no_fix, rollover, full_sky, settings, history, static_on};

} // namespace

const char *severity_name(severity level) {
    constexpr std::array NAMES = {"healthy", "degraded", "restart", "no_answer"};
    return NAMES.at(static_cast<size_t>(level));
}

bool gate_is_open(const facts &found) {
    return found.power == LOCATION_ANSWERED;
}

std::string gate_text(const facts &found) {
    const file_facts &files = found.files;
    if (files.board == 1)
        return "board type 1";
    if (files.static_on)
        return "the static location is on";
    const std::string board = files.board ? lsctl_format("board type %d", *files.board)
                                          : std::string("unknown board type");
    const std::string antenna = files.settings == settings_state::read
                                    ? lsctl_format("antenna type %d stored", files.stored_antenna)
                                    : std::string("unknown antenna type");
    return board + ", " + antenna + ", no static location";
}

std::vector<finding> judge(const facts &found) {
    std::vector<finding> all;
    const auto add = [&](row judged) {
        finding made = judged(found);
        if (*made.name != '\0')
            all.push_back(std::move(made));
    };
    std::for_each(EXPLAINING.begin(), EXPLAINING.end(), add);
    std::for_each(OTHERS.begin(), OTHERS.end(), add);
    std::stable_sort(all.begin(), all.end(),
                     [](const finding &a, const finding &b) { return a.level > b.level; });
    return all;
}

severity worst_of(const std::vector<finding> &findings) {
    return findings.empty() ? severity::healthy : findings.front().level;
}

int exit_of(severity level) {
    constexpr std::array STATUSES = {LSCTL_OK, LSCTL_FAILED, LSCTL_RESTART, LSCTL_NO_ANSWER};
    return STATUSES.at(static_cast<size_t>(level));
}

const finding *explanation_in(const std::vector<finding> &findings, std::string_view also) {
    const auto explains = [also](const finding &each) {
        const std::string_view name = each.name;
        return name == also || (each.level != severity::healthy && name != "wrong_date" &&
                                name != "settings_damaged" && !name.starts_with("history_"));
    };
    const auto found = std::find_if(findings.begin(), findings.end(), explains);
    return found == findings.end() ? nullptr : &*found;
}

} // namespace diagnosis
