// The history: lines, ring, export, damaged files, settings and acquisition.
#include "fake_platform.h"
#include "gps_history.h"
#include "gps_message_handler.h"
#include "gps_service.h"
#include "ls_state.h"
#include "scratch_dir.h"

#include <gtest/gtest.h>

namespace {

constexpr char ring[] = "user/location/location_history";
constexpr char text[] = "user/location/location_history.txt";

std::string header(uint32_t wrap, uint32_t write) {
    std::string bytes(8, '\0');
    memcpy(bytes.data(), &wrap, 4);
    memcpy(bytes.data() + 4, &write, 4);
    return bytes;
}

class history : public testing::Test {
  protected:
    void SetUp() override {
        fake::reset();
        std::filesystem::create_directories("user/location");
        ls_hal_metadata_default();
        ls_hal_write_metadata_to_file();
    }
    void TearDown() override {
        ls_hal_deinit_gps_history();
        ls_history_file_close();
    }

    static std::string exported() {
        EXPECT_EQ(ls_hal_read_history_data(), 0);
        return scratch_dir::read(text);
    }

    scratch_dir dir;
};

gps_pos_data fix() {
    gps_pos_data pos = {};
    pos.latitude = 70.132317;
    pos.lat_dir = 'N';
    pos.longitude = 11.516667;
    pos.lon_dir = 'E';
    pos.fix_type = 1;
    pos.horizontal_accuracy = 2.25F;
    pos.num_satellites = 8;
    return pos;
}

std::string behind_the_date(const gps_pos_data &pos) {
    ls_history_line line = {};
    ls_position_to_string(&pos, &line);
    EXPECT_EQ(line[4], '-');
    EXPECT_EQ(line[10], ' ');
    EXPECT_EQ(line[19], ',');
    return std::string(line.data()).substr(20);
}

TEST_F(history, lines) {
    gps_pos_data pos = fix();
    EXPECT_EQ(behind_the_date(pos), "2D,70.132317N,11.516667E,+2.25m,08\n");
    pos.fix_type = 0;
    EXPECT_EQ(behind_the_date(pos), "2D,70.132317N,11.516667E,+2.25m,08\n");
    pos.fix_type = 2;
    pos.lat_dir = pos.lon_dir = '\0';
    pos.horizontal_accuracy = -1.0F;
    pos.num_satellites = 12;
    EXPECT_EQ(behind_the_date(pos), "ER,70.132317X,11.516667Y,-1.00m,12\n");
    pos.fix_type = 5;
    EXPECT_EQ(behind_the_date(pos), "70.132317X,11.516667Y,-1.00m,12\n");
    pos.latitude = pos.longitude = 1e300; // cut, but a line
    EXPECT_EQ(behind_the_date(pos).size(), LS_HISTORY_LINE_SIZE - 1 - 20);
    EXPECT_EQ(behind_the_date(pos).back(), '\n');
}

TEST_F(history, lines_accumulate_behind_the_header) {
    EXPECT_EQ(exported(), "");
    EXPECT_EQ(ls_write_to_file("one\n"), 0);
    EXPECT_EQ(ls_write_to_file("two\n"), 0);
    EXPECT_EQ(scratch_dir::read(ring), header(8, 16) + "one\ntwo\n");
    EXPECT_EQ(exported(), "one\ntwo\n");
}

TEST_F(history, the_last_byte_is_used_and_one_more_wraps) {
    const std::string old(LS_HISTORY_FILE_SIZE - 8 - 4, 'o');
    scratch_dir::write(ring, header(8, LS_HISTORY_FILE_SIZE - 4) + old);
    EXPECT_EQ(ls_write_to_file("end\n"), 0);
    EXPECT_EQ(std::filesystem::file_size(ring), LS_HISTORY_FILE_SIZE);
    EXPECT_EQ(scratch_dir::read(ring).substr(0, 8), header(8, LS_HISTORY_FILE_SIZE));
    EXPECT_EQ(ls_write_to_file("first\n"), 0);
    EXPECT_EQ(ls_write_to_file("second\n"), 0);
    EXPECT_EQ(std::filesystem::file_size(ring), LS_HISTORY_FILE_SIZE);
    EXPECT_EQ(scratch_dir::read(ring).substr(0, 21), header(21, 21) + "first\nsecond\n");
    EXPECT_EQ(exported(), old.substr(13) + "end\nfirst\nsecond\n");
}

TEST_F(history, files_from_elsewhere_are_refused_until_start_up_makes_them_usable) {
    struct row {
        const char *name;
        std::string content;
    };
    const row rows[] = {
        {"empty", ""},
        {"seven bytes", std::string("\x08\0\0\0\x08\0\0", 7)},
        {"zeros", std::string(4096, '\0')},
        {"writes outside", header(8, 13) + "one\n"},
        {"wraps outside", header(3'000'000, 8) + "one\n"},
        {"into the header", header(4, 8) + "one\n"},
        {"text", "2019-02-05 10:51:05,2D,70.132317N,11.516667E,+2.25m,08\n"},
    };
    for (const row &r : rows) {
        fake::reset();
        scratch_dir::write(ring, r.content);
        EXPECT_EQ(ls_write_to_file("one\n"), -1) << r.name;
        EXPECT_EQ(ls_hal_read_history_data(), -1) << r.name;
        EXPECT_EQ(fake::count_logged(3, "read_metadata_from_file failed\n"), 2u) << r.name;
        EXPECT_EQ(ls_hal_init_gps_history(), 0) << r.name;
        EXPECT_EQ(ls_write_to_file("new\n"), 0) << r.name;
        EXPECT_EQ(exported().substr(0, 4), "new\n") << r.name;
    }
    scratch_dir::write(ring, header(8, 12) + "one\n");
    EXPECT_EQ(ls_hal_init_gps_history(), 0); // a good one is left alone
    EXPECT_EQ(exported(), "one\n");
}

TEST_F(history, without_a_directory_everything_fails_quietly) {
    std::filesystem::remove_all("user");
    EXPECT_EQ(ls_write_to_file("one\n"), -1);
    EXPECT_EQ(ls_hal_read_history_data(), -1);
    EXPECT_EQ(ls_hal_init_gps_history(), -1);
    EXPECT_EQ(fake::count_logged(3, "LH: Error writing metadata to file!\n"), 1u);
    SetUp();
    EXPECT_EQ(ls_write_to_file("one\n"), 0); // and goes on by itself
}

TEST_F(history, an_export_that_cannot_be_written_says_so) {
    EXPECT_EQ(ls_write_to_file("one\n"), 0);
    std::filesystem::create_directory(text);
    EXPECT_EQ(ls_hal_read_history_data(), -1);
    EXPECT_EQ(fake::count_logged(3, "LH: ls_hal_read_history_data, file open error: 21\n"), 1u);
    std::filesystem::remove(text);
    std::filesystem::create_symlink("/dev/full", text);
    EXPECT_EQ(ls_hal_read_history_data(), 255);
    EXPECT_EQ(fake::count_logged(3, "LH: ls_hal_read_history_data, file write error: 28\n"), 1u);
    // The first failure left the history file open.
    EXPECT_EQ(fake::count_logged(7, "LH: ls_history_file_open, file already open!\n"), 1u);
}

TEST_F(history, request_1013_names_the_export) {
    EXPECT_EQ(ls_write_to_file("one\n"), 0);
    std::vector<uint8_t> none;
    bus_msg msg = fake::make_message(0, 1013, 40, none);
    EXPECT_EQ(ls_hal_process_message(fake::connection(), &msg), 0);
    const auto sent = fake::wait_for_sent(1);
    EXPECT_TRUE(fake::wait_for_votes_returned());
    ASSERT_EQ(sent[0].payload.size(), 104u);
    EXPECT_EQ(sent[0].as<ls_history_path_reply>().status, 0u);
    EXPECT_STREQ(sent[0].as<ls_history_path_reply>().path, "/user/location/location_history.txt");
    EXPECT_EQ(scratch_dir::read(text), "one\n");
}

TEST_F(history, settings_start_restart_and_stop_the_timer) {
    fake::database().history = {.status = 1, .interval = 30};
    gps_current_power_mode_g = 0;
    EXPECT_EQ(ls_hal_init_gps_history(), 0);
    EXPECT_EQ(fake::timers_started(), 0); // the receiver is off
    gps_current_power_mode_g = 2;
    EXPECT_EQ(ls_hal_init_gps_history(), 0);
    EXPECT_EQ(fake::timer_interval(1), 30u);
    EXPECT_EQ(ls_hal_history_config(), 0);
    EXPECT_EQ(fake::timer_interval(1), 0u);
    EXPECT_EQ(fake::timer_interval(2), 30u);
    mt_gps_status = 0; // on in the settings, but the receiver is not to stay on
    EXPECT_EQ(ls_hal_history_config(), 0);
    EXPECT_EQ(fake::timer_interval(2), 0u);
    EXPECT_EQ(ls_hal_history_config(), 1);
    EXPECT_EQ(fake::count_logged(3, "LH: ls_hal_history_config, Invalid location_history_status\n"),
              1u);
    mt_gps_status = 2;
    fake::database().history.status = 7;
    EXPECT_EQ(ls_hal_history_config(), 1);
    fake::database().fail = true;
    EXPECT_EQ(ls_hal_history_config(), 1);
    EXPECT_EQ(ls_hal_init_gps_history(), -1);
    EXPECT_EQ(ls_hal_deinit_gps_history(), -1);
    EXPECT_EQ(fake::count_logged(3, "ls_hal_deinit_gps_history: g_timer_id found 0"), 1u);
}

TEST_F(history, a_timer_that_cannot_be_deleted) {
    fake::database().history = {.status = 1, .interval = 30};
    EXPECT_EQ(ls_hal_history_config(), 0);
    fake::fail_timer_deletion(true);
    fake::database().history.status = 0;
    EXPECT_EQ(ls_hal_history_config(), -1); // kept, and tried again
    EXPECT_EQ(ls_hal_deinit_gps_history(), -1);
    fake::database().history.status = 1;
    EXPECT_EQ(ls_hal_history_config(), -1); // forgotten
    EXPECT_EQ(fake::count_logged(3, "failed to delete timertimer_ret_sta = -1 \n"), 3u);
    EXPECT_EQ(ls_hal_history_config(), 0);
    EXPECT_EQ(fake::timers_started(), 2);
    fake::fail_timer_deletion(false);
}

TEST_F(history, notification_808_and_request_1002_apply_the_settings) {
    fake::database().history = {.status = 1, .interval = 30};
    std::vector<uint8_t> none;
    bus_msg update = fake::make_message(2, 808, 6, none);
    EXPECT_EQ(ls_hal_process_message(fake::connection(), &update), 0);
    EXPECT_EQ(fake::timers_started(), 1);
    std::vector<uint8_t> on = {2, 0, 0, 0};
    bus_msg set_power = fake::make_message(0, 1002, 40, on);
    EXPECT_EQ(ls_hal_process_message(fake::connection(), &set_power), 0);
    EXPECT_TRUE(fake::wait_for_votes_returned());
    EXPECT_EQ(fake::timers_started(), 2);
}

// In the order of a life: the boot offset counts until the first acquisition, then never again.
TEST_F(history, acquisition) {
    gps_board_type_g = 2;
    clock_gettime(CLOCK_MONOTONIC, &ls_start_time);
    EXPECT_EQ(ls_history_periodic_timer_handler(nullptr), 0);
    EXPECT_EQ(fake::count_logged(6, "Ignoring location history acquisition\n"), 1u);
    EXPECT_EQ(exported(), "");

    loc_hist_offset_time = 0;
    stub_location_on_g = 1;
    const std::string place = "5130.000,N,00007.500,W\n";
    for (size_t i = 0; i < place.size(); ++i)
        ls_stub_location_buf[i] = place[i];
    EXPECT_EQ(ls_history_periodic_timer_handler(nullptr), 0);
    const std::string line = exported();
    ASSERT_EQ(line.size(), 20 + strlen("2D,51.500000N,0.125000W,+3.25m,08\n"));
    EXPECT_EQ(line.substr(20), "2D,51.500000N,0.125000W,+3.25m,08\n");

    loc_hist_offset_time = 1e9;
    EXPECT_EQ(ls_history_periodic_timer_handler(nullptr), 0); // the young position again
    EXPECT_EQ(
        fake::count_logged(6, "ls_history_periodic_timer_handler: Sending buffered position data"),
        1u);
    EXPECT_EQ(exported().size(), 2 * line.size());
    gps_get_pos(nullptr);
    EXPECT_EQ(ls_history_periodic_timer_handler(nullptr), 0); // a failure is no line
    EXPECT_EQ(fake::count_logged(7, "LH: Invalid GPS Position Data!\n"), 1u);
    EXPECT_EQ(exported().size(), 2 * line.size());
    EXPECT_EQ(pending_req_count, 0);
}

} // namespace
