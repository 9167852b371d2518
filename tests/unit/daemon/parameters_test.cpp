// The files that people write: the control parameters, and the static location.
#include "daemon_fixture.h"
#include "gps_main.h"

#include <csignal>
#include <sys/resource.h>
#include <sys/stat.h>

namespace {

constexpr char control_path[] = "user/gps_control_prm.txt";
const std::string wait_line = "RFFE_REQUEST_SEMAPHORE_WAIT_TIME 15\n";
const std::string offset_line = "LOCATION_HISTORY_BOOT_TIME_OFFSET 120.0\n";
const std::string defaults = wait_line + "GPS_GET_POS_BUFFER_TIME 5.0\n" + offset_line;

using parameters = daemon_fixture;
using values = std::tuple<int32_t, double, double>;

values read_all() {
    return {get_rffe_req_sem_wait_time(), get_gps_pos_buffer_time(), get_loc_hist_offset_time()};
}

TEST_F(parameters, what_a_file_says_counts) {
    // Name, text, what it says, what is appended.
    const std::tuple<const char *, std::string, values, std::string> rows[] = {
        {"a colon makes another word", wait_line.substr(0, 32) + ": 30\n", {15, 5, 120}, defaults},
        {"the last of two counts",
         "GPS_GET_POS_BUFFER_TIME 1\tGPS_GET_POS_BUFFER_TIME\n\n 2.5\n" +
             offset_line.substr(0, 33) + " 7.5\n",
         {15, 2.5, 7.5},
         wait_line},
        {"a value that does not parse is the default, and found; one too large for 32 bits",
         "GPS_GET_POS_BUFFER_TIME x RFFE_REQUEST_SEMAPHORE_WAIT_TIME 99999999999\n",
         {2147483647, 5, 120},
         offset_line},
        {"a word longer than any key", std::string(500, 'K') + "\n", {15, 5, 120}, defaults},
    };
    for (const auto &[name, text, expected, appended] : rows) {
        scratch_dir::write(control_path, text);
        EXPECT_EQ(read_all(), expected) << name;
        EXPECT_EQ(scratch_dir::read(control_path), text + appended) << name;
    }
}

TEST_F(parameters, what_cannot_be_read_or_completed_is_logged) {
    scratch_dir::write("user/elsewhere", "RFFE_REQUEST_SEMAPHORE_WAIT_TIME 1\n");
    for (const bool is_link : {false, true}) { // the other one: nobody writes to it
        ASSERT_EQ(is_link ? symlink("elsewhere", control_path) : mkfifo(control_path, 0600), 0);
        EXPECT_EQ(read_all(), (values{15, 5, 120}));
        EXPECT_EQ(errors("./user/gps_control_prm.txt file open failed\n"), is_link ? 6u : 3u);
        std::filesystem::remove(control_path);
    }
    signal(SIGXFSZ, SIG_IGN);
    rlimit before = {};
    getrlimit(RLIMIT_FSIZE, &before);
    const rlimit full = {.rlim_cur = 0, .rlim_max = before.rlim_max};
    setrlimit(RLIMIT_FSIZE, &full);
    EXPECT_EQ(read_all(), (values{15, 5, 120}));
    setrlimit(RLIMIT_FSIZE, &before);
    EXPECT_EQ(errors("GPS_GET_POS_BUFFER_TIME could not be added: File too large"), 1u);
}

using static_location = daemon_fixture;

TEST_F(static_location, the_first_21_bytes_switch_it) {
    constexpr char path[] = "user/stub_location/stub_loc.gps";
    const std::string place = "5130.000,N,00007.500,W\n", off(23, '\0');
    const auto &text = ls_stub_location_buf;
    const std::tuple<const char *, std::string, int, std::string> rows[] = {
        {"behind a NUL", "stub\0location  = ON\n\n"s + place, 1, place},
        {"one byte too far", "123456789012345678= ON" + place, 0, off},
        {"text cut", "stub_location   = ON\n5", 1, "5" + std::string(22, '\0')},
        {"off", "stub_location   = OFF" + place, 0, off},
        {"short", "= ON", 1, off},
        {"on in the last place", "12345678901234567= ON" + place, 1, place},
    };
    for (const auto &[name, content, on, expected] : rows) {
        scratch_dir::write(path, content);
        EXPECT_EQ(ls_read_stub_location(), 0) << name;
        EXPECT_EQ(stub_location_on_g, on) << name;
        EXPECT_EQ(std::string(text.begin(), text.end()), expected) << name;
    }
    std::filesystem::remove(path); // clears the text, keeps the switch
    EXPECT_EQ(ls_read_stub_location(), -1);
    EXPECT_EQ(stub_location_on_g, 1);
    EXPECT_EQ(std::string(text.begin(), text.end()), off);
    ASSERT_EQ(mkfifo(path, 0600), 0); // does not hold the handler up
    EXPECT_EQ(ls_read_stub_location(), -1);
}

} // namespace
