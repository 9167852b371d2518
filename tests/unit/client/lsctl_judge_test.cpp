// What lsctl makes of answers: judged, decoded, of numbers and places that have two readings; and
// its findings, in the rows that a simulated terminal cannot make.
#include "findings.h"
#include "line_peer.h"
#include "lsctl_rig.h"
#include "lsctl_speed.h"
#include "lsctl_static_file.h"
#include "lsctl_text.h"
#include "lsctl_ubx.h"

namespace {

std::string frame(char msg_class, char id, const std::string &payload, char spoilt = 0) {
    std::string whole = {'\xB5', 'b', msg_class, id, static_cast<char>(payload.size()), 0};
    whole += payload;
    const uint16_t sum = ubx_checksum(bytes(whole.begin() + 2, whole.end()));
    return whole + static_cast<char>(sum ^ spoilt) + static_cast<char>(sum >> 8);
}

TEST(lsctl_judge, answers) {
    const std::string gsv =
        nmea("GPGSV,2,1,08,02,40,175,41,04,07,157,33,05,82,354,49,07,30,052,41");
    const std::string pubx_03 = nmea("PUBX,03,20" + std::string(220, ','));
    const std::string rate = frame(6, 8, {100, 0, 1, 0, 1, 0});
    const std::string ack = frame(5, 1, {6, 8});
    const struct {
        const char *command;
        std::string answer; // longer ones are cut to the room that the service has
        int status;
        const char *judgement; // verdict, checksum_good, cut_by_service
    } table[] = {
        {"nmea GPGPQ,GSV", gsv + gsv, 0, "good true false"},
        {"nmea GPGPQ,GSV", gsv + gsv + gsv + gsv, 0, "good true true"},
        {"nmea PUBX,03", pubx_03, 0, "good null true"},
        {"nmea PUBX,03", pubx_03.substr(0, 199), 1, "cut null false"},
        {"nmea PUBX,04", pubx_03, 1, "other null true"},
        {"nmea GPGPQ,GSV", gsv + "$GPGSV,2,2,08*00\r\n", 1, "wrong_checksum false false"},
        {"nmea GPGPQ,VTG", gsv, 1, "other true false"},
        {"nmea GPGPQ,VTG", "no sentence", 1, "noise null false"},
        {"ubx cfg-rate", rate + ack, 0, "good true false"},
        {"ubx CFG-RATE 64 00 01 00 01 00", ack, 0, "good true false"},
        {"ubx 06 08", rate + frame(5, 1, {6, 8}, 1), 1, "wrong_checksum false false"},
        {"ubx 06 08", "no" + frame(5, 0, {6, 8}), 1, "refused true false"},
        {"ubx 06 08", frame(5, 1, {6, 9}), 1, "other true false"},
        {"nmea PUBX,00", {}, 1, "nothing null false"},
        {"nmea PUBX,40,GLL,0,0,0,0,0,0", {}, 0, "nothing null false"}, // obeyed without a word
        {"ubx 06 04 00 00 02 00", {}, 0, "nothing null false"},
        {"ubx MON-VER", frame(0x0A, 4, std::string(72, 'S')), 0, "good true false"},
        {"ubx MON-VER", frame(0x0A, 4, std::string(73, 'S')), 0, "good null true"},
    };
    fake_reset();
    for (const auto &[command, answer, status, judgement] : table) {
        bytes room(answer.begin(), answer.end());
        room.resize(command[0] == 'u' ? 80 : 200);
        fake.service = always(padded({1}, 284, room, 84));
        const outcome got = run(std::string(command) + " --json");
        EXPECT_EQ(got.status, status) << command << got.out;
        const auto object = lsctl_json::parse(got.out);
        EXPECT_EQ(object.at("verdict").get<std::string>() + " " +
                      object.at("checksum_good").dump() + " " + object.at("cut_by_service").dump(),
                  judgement)
            << command << got.out;
        EXPECT_EQ(object.contains("error"), status != 0) << command;
    }
}

TEST(lsctl_judge, spellings_of_one_frame) {
    using words = std::vector<std::string>;
    const words spellings[] = {
        {"B5, 62, 6,", "8, 0, 0"},   {"B56206080000"}, {"0xB5", "0X62", "0x6", "0x8", "0x0", "0x0"},
        {"B5,62,06,08,00,00,00,00"}, {"06", "08"},
    };
    bytes typed;
    for (const words &spelling : spellings) {
        EXPECT_EQ(ubx_parse(spelling, typed), "") << spelling[0];
        EXPECT_EQ(std::string(typed.begin(), typed.end()), frame(6, 8, "")) << spelling[0];
    }
    EXPECT_EQ(ubx_parse(words{"06 08 E8 03 01 00 01 00"}, typed), "");
    EXPECT_EQ(typed, (bytes{0xB5, 0x62, 6, 8, 6, 0, 0xE8, 3, 1, 0, 1, 0, 0x01, 0x39}));
}

TEST(lsctl_judge, payloads_in_units) {
    const std::pair<bytes, const char *> table[] = {
        {{6, 0, 1, 0, 0, 0, 0xD0, 8, 0, 0, 0x80, 0x25, 0, 0, 7, 0, 3, 0, 0, 0, 0, 0},
         R"({"port":"uart1","baud_rate":9600,"data_bits":8,"parity":"none","stop_bits":1.0,)"
         R"("protocols_in":["UBX","NMEA","RTCM"],"protocols_out":["UBX","NMEA"]})"},
        {{6, 9, 0, 0, 0, 0, 0x1F, 0, 0, 0, 0, 2, 0, 0, 1},
         R"({"clear":[],"save":["ports","messages","information","navigation","receiver manager"],)"
         R"("load":["inventory"],"devices":["battery-backed memory"]})"},
        {{6, 0x3E, 0, 0, 32, 1, 0, 8, 32, 0, 1, 0, 1, 0},
         R"({"channels":0,"channels_in_use":32,"systems":[{"system":"GPS","enabled":true,)"
         R"("least_channels":8,"most_channels":32,"signal_mask":1}]})"},
        {padded({1, 1, 0xE8, 3, 0, 0, 0xFF, 0xFF, 0xFF, 0xFF}, 22, {0xFF, 0xFF, 0xFF, 0xFF}, 18),
         R"({"time_of_week_s":1.0,"x_m":-0.01,"y_m":0.0,"z_m":0.0,"accuracy_m":null})"},
        {{1, 1, 0}, "null"},
    };
    for (const auto &[message, decoded] : table)
        EXPECT_EQ(ubx_decoded(message[0], message[1], std::span(message).subspan(2)).dump(),
                  decoded);
}

TEST(lsctl_judge, places_and_the_file_they_go_to) {
    const std::tuple<const char *, const char *, double> coordinates[] = {
        {"-33.85", "NS", -33.85}, {"33.85s", "NS", -33.85}, {"+90", "NS", 90}, {"180E", "EW", 180}};
    for (const auto &[typed, letters, degrees] : coordinates)
        EXPECT_EQ(static_coordinate(typed, letters), degrees) << typed;
    for (const char *typed :
         {"", "N", "90.0001", "-1S", "--1", "1E", "1 N", "nan", "0x1", "1e1", "47,1"})
        EXPECT_FALSE(static_coordinate(typed, "NS")) << typed;
    // Minutes that round to 60, and what is nearly the equator.
    EXPECT_EQ(static_file_on({1.9999999, -0.000001}),
              "STATIC_LOCATION = ON\n0200.000,N,00000.000,E\n");
    EXPECT_FALSE(static_read("STATIC_LOCATION = OFF\n7007.939,N,01131.000,E\n").is_on);
    for (const char *text :
         {"", "7060.000,N,01131.000,E", "9000.001,N,01131.000,E", "7007.939,N,01131.000,N"})
        EXPECT_FALSE(static_read("STATIC_LOCATION = ON\n" + std::string(text)).place) << text;
}

TEST(lsctl_judge, numbers_with_two_readings) {
    // 58 + 7 x 256 is the fastest there is; 5 may be .5, .05 and .005.
    EXPECT_EQ(lsctl_speed_candidates(58, 0).back(), 1850.768);
    EXPECT_EQ(lsctl_speed_candidates(59, 0).back(), 1595.768);
    EXPECT_EQ(lsctl_speed_candidates(255, 5).size(), 7U * 6U);
    const gps_time_fields utc = {
        .hour = 0, .minute = 0, .second = 1, .millisecond = 0, .day = 2, .month = 1, .year = 1970};
    EXPECT_EQ(lsctl_clock_offset_of(utc, 86400, 86402)->ahead_s, -0.5);
    EXPECT_EQ(lsctl_clock_offset_of(utc, 86400, 86402)->uncertainty_s, 1.5);
    EXPECT_FALSE(lsctl_clock_offset_of({}, 0, 1));
}

using diagnosis::facts;

// The receiver did not answer the last question.
diagnosis::file_facts &fail_after(facts &found, double seconds,
                                  location_result result = LOCATION_FAILED) {
    found.receiver.result = result;
    found.receiver.took_s = seconds;
    return found.files;
}

// The history's last line is so old, of one each ten minutes.
void written(facts &found, int64_t seconds_ago) {
    found.files.history_on = found.files.ring_there = true;
    found.files.history_interval_s = 600;
    found.files.ring_written_utc = found.seen_utc - seconds_ago;
}

TEST(lsctl_judge, findings) {
    const std::tuple<const char *, int, void (*)(facts &)> rows[] = {
        {"", 0, [](facts &) {}}, // its name, and lsctl's exit status
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
    for (const auto &[name, status, change] : rows) {
        facts found;
        found.seen_utc = 1'000'000;
        found.bus.services = {LS_OWN_SERV_ID, LS_SERV_TA};
        found.process.on_bus = true;
        found.files.settings = diagnosis::settings_state::read;
        found.files.stored_power = GPS_POWER_ON;
        found.files.stored_antenna = LS_ANTENNA_TYPE_GNSS;
        found.files.board = 2;
        found.link = found.power = found.receiver.result = LOCATION_ANSWERED;
        found.receiver.asked = true;
        found.receiver.verdict = lsctl_verdict::good;
        change(found);
        const std::vector<diagnosis::finding> findings = diagnosis::judge(found);
        EXPECT_EQ(std::string(findings.empty() ? "" : findings.front().name), name);
        EXPECT_EQ(exit_of(worst_of(findings)), status) << name;
    }
}

} // namespace
