// The rate limit of the drop log on a stepped clock.

#include "mqutils_drop_log.h"

#include <gtest/gtest.h>

#include <string>

namespace {

TEST(drop_log, five_lines_in_a_second_and_the_number_of_the_rest) {
    struct {
        const char *name;
        int64_t now_ms;
        bool admitted;
    } const rows[] = {
        {"first", 5000, true},
        {"second", 5000, true},
        {"third", 5100, true},
        {"fourth", 5200, true},
        {"fifth", 5300, true},
        {"one too many", 5300, false},
        {"last instant of the window", 5999, false},
    };
    mqutils::drop_log log{.serv_id = 8, .to_stderr = true};
    for (const auto &row : rows) {
        testing::internal::CaptureStderr();
        mqutils::drop_log_write(log, row.now_ms, {"odd", 3, -1, 0, 0});
        EXPECT_EQ(testing::internal::GetCapturedStderr() != "", row.admitted) << row.name;
    }
    testing::internal::CaptureStderr();
    mqutils::drop_log_flush(log, 5999);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    testing::internal::CaptureStderr();
    mqutils::drop_log_flush(log, 6000);
    mqutils::drop_log_close(log); // not told again
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "mqutils: service 8: 2 more datagrams dropped without a line\n");
    EXPECT_TRUE(mqutils::drop_log_admit(log, 6000)); // the next window
}

} // namespace
