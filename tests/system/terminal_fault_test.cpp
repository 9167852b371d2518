// The alarm for a lost line, as WS gets it. What requests get under each fault:
// tests/faults/matrix.py.
#include "system_fixture.h"

#include <ctime>
#include <gtest/gtest.h>

TEST(receiver_fault, an_unplugged_line_raises_the_alarm) {
    terminal term;
    bus_client ws(LS_SERV_WS);
    term.ctl({"fault", "unplugged", "on"});
    EXPECT_EQ(lsctl({"position"}).status, 1);
    const auto alarm = ws.take(WS_NOTIFY_ALARM_UPDATE);
    ASSERT_TRUE(alarm);
    const auto told = record_in<ws_alarm_pld>(alarm);
    EXPECT_STREQ(told.text, "GPS Communication (RX/TX) error");
    EXPECT_NEAR(static_cast<double>(told.time), static_cast<double>(time(nullptr)), 30);
    EXPECT_EQ(term.stop(), 0);
    EXPECT_FALSE(exists(term.dir() / "bus/8")); // it has left the bus
}
