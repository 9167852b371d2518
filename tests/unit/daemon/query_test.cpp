// What the queries, and a client's own commands, make of literal answers of a receiver on a pty.
#include "daemon_fixture.h"
#include "gps_service.h"

namespace {

using std::to_string;

std::string to_string(const gps_speed_data &speed) {
    return to_string(speed.speed_int) + " and " + to_string(speed.speed_frac);
}
std::string to_string(const gps_time_fields &time) {
    std::ostringstream text;
    text << int{time.hour} << ':' << int{time.minute} << ':' << int{time.second} << '.'
         << time.millisecond << ' ' << int{time.day} << '.' << int{time.month} << '.' << time.year;
    return text.str();
}
std::string to_string(const gps_pos_data &pos) {
    return to_string(pos.fix_type) + " at " + to_string(pos.time);
}

// What a query finds.
template <typename Record, int32_t (*query)(Record *)>
std::string ask() {
    Record found = {};
    const int32_t result = query(&found);
    return result == 0 ? to_string(found) : "refused with " + to_string(result);
}

using asker = std::string (*)();
constexpr asker time_of_day = ask<gps_time_fields, gps_get_time>;
constexpr asker time_of_week = ask<int32_t, gps_get_tow>;
constexpr asker speed = ask<gps_speed_data, gps_get_speed>;
constexpr asker fix = ask<gps_pos_data, gps_get_pos>;
constexpr char refused[] = "refused with 1";

using query = receiver_fixture;

TEST_F(query, takes_what_a_sentence_says_or_refuses_it) {
    const std::string vtg = ",77.52,T,,M,0.004,N,", gsa_end = ",,,,,,,,,,,,,2.5,1.3,2.1";
    const std::tuple<const char *, std::string, asker, std::string> rows[] = {
        // A field 0 of another length is not checked. A part of the time that does not convert is
        // 0: one with another character than a digit, or behind the end; what ends there does.
        {"GPGPQ,ZDA", "GNZDAX,2259x9,30,11,2018", time_of_day, "22:59:0.0 30.11.2018"},
        {"GPGPQ,ZDA", "GPZDA,-12331,30,11,2018", time_of_day, "0:23:31.0 30.11.2018"},
        {"GPGPQ,ZDA", "GPZDA,12331,30,11,2018", time_of_day, "12:33:1.0 30.11.2018"},
        {"GPGPQ,ZDA", "GPZDA,1233,30,11,2018", time_of_day, "12:33:0.0 30.11.2018"},
        {"GPGPQ,ZDA", "GPZDA,,31,12,2019", time_of_day, refused},
        {"GPGPQ,ZDA", "GPZDA,235959.00,,12,2019", time_of_day, refused},
        {"GPGPQ,ZDA", "GPZDA,235959.00,31,12,", time_of_day, refused},
        {"PUBX,04", "PUBX,04,073731.00,091202,113851.00,1196", time_of_week, "113851"},
        {"PUBX,04", "PUBX,04,1,2,,4", time_of_week, refused},
        // Two integers of 8 bits, and no character of them is checked.
        {"GPGPQ,VTG", "GPVTG" + vtg + "12.05,K,A", speed, "12 and 5"},
        {"GPGPQ,VTG", "GNVTGX" + vtg + "300.5,K,A", speed, "44 and 5"},
        {"GPGPQ,VTG", "GPVTG" + vtg + "1.2.3,K,A", speed, "1 and 183"},
        {"GPGPQ,VTG", "GPVTG" + vtg + "7.,K,A", speed, "7 and 0"},
        {"GPGPQ,VTG", "GPVTG" + vtg + "-1,K,A", speed, "227 and 0"}, // '-' minus '0' is 253
        {"GPGPQ,VTG", "GPVTG" + vtg + "\xFF.\x80,K,A", speed, "207 and 80"},
        {"GPGPQ,VTG", "GPVTG" + vtg + ",K,A", speed, refused},
        {"GPGPQ,ZDA", "GPZDA,,31,12,2019", speed, refused},
        {"GPGPQ,GSA", "GPGSA,A,1" + gsa_end, fix, "2 at 8:27:10.0 16.9.2002"},
        {"GPGPQ,GSA", "GPGSA,A,2" + gsa_end, fix, "0 at 8:27:10.0 16.9.2002"},
        {"GPGPQ,GSA", "GPGSA,A,3" + gsa_end, fix, "1 at 8:27:10.0 16.9.2002"},
        {"GPGPQ,GSA", "GPGSA,A,1,,,,,,,,,,,,,99.99,99.99", fix, refused},
        {"GPGPQ,GGA", "GPGGA,123318.00,,,,,0,00,99.99,,,,,,", fix, refused},
        {"GPGPQ,GGA", "GPGGA,1,5130.000,N,00007.500,,1,08,0.9,545.4,M", fix, refused},
        {"GPGPQ,ZDA", "GPZDA,,,,,00,00", fix, refused},
    };
    for (const auto &[poll, body, ask, found] : rows) {
        SetUp();
        answer(poll, body);
        EXPECT_EQ(ask(), found) << body;
    }
}

TEST_F(query, each_failure_is_told_once) {
    const std::tuple<const char *, asker, const char *> rows[] = {
        {"GPGPQ,ZDA", time_of_day, "gps_get_time:"}, {"PUBX,04", time_of_week, "gps_get_tow:"},
        {"GPGPQ,VTG", speed, "gps_get_speed:"},      {"GPGPQ,GGA", fix, "gps_get_pos:"},
        {"GPGPQ,GSA", fix, "gps_get_pos:"},
    };
    for (const auto &[poll, ask, name] : rows)
        for (const std::string &raw : {""s, "noise"s, nmea(",1"), nmea("GPXYZ,1")}) {
            SetUp();
            gps_board_type_g = raw.empty() ? 3 : 1; // 3: no way to a receiver
            answer_raw(poll, raw);
            EXPECT_EQ(ask(), refused) << poll << raw;
            EXPECT_EQ(errors(name), 1u) << poll << raw;
        }
}

using bodies = std::vector<std::string>;

class satellites : public receiver_fixture {
  protected:
    // Asks for the satellites, into a record of a query before; a whole GSV answer of several
    // sentences.
    int32_t query(const bodies &all) {
        std::string text;
        for (const std::string &body : all)
            text += nmea(body);
        answer_raw("GPGPQ,GSV", text);
        memset(&info, BEFORE, sizeof(info));
        return gps_get_sat_info(&info);
    }

