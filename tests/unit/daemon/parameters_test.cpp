// The control parameter file: read, completed, survived.
#include "fake_platform.h"
#include "gps_main.h"
#include "scratch_dir.h"

#include <gtest/gtest.h>

namespace {

constexpr char path[] = "user/gps_control_prm.txt";
constexpr char defaults[] = "RFFE_REQUEST_SEMAPHORE_WAIT_TIME 15\n"
                            "GPS_GET_POS_BUFFER_TIME 5.0\n"
                            "LOCATION_HISTORY_BOOT_TIME_OFFSET 120.0\n";

struct values {
    int32_t wait;
    double buffer, offset;
    bool operator==(const values &) const = default;
};

values read_all() {
    const int32_t wait = get_rffe_req_sem_wait_time();
    const double buffer = get_gps_pos_buffer_time();
    return {.wait = wait, .buffer = buffer, .offset = get_loc_hist_offset_time()};
}

class parameters : public testing::Test {
  protected:
    void SetUp() override { fake::reset(); }

    scratch_dir dir;
};

TEST_F(parameters, a_missing_file_is_written_in_the_order_of_reading) {
    std::filesystem::create_directory("user");
    EXPECT_EQ(read_all(), (values{15, 5.0, 120.0}));
    EXPECT_EQ(scratch_dir::read(path), defaults);
    EXPECT_EQ(fake::count_logged(6, "get_rffe_req_sem_wait_time: rffe_req_sem_wait_time = 15\n"),
              1u);
    EXPECT_EQ(
        fake::count_logged(6, "get_gps_pos_buffer_time: gps_get_pos buffer time = 5.000000\n"), 1u);
    EXPECT_EQ(fake::count_logged(6, "reading value from file"), 0u);
    EXPECT_EQ(read_all(), (values{15, 5.0, 120.0}));
    EXPECT_EQ(scratch_dir::read(path), defaults); // complete: nothing is added
}

TEST_F(parameters, what_a_file_says_counts) {
    const std::string wait_line = "RFFE_REQUEST_SEMAPHORE_WAIT_TIME 15\n";
    const std::string buffer_line = "GPS_GET_POS_BUFFER_TIME 5.0\n";
    const std::string offset_line = "LOCATION_HISTORY_BOOT_TIME_OFFSET 120.0\n";
    struct row {
        const char *name;
        std::string text;
        values expected;
        std::string appended;
    };
    const row rows[] = {
        {"one key", "GPS_GET_POS_BUFFER_TIME 2.5\n", {15, 2.5, 120.0}, wait_line + offset_line},
        {"a colon makes another word",
         "RFFE_REQUEST_SEMAPHORE_WAIT_TIME: 30\n",
         {15, 5.0, 120.0},
         defaults},
        {"the last of two counts",
         "GPS_GET_POS_BUFFER_TIME 1\tGPS_GET_POS_BUFFER_TIME\n\n 2\n",
         {15, 2.0, 120.0},
         wait_line + offset_line},
        {"negative and zero",
         "RFFE_REQUEST_SEMAPHORE_WAIT_TIME -3 GPS_GET_POS_BUFFER_TIME 0\n",
         {-3, 0.0, 120.0},
         offset_line},
        {"a value that does not parse is the default, and found",
         "RFFE_REQUEST_SEMAPHORE_WAIT_TIME x GPS_GET_POS_BUFFER_TIME\n",
         {15, 5.0, 120.0},
         offset_line},
        {"too large for 32 bits",
         "RFFE_REQUEST_SEMAPHORE_WAIT_TIME 99999999999 GPS_GET_POS_BUFFER_TIME 1\n",
         {2147483647, 1.0, 120.0},
         offset_line},
        {"a word longer than any key", std::string(500, 'K') + "\n", {15, 5.0, 120.0}, defaults},
    };
    for (const row &r : rows) {
        scratch_dir::write(path, r.text);
        EXPECT_EQ(read_all(), r.expected) << r.name;
        EXPECT_EQ(scratch_dir::read(path), r.text + r.appended) << r.name;
    }
    EXPECT_EQ(fake::count_logged(
                  6, "get_gps_pos_buffer_time: reading value from file, buffer_time = 2.500000"),
              1u);
}

TEST_F(parameters, without_a_directory_the_defaults_serve) {
    EXPECT_EQ(read_all(), (values{15, 5.0, 120.0}));
    EXPECT_EQ(fake::count_logged(3, "./user/gps_control_prm.txt file open failed\n"), 3u);
}

} // namespace
