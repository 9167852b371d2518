// Power lines, power modes by service, and the requests that read and set the mode.
#include "daemon_fixture.h"
#include "gps_message_handler.h"
#include "gps_power.h"

#include <sys/stat.h>

namespace {

class power : public daemon_fixture {
  protected:
    void SetUp() override {
        fake::reset();
        make_gpio_files();
    }
};

TEST_F(power, modes_by_service_and_state) {
    const struct {
        const char *name;
        uint32_t mode, serv_id;
        int32_t stored_status; // mt_gps_status
        uint32_t current;
        int32_t result;
        uint32_t current_after;
        int writes;        // of the database
        const char *lines; // value both lines were driven to
    } rows[] = {
        {"on when on", 2, 5, 2, 2, 0, 2, 0, ""},
        {"on when off, status on", 2, 5, 2, 0, 0, 2, 1, "1"},
        {"on by a stranger, status off", 2, 5, 0, 0, 1, 0, 0, ""},
        {"on by VoIP, status off", 2, 3, 0, 0, 0, 2, 1, "1"},
        {"on by WS, status off", 2, 6, 0, 1, 0, 2, 1, "1"},
        {"on by itself is not stored", 2, 8, 0, 0, 0, 2, 0, "1"},
        {"off", 0, 5, 0, 2, 0, 0, 1, "0"},
        {"off by itself is not stored", 0, 8, 0, 2, 0, 0, 0, "0"},
        {"off when off", 0, 5, 0, 0, 1, 0, 0, ""},
        {"off while the status says on", 0, 5, 2, 2, 1, 2, 0, ""},
        {"invalid", 3, 3, 2, 0, 1, 0, 0, ""},
    };
    for (const auto &r : rows) {
        SCOPED_TRACE(r.name);
        SetUp();
        mt_gps_status = r.stored_status;
        gps_current_power_mode_g = r.current;
        EXPECT_EQ(gps_set_power_mode(r.mode, r.serv_id), r.result);
        EXPECT_EQ(gps_current_power_mode_g, r.current_after);
        EXPECT_EQ(fake::database().power_on_writes, r.writes);
        EXPECT_EQ(fake::database().power_on_status, r.writes ? static_cast<int32_t>(r.mode) : 2);
        EXPECT_EQ(gpio("gpio102/value"), r.lines);
        EXPECT_EQ(gpio("gpio37/value"), r.lines);
    }
    SetUp();
    gps_board_type_g = 2; // has no lines to drive
    mt_gps_status = 0;
    EXPECT_EQ(gps_set_power_mode(0, 3), 0);
    EXPECT_EQ(gps_current_power_mode_g, 0u);
    EXPECT_EQ(gpio("gpio102/value"), "");
}

// The wake-up that comes while the lines are being driven low is not "on already".
TEST_F(power, one_change_at_a_time) {
    mt_gps_status = 0;
    std::filesystem::remove("sys/class/gpio/gpio102/value");
    ASSERT_EQ(mkfifo("sys/class/gpio/gpio102/value", 0600), 0); // holds its writer up
    std::thread off([] { EXPECT_EQ(gps_set_power_mode(0, 3), 0); });
    while (fake::count_logged(6, "mode = 0 serv_id = 3") == 0)
        std::this_thread::yield();
    std::thread on([] { EXPECT_EQ(gps_set_power_mode(2, 9), 0); });
    usleep(50000); // long enough for a wake-up that does not wait
    const int reader = open("sys/class/gpio/gpio102/value", O_RDONLY | O_CLOEXEC);
    off.join();
    on.join();
    close(reader);
    EXPECT_EQ(gps_current_power_mode_g, 2u);
    EXPECT_EQ(gpio("gpio37/value"), "1");
}

TEST_F(power, a_mode_that_could_not_be_stored_is_logged) {
    fake::database().power_on_write_result = -1;
    gps_current_power_mode_g = 0;
    EXPECT_EQ(gps_set_power_mode(2, 5), 0);
    EXPECT_EQ(errors("power mode 2 could not be stored"), 1u);
}

TEST_F(power, set_mode_is_answered_and_announced) {
    const struct {
        const char *name;
        uint8_t from, mode;
        int32_t cfun_level, status, status_after;
        const char *sent;
    } rows[] = {
        {"VoIP's", 3, 2, 0, 0, 2, "1 1002>3 0100000002000000, 2 1014>3 02000000"},
        {"WS's", 6, 2, 0, 0, 2, "1 1002>6 0100000002000000, 2 1014>3 02000000"},
        {"no news for VoIP", 9, 2, 0, 0, 2, "1 1002>9 0100000002000000"},
        {"not stored", 5, 2, 0, 1, 1, "1 1002>5 0100000002000000"},
        {"modem up", 6, 2, 1, 0, 2, "0 18>2 0100, 1 1002>6 0100000002000000, 2 1014>3 02000000"},
        {"and off", 6, 0, 1, 2, 0, "0 18>2 0000, 1 1002>6 0100000000000000, 2 1014>3 00000000"},
        {"no such mode", 6, 1, 1, 2, 1, "1 1002>6 0000000000000000"},
        {"refused while the status is on", 5, 0, 0, 2, 2, "1 1002>5 0000000000000000"},
    };
    for (const auto &r : rows) {
        SCOPED_TRACE(r.name);
        SetUp();
        gps_cfun_level_g = static_cast<uint32_t>(r.cfun_level);
        mt_gps_status = r.status;
        gps_current_power_mode_g = static_cast<uint32_t>(r.status);
        EXPECT_EQ(told(serve(1002, r.from, {r.mode, 0, 0, 0})), r.sent);
        EXPECT_EQ(mt_gps_status, r.status_after);
        EXPECT_EQ(gps_current_power_mode_g, r.status_after == 0 ? 0u : 2u);
    }
    EXPECT_EQ(told(serve(1002, 3, {0, 0, 0})), "1 1002>3 0000000000000000"); // no mode in it
    EXPECT_EQ(mt_gps_status, 2);
}

// A reply to VoIP, or request 19 to whoever: the last one puts a woken receiver back to sleep.
TEST_F(power, the_last_reply_puts_a_woken_receiver_back) {
    const struct {
        const char *name;
        uint32_t id;
        uint8_t to;
        int32_t status, pending;
        uint32_t mode_after;
    } rows[] = {
        {"woken for VoIP", 1003, 3, 0, 0, 0}, {"another pending", 1003, 3, 0, 1, 2},
        {"on as stored", 1003, 3, 2, 0, 2},   {"not VoIP", 1003, 6, 0, 0, 2},
        {"request 19", 208, 2, 0, 0, 0},
    };
    bytes none;
    for (const auto &r : rows) {
        SetUp();
        mt_gps_status = r.status;
        pending_req_count = r.pending;
        const bus_msg req = fake::make_message(0, r.id, r.to, none);
        EXPECT_EQ(r.id == 208 ? ls_hal_send_req_msg(fake::connection(), &req, nullptr, 0)
                              : ls_send_response(fake::connection(), &req, nullptr, 0, 0),
                  0);
        EXPECT_EQ(gps_current_power_mode_g, r.mode_after) << r.name;
    }
}

} // namespace