    static constexpr int BEFORE = 0xEE;
    gps_sat_info info = {};
};

TEST_F(satellites, eleven_in_view_fill_eleven_entries) {
    answer("GPGPQ,GSA", "GPGSA,A,3,04,05,,33,12,,,32,,,00,65,2.5,1.3,2.1");
    EXPECT_EQ(query({"GPGSV,3,1,11,01,,,40,02,,,,03,,,30,04,,,31",
                     "GPGSV,3,2,11,05,1,2,41,06,,,42,07,,,43,08,,,44",
                     "GPGSV,3,3,11,09,,,45,10,,,46,11,,,47"}),
              0);
    // Bytes behind the time: in view, usable, PRNs, C/N0s, used ones. Those keep their place; 33
    // and above and 0 do not count.
    const bytes literal = {11, 4,  1,  2,  3,  4,  5, 6, 7, 8, 9, 10, 11, 0, 40, 0, 30, 31, 41,
                           42, 43, 44, 45, 46, 47, 0, 4, 5, 0, 0, 12, 0,  0, 32, 0, 0,  0,  0};
    EXPECT_EQ(memcmp(&info.num_sat_in_view, literal.data(), literal.size()), 0);
    EXPECT_EQ(to_string(info.time), "8:27:10.0 16.9.2002");
}

TEST_F(satellites, announced_counts_never_lead_past_an_array) {
    const std::string four = ",1,,,1,2,,,2,3,,,3,4,,,4";
    const std::string full = ",01,06,336,17,08,05,281,25,10,51,291,39,16,70,279,37";
    const std::tuple<const char *, bodies, int, int> rows[] = {
        {"none", {"GPGSV,1,1,00"}, 0, 0},
        {"a count without satellites", {"GPGSV,1,1,02,9,,,9"}, 1, 2},
        {"five in one sentence", {"GPGSV,1,1,05" + four}, 0, 5},
        {"two hundred, sentence 11 of 99", bodies(4, "GPGSV,99,11,200" + four), 0, 12},
        {"sentences missing", {"GPGSV,3,1,12" + four, "GPGSV,3,2,12" + four}, 1, BEFORE},
        {"cut by the line, at 205 bytes", bodies(3, "GPGSV,3,1,12" + full), 1, BEFORE},
        {"a wrong checksum", {"GPGSV,1,1,00*00"}, 1, BEFORE},
        {"no type", {",1,1,00"}, 1, BEFORE},
        {"another type", {"GPGSA,1,1,00"}, 1, BEFORE},
        {"no number of sentences", {"GPGSV,,1,04" + four}, 1, BEFORE},
        {"no number of satellites", {"GPGSV,1,1," + four}, 1, BEFORE},
        {"out of order", {"GPGSV,2,2,05,5,,,5", "GPGSV,2,1,05" + four}, 1, 5},
    };
    for (const auto &[name, all, result, in_view] : rows) {
        EXPECT_EQ(query(all), result) << name;
        EXPECT_EQ(info.num_sat_in_view, in_view) << name;
        EXPECT_EQ(gps_get_time(&info.time), 0) << name; // the next query is left alone
    }
}

// The record that goes back when a client sends this text.
class command : public receiver_fixture {
  protected:
    static ls_engg_cmd exec(uint32_t id, const std::string &text) {
        bytes payload(4);
        payload.insert(payload.end(), text.begin(), text.end());
        return serve(id, 40, payload).at(0).as<ls_engg_cmd>();
    }
};

TEST_F(command, of_nmea_is_completed_and_its_answer_cut_to_the_record) {
    const std::string longest(80, 'A'); // a text without NUL
    answer_raw(longest, std::string(205, 'b'));
    answer_raw("PUBX,04", "raw");
    const ls_engg_cmd full = exec(1011, longest), small = exec(1011, "PUBX,04");
    EXPECT_EQ(std::string(std::begin(full.answer), std::end(full.answer)), std::string(200, 'b'));
    EXPECT_EQ(std::string(small.answer, small.answer + 4), "raw\0"s);
    EXPECT_TRUE(full.status == 1 && small.status == 1);
}

TEST_F(command, of_ubx_gets_its_checksum) {
    const std::string poll = "\xB5\x62\x06\x08\x00\x00\x0E\x30"s;
    answer_raw(poll, std::string(150, 'a'));
    for (const char *text : {"B5,62,06,08,00,00,00,00", "1b5, 0x62,6,8,0,0,ff,ff,",
                             "12345678b5,62,06,08,00,00,00,00"}) {
        const ls_engg_cmd record = exec(1012, text);
        EXPECT_EQ(record.status, 1u) << text;
        EXPECT_EQ(peer->commands().back(), poll);
        EXPECT_EQ(record.answer[79], 'a');
        EXPECT_EQ(record.answer[80], '\0'); // a fixed count is copied
    }
    // The last one: as much text as fits, and no NUL.
    for (const std::string &text :
         {""s, "B5"s, "B5,62,06"s, "B5,62,06,08,FF,FF,00,00"s, std::string(80, 'B')})
        EXPECT_EQ(exec(1012, text).status, 0u) << text;
    EXPECT_EQ(serve(1012).at(0).payload, bytes(284));
    EXPECT_EQ(peer->commands().size(), 3u);
}

// The same bytes on every machine: fields at and beyond the ends of what their conversions can
// hold. Plain char is signed on one of the machines, a number too large for its integer saturates
// on one only.
using both_machines = receiver_fixture;

// The record in the order of the bus, without padding and without the time.
std::string position_bytes(const gps_pos_data &pos) {
    std::string text;
    for (const auto &[from, size] : {std::pair(16, 9), {32, 9}, {44, 8}, {56, 8}, {64, 5}})
        text += hex(reinterpret_cast<const uint8_t *>(&pos) + from, static_cast<size_t>(size)) +
                (from == 64 ? "" : " ");
    return text;
}

TEST_F(both_machines, position_and_lpp_parameters) {
    // Coordinates with their letters, as in GGA.
    const std::array<std::string, 9> rows[] = {
        {"south east", "4717.113210,S", "00833.915187,E", "545.4", "\t8", "1.3", "65538.9",
         "1cff2b1882a4474053 3f1744db6821214045 0100000000005040 33333333330b8140 0000a84008",
         "01000000000000000000004602002d000540430041170600"},
        {"the last degree of 32 bits", "214748364700,N", "214748364800,W", "-0.0", "255", "0.4",
         "4294967296",
         "0000c0ffffffdf414e 555515000000e04157 010000000000803f 0000000000000080 0000a840ff",
         "000000000000000000000046ffff2d00ffffffff01000000"},
        {"the first degree of 32 bits", "-214748364800,S", "-214748364900,E", "1e-310", "256",
         "1e-45", "65536",
         "000000000000e0c153 555535000000e0c145 0100000002000000 2be6708b68120000 0000a84000",
         "01000000000000000000004600002d000000000000000000"},
        {"beyond all integers", "1e300,S", "-1e300,W", "1e400", "2147483648", "3e38", "4294967295",
         "404acd4cfc7bd97d53 404acd4cfc7bd9fd57 010000000000807f 000000000000f07f 0000a840ff",
         "010000000000000000000046ffff2d00ffffffff00000000"},
        {"not numbers", "nan,N", "-nan,W", "nan", "-2147483649", "inf", "-1",
         "000000000000f87f4e 000000000000f8ff57 010000000000807f 000000000000f87f 0000a84000",
         "000000000000000000000046ffff2d000000000000000000"},
        {"characters above 127", "5130.000,\xCE", "00007.500,\xD7", "\xB2", "\xB9", "\xFF",
         "-4294967296",
         "0000000000c04940ce 000000000000c03fd7 0100000000000000 0000000000000000 0000a84000",
         "000000000000000000000046ffff2d00933e4900c1160000"},
    };
    answer_raw(ecef_poll, std::string(28, '\1'));
    for (const auto &[name, latitude, longitude, altitude, satellites, hdop, lpp_altitude, position,
                      lpp_record] : rows) {
        answer("GPGPQ,GGA", "GPGGA,1," + latitude + "," + longitude + ",1," + satellites + ",0.9," +
                                altitude + ",M,46.9,M,,");
        answer("GPGPQ,GSA", "GPGSA,A,3,04,05,,09,12,,,24,,,,,2.5," + hdop + ",2.1");
        answer("PUBX,00",
               "PUBX,00,081350.00,4717.1,N,00833.9,E,546.589,G3,2.1," + lpp_altitude + ",0.007");
        gps_pos_data pos = {};
        EXPECT_EQ(gps_get_pos(&pos), 0) << name;
        EXPECT_EQ(position_bytes(pos), position) << name;
        gps_lpp_location lpp = {};
        EXPECT_EQ(gps_get_lpp_paramas(&lpp), 0) << name;
        EXPECT_EQ(hex(&lpp, sizeof(lpp)), lpp_record) << name;
    }
}

// What no query asks for.
TEST(convert, guards_and_zeros_behind_the_point) {
    int32_t value = -7;
    for (const char *text : {"", static_cast<const char *>(nullptr)})
        EXPECT_EQ(gps_string_to_number(text, &value, 0, 0), 1u);
    uint32_t dec = 0, frac = 0;
    EXPECT_EQ(gps_str_to_dec_frac_latitude("12.0034", &dec, &frac), 0u);
    EXPECT_EQ(gps_str_to_dec_frac_longitude("1.01", &dec, &frac), 0u); // counts for itself
    EXPECT_EQ(gps_latitude_leading_zeros(), 2u);
    EXPECT_EQ(gps_longitude_leading_zeros(), 1u);
}

using lpp = receiver_fixture;

TEST_F(lpp, ellipse) {
    const std::tuple<const char *, gps_ecef_sample, gps_ecef_sample, uint32_t, uint32_t, int>
        rows[] = {
            // semi-major and semi-minor axis, angle
            {"the same twice: divisions by zero give 0", {5, 6, 7}, {5, 6, 7}, 0, 7, 90},
            {"backwards in x", {10, 5, 40}, {0, 3, 20}, 10, 30, 5},
            {"a ratio of one: the largest length", {0, 0, -10}, {1, 1000, -10}, 500, ~0U, 90},
            {"the limits", {0, INT32_MIN, 0}, {-1, INT32_MAX, INT32_MIN}, 1U << 30, 3U << 30, 0},
        };
    for (const auto &[name, first, second, semi_major, semi_minor, angle] : rows) {
        const gps_lpp_ellipse ellipse = gps_make_lpp_ellipse(first, second);
        EXPECT_EQ(ellipse.semi_major, semi_major) << name;
        EXPECT_EQ(ellipse.semi_minor, semi_minor) << name;
        EXPECT_EQ(ellipse.angle, angle) << name;
    }
}

TEST_F(lpp, is_asked_for_in_this_order) {
    const std::string second = from_hex<std::string>("B5 62 01 01 14 00*5 01 00*3 03 00*3 05 00*9");
    answer_raw(ecef_poll, usual_answers.at(ecef_poll), second);
    const auto sent = serve(208, 2);
    ASSERT_EQ(sent.size(), 1u); // tried no more
    EXPECT_EQ(sent[0].as<gps_lpp_location>().orientation_major_axis, 13);
    EXPECT_EQ(fake::count_logged(6, " cart_x2=1 cart_y2=3 cart_z2=5\n"), 1u);
    const auto commands = peer->commands();
    ASSERT_EQ(commands.size(), 3 + 2 + 3 + 1u); // fix, two samples, second fix, PUBX 00
    EXPECT_EQ(commands[3] + commands[4], ecef_poll + ecef_poll);
    EXPECT_EQ(commands[8], "$PUBX,00*33\r\n");
}

TEST_F(lpp, a_failing_request_208_is_tried_three_times_and_stays_counted) {
    answer("GPGPQ,GGA", "GPGGA,1,,,,,0,00,99.99,,,,,,");
    EXPECT_TRUE(serve(208, 2).empty());
    EXPECT_EQ(pending_req_count, 3);
    EXPECT_EQ(errors("Maximum retry count reached for ls_hal_get_lpp_params"), 1u);
}

} // namespace
