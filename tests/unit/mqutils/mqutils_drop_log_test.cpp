// The rate limit of the drop log on a stepped clock.

#include "mqutils_drop_log.h"

#include <gtest/gtest.h>

#include <string>

namespace {

TEST(drop_log, five_lines_in_a_second) {
    struct {
        const char *name;
        int64_t now_ms;
        bool admitted;
        unsigned suppressed;
    } const rows[] = {
        {"first", 5000, true, 0},
        {"second", 5000, true, 0},
        {"third", 5100, true, 0},
        {"fourth", 5200, true, 0},
        {"last of the window", 5300, true, 0},
        {"one too many", 5300, false, 1},
        {"last instant of the window", 5999, false, 2},
        {"next window", 6000, true, 2},
    };
    mqutils::drop_log log;
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        EXPECT_EQ(mqutils::drop_log_admit(log, row.now_ms), row.admitted);
        EXPECT_EQ(log.suppressed, row.suppressed);
    }
}

TEST(drop_log, number_of_the_rest_is_told_once_when_the_window_is_over) {
    mqutils::drop_log log{.serv_id = 8, .to_stderr = true};
    for (int i = 0; i < 7; ++i) {
        mqutils::drop_log_admit(log, 1000);
    }
    testing::internal::CaptureStderr();
    mqutils::drop_log_flush(log, 1999);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    testing::internal::CaptureStderr();
    mqutils::drop_log_flush(log, 2000);
    mqutils::drop_log_close(log);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "mqutils: service 8: 2 more datagrams dropped without a line\n");
}

} // namespace
