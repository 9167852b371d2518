// The table of findings, in the rows that a simulated terminal cannot make.
#include "findings.h"

#include <gtest/gtest.h>

namespace {

using diagnosis::facts;

// A terminal on which nothing is wrong.
facts healthy() {
    facts found;
    found.seen_utc = 1'000'000;
    found.bus.services = {LS_OWN_SERV_ID, LS_SERV_TA};
    found.process = {.on_bus = true, .pid = 5, .started_utc = 1000, .ready = true};
    found.files.settings = diagnosis::settings_state::read;
    found.files.stored_power = GPS_POWER_ON;
    found.files.stored_antenna = LS_ANTENNA_TYPE_GNSS;
    found.files.board = 2;
    found.link = found.power = LOCATION_ANSWERED;
    found.power_mode = GPS_POWER_ON;
    found.receiver.asked = true;
    found.receiver.result = LOCATION_ANSWERED;
    found.receiver.verdict = lsctl_verdict::good;
    found.receiver.navigation = lsctl_navigation();
    found.receiver.navigation->status = "G3";
    found.receiver.in_view = found.receiver.told = 8;
    return found;
}

// The receiver did not answer the last question.
diagnosis::file_facts &fail_after(facts &found, double seconds,
                                  location_result result = LOCATION_FAILED) {
    found.receiver.result = result;
    found.receiver.took_s = seconds;
    found.receiver.navigation.reset();
    found.receiver.in_view.reset();
    return found.files;
}

// The history's last line is so old, of one each ten minutes.
void written(facts &found, int64_t seconds_ago) {
    found.files.history_on = found.files.ring_there = true;
    found.files.history_interval_s = 600;
    found.files.ring_written_utc = found.seen_utc - seconds_ago;
}

} // namespace

TEST(findings, table) {
    const struct {
        const char *name;
        int status;
        void (*change)(facts &found);
    } rows[] = {
        {"", 0, [](facts &) {}},
        {"starting", 1, [](facts &f) { f.process.ready = false; }},
        {"bus_denied", 3, [](facts &f) { f.link = LOCATION_BUS_DENIED; }},
        {"no_reply", 3, [](facts &f) { f.power = LOCATION_NO_REPLY; }},
        {"full_sky", 0, [](facts &f) { f.receiver.in_view = 12; }},
        {"late_answers", 1, [](facts &f) { f.receiver.verdict = lsctl_verdict::other; }},
        {"receiver_busy", 1, [](facts &f) { fail_after(f, 20, LOCATION_RECEIVER_BUSY); }},
        {"power_not_stored", 1,
         [](facts &f) { fail_after(f, 20, LOCATION_RECEIVER_BUSY).stored_power = GPS_POWER_OFF; }},
        {"board_unknown", 1, [](facts &f) { fail_after(f, 0).board.reset(); }},
        {"no_antenna", 1, [](facts &f) { fail_after(f, 0).stored_antenna = 1; }},
        {"no_antenna", 0,
         [](facts &f) {
             fail_after(f, 0).stored_antenna = 1;
             f.files.static_on = f.files.static_place = true;
         }},
        // Nothing is known of what came meanwhile: a restart must not be advised for sure.
        {"ta_silent", 1, [](facts &f) { fail_after(f, 15); }},
        {"history_not_written", 1, [](facts &f) { f.files.history_on = true; }},
        {"history_overdue", 1, [](facts &f) { written(f, 1801); }},
        {"", 0, [](facts &f) { written(f, 1799); }},
    };
    for (const auto &row : rows) {
        facts found = healthy();
        row.change(found);
        const std::vector<diagnosis::finding> findings = diagnosis::judge(found);
        EXPECT_EQ(std::string(findings.empty() ? "" : findings.front().name), row.name);
        EXPECT_EQ(exit_of(worst_of(findings)), row.status) << row.name;
    }
}
