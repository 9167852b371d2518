// The control parameter file: read, completed, survived.
#include "daemon_fixture.h"
#include "gps_main.h"

#include <csignal>
#include <sys/resource.h>
#include <sys/stat.h>
#include <tuple>

namespace {

constexpr char path[] = "user/gps_control_prm.txt";
const std::string wait_line = "RFFE_REQUEST_SEMAPHORE_WAIT_TIME 15\n";
const std::string buffer_line = "GPS_GET_POS_BUFFER_TIME 5.0\n";
const std::string offset_line = "LOCATION_HISTORY_BOOT_TIME_OFFSET 120.0\n";
const std::string defaults = wait_line + buffer_line + offset_line;

using parameters = daemon_fixture;
using values = std::tuple<int32_t, double, double>;

values read_all() {
    return {get_rffe_req_sem_wait_time(), get_gps_pos_buffer_time(), get_loc_hist_offset_time()};
}

TEST_F(parameters, what_a_file_says_counts) {
    const struct {
        const char *name;
        std::string text;
        values expected;
        std::string appended;
    } rows[] = {
        {"complete", defaults, {15, 5, 120}, ""},
        {"a colon makes another word", wait_line.substr(0, 32) + ": 30\n", {15, 5, 120}, defaults},
        {"the last of two counts",
         "GPS_GET_POS_BUFFER_TIME 1\tGPS_GET_POS_BUFFER_TIME\n\n 2.5\n",
         {15, 2.5, 120},
         wait_line + offset_line},
        {"a value that does not parse is the default, and found",
         "RFFE_REQUEST_SEMAPHORE_WAIT_TIME x GPS_GET_POS_BUFFER_TIME\n",
         {15, 5, 120},
         offset_line},
        {"too large for 32 bits",
         "RFFE_REQUEST_SEMAPHORE_WAIT_TIME 99999999999 GPS_GET_POS_BUFFER_TIME 1\n",
         {2147483647, 1, 120},
         offset_line},
        {"a word longer than any key", std::string(500, 'K') + "\n", {15, 5, 120}, defaults},
    };
    for (const auto &r : rows) {
        scratch_dir::write(path, r.text);
        EXPECT_EQ(read_all(), r.expected) << r.name;
        EXPECT_EQ(scratch_dir::read(path), r.text + r.appended) << r.name;
    }
}

TEST_F(parameters, what_cannot_be_read_or_completed_is_logged) {
    scratch_dir::write("elsewhere", "RFFE_REQUEST_SEMAPHORE_WAIT_TIME 1\n");
    std::filesystem::create_directory("user");
    for (const auto &make : {+[] { return mkfifo(path, 0600); }, // nobody writes to it
                             +[] { return symlink("../elsewhere", path); }}) {
        ASSERT_EQ(make(), 0);
        EXPECT_EQ(read_all(), (values{15, 5, 120}));
        EXPECT_EQ(errors("./user/gps_control_prm.txt file open failed\n"), 3u);
        std::filesystem::remove(path);
        fake::reset_log();
    }
    signal(SIGXFSZ, SIG_IGN);
    const rlimit full = {.rlim_cur = 0, .rlim_max = RLIM_INFINITY};
    rlimit before = {};
    getrlimit(RLIMIT_FSIZE, &before);
    setrlimit(RLIMIT_FSIZE, &full);
    EXPECT_EQ(read_all(), (values{15, 5, 120}));
    setrlimit(RLIMIT_FSIZE, &before);
    EXPECT_EQ(errors("GPS_GET_POS_BUFFER_TIME could not be added: File too large"), 1u);
}

} // namespace
