// Satellites, speed and engineering commands, from literal answers.
#include "daemon_fixture.h"
#include "gps_service.h"

namespace {

class satellites : public receiver_fixture {
  protected:
    // Asks for the satellites, into a record of a query before; a whole GSV answer of several
    // sentences.
    int32_t query(const std::vector<std::string> &bodies) {
        std::string text;
        for (const std::string &body : bodies)
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
    EXPECT_EQ(info.time.year, 2019);
}

TEST_F(satellites, announced_counts_never_lead_past_an_array) {
    const std::string four = ",1,,,1,2,,,2,3,,,3,4,,,4";
    const struct {
        const char *name;
        std::vector<std::string> bodies;
        int32_t result;
        int in_view;
    } rows[] = {
        {"none", {"GPGSV,1,1,00"}, 0, 0},
        {"a count without satellites", {"GPGSV,1,1,02,9,,,9"}, 1, 2},
        {"five in one sentence", {"GPGSV,1,1,05" + four}, 0, 5},
        {"thirteen",
         {"GPGSV,4,1,13" + four, "GPGSV,4,2,13" + four, "GPGSV,4,3,13" + four, "GPGSV,4,4,13,9"},
         0,
         12},
        {"two hundred, sentence 11 of 99",
         {"GPGSV,99,11,200" + four, "GPGSV,99,12,200" + four, "GPGSV,99,13,200" + four,
          "GPGSV,99,14,200" + four},
         0,
         12},
        {"sentences missing", {"GPGSV,3,1,12" + four, "GPGSV,3,2,12" + four}, 1, BEFORE},
        {"a wrong checksum", {"GPGSV,1,1,00*00"}, 1, BEFORE},
        {"no type", {",1,1,00"}, 1, BEFORE},
        {"another type", {"GPGSA,1,1,00"}, 1, BEFORE},
        {"no number of sentences", {"GPGSV,,1,04" + four}, 1, BEFORE},
        {"no number of satellites", {"GPGSV,1,1," + four}, 1, BEFORE},
        {"out of order", {"GPGSV,2,2,05,5,,,5", "GPGSV,2,1,05" + four}, 1, 5},
    };
    for (const auto &r : rows) {
        EXPECT_EQ(query(r.bodies), r.result) << r.name;
        EXPECT_EQ(info.num_sat_in_view, r.in_view) << r.name;
    }
}

TEST_F(satellites, an_answer_cut_by_the_line_fails_and_leaves_the_next_query_alone) {
    const std::string full =
        ",01,06,336,17,08,05,281,25,10,51,291,39,16,70,279,37"; // 68 a sentence
    EXPECT_EQ(query({"GPGSV,3,1,12" + full, "GPGSV,3,2,12" + full, "GPGSV,3,3,12" + full}), 1);
    EXPECT_EQ(errors("Failed To extract NMEA msg \n"), 1u);
    gps_time_fields time = {};
    EXPECT_EQ(gps_get_time(&time), 0);
    EXPECT_EQ(time.year, 2019);
}

TEST_F(satellites, speed_is_two_integers) {
    const struct {
        const char *type, *field;
        int32_t result;
        int whole, frac;
    } rows[] = {
        {"GPVTG", "12.05", 0, 12, 5},
        {"GNVTGX", "300.5", 0, 44, 5}, // a field 0 of another length is not checked
        {"GPVTG", "", 1, 0, 0},
    };
    for (const auto &r : rows) {
        answer("GPGPQ,VTG", r.type + ",77.52,T,,M,0.004,N,"s + r.field + ",K,A");
        gps_speed_data speed = {};
        EXPECT_EQ(gps_get_speed(&speed), r.result) << r.field;
        EXPECT_EQ(speed.speed_int, r.whole) << r.field;
        EXPECT_EQ(speed.speed_frac, r.frac) << r.field;
    }
}

ls_engg_cmd command(const std::string &text) {
    ls_engg_cmd record = {};
    text.copy(record.command, sizeof(record.command));
    memset(record.answer, 'x', sizeof(record.answer));
    return record;
}

TEST_F(satellites, nmea_answers_are_cut_to_the_record) {
    const std::string longest(80, 'A'); // a text without NUL
    answer_raw(longest, std::string(205, 'b'));
    ls_engg_cmd record = command(longest);
    EXPECT_EQ(gps_engg_exec_nmea(&record), 0);
    EXPECT_EQ(std::string(std::begin(record.answer), std::end(record.answer)),
              std::string(200, 'b'));
}

TEST_F(satellites, ubx_commands_get_their_checksum) {
    const std::string poll = "\xB5\x62\x06\x08\x00\x00\x0E\x30"s;
    answer_raw(poll, std::string(150, 'a'));
    for (const char *text : {"B5,62,06,08,00,00,00,00", "1b5, 0x62,6,8,0,0,ff,ff,",
                             "12345678b5,62,06,08,00,00,00,00"}) {
        ls_engg_cmd record = command(text);
        EXPECT_EQ(gps_engg_exec_ubx(&record), 0);
        EXPECT_EQ(peer->commands().back(), poll);
        EXPECT_EQ(record.answer[79], 'a');
        EXPECT_EQ(record.answer[80], 'x'); // a fixed count is copied
    }
    for (const char *text : {"", "B5", "B5,62,06", "B5,62,06,08,FF,FF,00,00"}) {
        ls_engg_cmd record = command(text);
        EXPECT_EQ(gps_engg_exec_ubx(&record), 1) << text;
    }
    EXPECT_EQ(peer->commands().size(), 3u);
}

TEST_F(satellites, a_short_command_is_completed_and_one_that_was_cut_is_refused) {
    answer_raw("PUBX,04", "raw");
    const bytes shortest = {0, 0, 0, 0, 'P', 'U', 'B', 'X', ',', '0', '4'};
    const auto reply = serve(1011, 40, shortest).at(0).as<ls_engg_cmd>();
    EXPECT_EQ(reply.status, 1u);
    EXPECT_EQ(std::string(reply.answer, reply.answer + 4), "raw\0"s);

    bytes cut(284, 'B'); // as much text as fits, and no NUL
    EXPECT_EQ(serve(1012, 40, cut).at(0).as<ls_engg_cmd>().status, 0u);
    EXPECT_EQ(serve(1012).at(0).payload, bytes(284));
    EXPECT_EQ(peer->commands().size(), 1u);
}

} // namespace
