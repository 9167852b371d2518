// Satellites, speed and engineering commands, from literal answers.
#include "gps_message_handler.h"
#include "gps_service.h"
#include "receiver_fixture.h"

namespace {

class satellites : public receiver_fixture {
  protected:
    void SetUp() override {
        receiver_fixture::SetUp();
        answer("GPGPQ,GSA", "GPGSA,A,3,04,05,,33,12,,,32,,,00,65,2.5,1.3,2.1");
        answer("GPGPQ,ZDA", "GPZDA,235959.00,31,12,2019,00,00");
    }

    // A whole GSV answer of several sentences.
    void sky(const std::vector<std::string> &bodies) {
        std::string text;
        for (const std::string &body : bodies)
            text += nmea(body);
        answer_raw("GPGPQ,GSV", text);
        sky_size = text.size();
    }

    size_t sky_size = 0; // bytes of the GSV answer
    gps_sat_info info = {};
};

using prns = std::array<uint8_t, GPS_SAT_SLOTS>;

prns array_of(const uint8_t (&values)[GPS_SAT_SLOTS]) {
    return std::to_array(values);
}

TEST_F(satellites, eleven_in_view_fill_eleven_entries) {
    sky({"GPGSV,3,1,11,01,,,40,02,,,,03,,,30,04,,,31",
         "GPGSV,3,2,11,05,1,2,41,06,,,42,07,,,43,08,,,44", "GPGSV,3,3,11,09,,,45,10,,,46,11,,,47"});
    EXPECT_EQ(gps_get_sat_info(&info), 0);
    EXPECT_EQ(info.num_sat_in_view, 11);
    EXPECT_EQ(array_of(info.sat_prn), (prns{1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 0}));
    EXPECT_EQ(array_of(info.sat_snr), (prns{40, 0, 30, 31, 41, 42, 43, 44, 45, 46, 47, 0}));
    // Slots keep their place; 33 and above and 0 do not count.
    EXPECT_EQ(array_of(info.sat_used_prn), (prns{4, 5, 0, 0, 12, 0, 0, 32, 0, 0, 0, 0}));
    EXPECT_EQ(info.num_sat_usable, 4);
    EXPECT_EQ(info.time.year, 2019);
}

TEST_F(satellites, announced_counts_never_lead_past_an_array) {
    struct row {
        const char *name;
        std::vector<std::string> bodies;
        int32_t result;
        int in_view;
    };
    const std::string four = ",1,,,1,2,,,2,3,,,3,4,,,4";
    const row rows[] = {
        {"none", {"GPGSV,1,1,00"}, 0, 0},
        {"one", {"GPGSV,1,1,01,9,,,9"}, 0, 1},
        {"a count without satellites", {"GPGSV,1,1,02,9,,,9"}, 1, 2},
        {"five in one sentence", {"GPGSV,1,1,05" + four}, 0, 5},
        {"twelve", {"GPGSV,3,1,12" + four, "GPGSV,3,2,12" + four, "GPGSV,3,3,12" + four}, 0, 12},
        {"thirteen",
         {"GPGSV,4,1,13" + four, "GPGSV,4,2,13" + four, "GPGSV,4,3,13" + four, "GPGSV,4,4,13,9"},
         0,
         12},
        {"two hundred, sentence 11 of 99",
         {"GPGSV,99,11,200" + four, "GPGSV,99,12,200" + four, "GPGSV,99,13,200" + four,
          "GPGSV,99,14,200" + four},
         0,
         12},
        {"sentences missing", {"GPGSV,3,1,12" + four, "GPGSV,3,2,12" + four}, 1, 0},
        {"256 sentences are none", {"GPGSV,256,1,04" + four}, 0, 4},
        {"out of order", {"GPGSV,2,2,05,5,,,5", "GPGSV,2,1,05" + four}, 1, 5},
    };
    for (const row &r : rows) {
        sky(r.bodies);
        info = {};
        EXPECT_EQ(gps_get_sat_info(&info), r.result) << r.name;
        EXPECT_EQ(info.num_sat_in_view, r.in_view) << r.name;
    }
}

TEST_F(satellites, an_answer_cut_by_the_line_fails_and_leaves_the_next_query_alone) {
    const std::string full = ",01,06,336,17,08,05,281,25,10,51,291,39,16,70,279,37";
    sky({"GPGSV,3,1,12" + full, "GPGSV,3,2,12" + full, "GPGSV,3,3,12" + full});
    ASSERT_GT(sky_size, GPS_UART_ANSWER_MAX);
    EXPECT_EQ(gps_get_sat_info(&info), 1);
    EXPECT_EQ(fake::count_logged(3, "Failed To extract NMEA msg \n"), 1u);
    gps_time_fields time = {};
    EXPECT_EQ(gps_get_time(&time), 0);
    EXPECT_EQ(time.year, 2019);
}

TEST_F(satellites, wrong_sentences) {
    sky({"GPGSA,1,1,00"});
    EXPECT_EQ(gps_get_sat_info(&info), 1);
    EXPECT_EQ(fake::count_logged(3, "ERROR: Incorrect Response message was read back \n"), 1u);
    sky({"GPGSV,1,1,00"});
    answer("GPGPQ,GSA", "GPGSV,1,1,00");
    EXPECT_EQ(gps_get_sat_info(&info), 1);
    EXPECT_EQ(fake::count_logged(3, "gps_get_sat_info: Incorrect token found\n"), 1u);
    EXPECT_EQ(gps_get_sat_info(nullptr), 1);
}

TEST_F(satellites, speed_is_two_integers) {
    struct row {
        const char *field;
        int32_t result;
        int whole, frac;
    };
    for (const row &r : {row{"0.0", 0, 0, 0}, row{"36.42", 0, 36, 42}, row{"12.05", 0, 12, 5},
                         row{"300.5", 0, 44, 5}, row{"", 1, 0, 0}}) {
        answer("GPGPQ,VTG", std::string("GPVTG,77.52,T,,M,0.004,N,") + r.field + ",K,A");
        gps_speed_data speed = {};
        EXPECT_EQ(gps_get_speed(&speed), r.result) << r.field;
        EXPECT_EQ(speed.speed_int, r.whole) << r.field;
        EXPECT_EQ(speed.speed_frac, r.frac) << r.field;
    }
    EXPECT_EQ(fake::count_logged(3, "gps_get_speed: Failed to get token\n"), 1u);
    answer("GPGPQ,VTG", "GPVTG,,T,,M,0.004,N,1.0,K,A");
    answer("GPGPQ,ZDA", "GPZDA,,,,,00,00");
    gps_speed_data speed = {};
    EXPECT_EQ(gps_get_speed(&speed), 1);
    EXPECT_EQ(fake::count_logged(3, "gps_get_speed: Failed To get time: 1 \n"), 1u);
    EXPECT_EQ(gps_get_speed(nullptr), 1);
}

ls_engg_cmd command(const std::string &text) {
    ls_engg_cmd record = {};
    text.copy(record.command, sizeof(record.command));
    memset(record.answer, 'x', sizeof(record.answer));
    return record;
}

TEST_F(satellites, nmea_commands_pass_through_raw) {
    answer_raw("PUBX,00", "anything, even \x01 this");
    ls_engg_cmd record = command("PUBX,00");
    EXPECT_EQ(gps_engg_exec_nmea(&record), 0);
    EXPECT_STREQ(reinterpret_cast<const char *>(record.answer), "anything, even \x01 this");
    EXPECT_EQ(record.answer[199], 0);
    EXPECT_EQ(peer->commands().back(), "$PUBX,00*33\r\n");

    answer_raw(std::string(80, 'A'),
               std::string(205, 'b')); // a text without NUL, an answer too long
    record = command(std::string(80, 'A'));
    EXPECT_EQ(gps_engg_exec_nmea(&record), 0);
    EXPECT_EQ(std::string(reinterpret_cast<const char *>(record.answer), 200),
              std::string(200, 'b'));
}

TEST_F(satellites, ubx_commands_get_their_checksum) {
    const std::string poll("\xB5\x62\x06\x08\x00\x00\x0E\x30", 8);
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
    EXPECT_EQ(fake::count_logged(3, "gps_engg_exec_ubx: failed to get GPS data"), 4u);
}

TEST_F(satellites, replies_have_their_sizes_and_short_commands_are_refused) {
    answer_raw("PUBX,00", "answer");
    std::vector<uint8_t> whole(284);
    memcpy(whole.data() + 4, "PUBX,00", 7);
    struct row {
        uint32_t id;
        std::vector<uint8_t> payload;
        size_t size;
        uint32_t status;
    };
    sky({"GPGSV,1,1,01,9,,,9"});
    answer("GPGPQ,VTG", "GPVTG,,T,,M,0.004,N,1.0,K,A");
    for (const row &r : {row{1005, {}, 52, 1}, row{1006, {}, 16, 1}, row{1011, whole, 284, 1},
                         row{1011, std::vector<uint8_t>(283), 284, 0}, row{1012, {}, 284, 0}}) {
        fake::reset();
        std::vector<uint8_t> payload = r.payload;
        bus_msg msg = fake::make_message(0, r.id, 40, payload);
        EXPECT_EQ(ls_hal_process_message(fake::connection(), &msg), 0);
        const auto sent = fake::wait_for_sent(1);
        ASSERT_EQ(sent.size(), 1u);
        EXPECT_EQ(sent[0].hdr.msg_id, r.id);
        ASSERT_EQ(sent[0].payload.size(), r.size);
        EXPECT_EQ(sent[0].payload[0], r.status) << r.id;
        EXPECT_TRUE(fake::wait_for_votes_returned());
    }
    EXPECT_EQ(fake::count_logged(3, "ls_hal_exec_ubx_cmd: gps_engg_exec_ubx failed\n"), 1u);
}

} // namespace
