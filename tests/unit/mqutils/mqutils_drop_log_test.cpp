// The rate limit of the drop log on a stepped clock.

#include "mqutils_drop_log.h"

#include <gtest/gtest.h>

namespace {

TEST(drop_log, five_lines_in_a_second_and_the_number_of_the_rest) {
    mqutils::drop_log log{.serv_id = 8, .to_stderr = true};
    for (const int64_t now_ms : {5000, 5000, 5100, 5200, 5300, /* too many: */ 5300, 5999}) {
        const bool admitted = mqutils::drop_log_admit(log, now_ms);
        EXPECT_EQ(admitted, log.suppressed == 0) << now_ms;
    }
    EXPECT_EQ(log.suppressed, 2U);
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
