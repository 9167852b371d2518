// Power lines and modes, the requests that read and set the mode, and bring-up: what arrives on the
// line, to the byte.
#include "daemon_fixture.h"
#include "gps_power.h"

#include <sys/stat.h>

namespace {

class power : public daemon_fixture {
  protected:
    // With the receiver in mode `current` and told by the status to be in mode `status`: what
    // became of it, what was stored, and the value that both lines were driven to.
    std::string set_mode(uint32_t mode, uint32_t serv_id, int32_t status, uint32_t current,
                         int32_t board = 1) {
        SetUp();
        gps_board_type_g = board;
        mt_gps_status = status;
        gps_current_power_mode_g = current;
        std::ostringstream text;
        text << (gps_set_power_mode(mode, serv_id) == 0 ? "" : "refused, ")
             << gps_current_power_mode_g;
        if (fake::database().power_on_writes != 0)
            text << ", stored " << fake::database().power_on_status;
        EXPECT_EQ(gpio("gpio102/value"), gpio("gpio37/value"));
        return text.str() + (gpio("gpio37/value").empty() ? "" : ", lines " + gpio("gpio37/value"));
    }
};

TEST_F(power, modes_by_service_and_state) {
    const std::tuple<const char *, uint32_t, uint32_t, int32_t, uint32_t, const char *> rows[] = {
        {"on when on", 2, 5, 2, 2, "2"},
        {"on when off, status on", 2, 5, 2, 0, "2, stored 2, lines 1"},
        {"on by a stranger, status off", 2, 5, 0, 0, "refused, 0"},
        {"on by VoIP, status off", 2, 3, 0, 0, "2, stored 2, lines 1"},
        {"on by WS, status off", 2, 6, 0, 1, "2, stored 2, lines 1"},
        {"on by itself is not stored", 2, 8, 0, 0, "2, lines 1"},
        {"off", 0, 5, 0, 2, "0, stored 0, lines 0"},
        {"off by itself is not stored", 0, 8, 0, 2, "0, lines 0"},
        {"off when off", 0, 5, 0, 0, "refused, 0"},
        {"off while the status says on", 0, 5, 2, 2, "refused, 2"},
        {"invalid", 3, 3, 2, 0, "refused, 0"},
    };
    for (const auto &[name, mode, serv_id, status, current, expected] : rows)
        EXPECT_EQ(set_mode(mode, serv_id, status, current), expected) << name;
    EXPECT_EQ(set_mode(0, 3, 0, 2, 2), "0, stored 0"); // board 2 has no lines to drive
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
    const std::tuple<const char *, uint8_t, uint8_t, uint32_t, int32_t, int32_t, const char *>
        rows[] = {
            // from, mode, level of the modem, status before and after
            {"VoIP's", 3, 2, 0, 0, 2, "1 1002>3 0100000002000000, 2 1014>3 02000000"},
            {"WS's", 6, 2, 0, 0, 2, "1 1002>6 0100000002000000, 2 1014>3 02000000"},
            {"no news for VoIP", 9, 2, 0, 0, 2, "1 1002>9 0100000002000000"},
            {"not stored", 5, 2, 0, 1, 1, "1 1002>5 0100000002000000"},
            {"SAL too", 6, 2, 1, 0, 2, "0 18>2 0100, 1 1002>6 0100000002000000, 2 1014>3 02000000"},
            {"and off", 6, 0, 1, 2, 0, "0 18>2 0000, 1 1002>6 0100000000000000, 2 1014>3 00000000"},
            {"no such mode", 6, 1, 1, 2, 1, "1 1002>6 0000000000000000"},
            {"refused while the status is on", 5, 0, 0, 2, 2, "1 1002>5 0000000000000000"},
        };
    for (const auto &[name, from, mode, cfun_level, before, after, sent] : rows) {
        SetUp();
        gps_cfun_level_g = cfun_level;
        mt_gps_status = before;
        gps_current_power_mode_g = static_cast<uint32_t>(before);
        EXPECT_EQ(told(serve(1002, from, {mode, 0, 0, 0})), sent) << name;
        EXPECT_EQ(mt_gps_status, after) << name;
        EXPECT_EQ(gps_current_power_mode_g, after == 0 ? 0u : 2u) << name;
    }
    EXPECT_EQ(told(serve(1002, 3, {0, 0, 0})), "1 1002>3 0000000000000000"); // no mode in it
    EXPECT_EQ(mt_gps_status, 2);
}

// A reply to VoIP, or request 19 to whoever: the last one puts a woken receiver back to sleep.
TEST_F(power, the_last_reply_puts_a_woken_receiver_back) {
    const std::tuple<const char *, uint32_t, uint8_t, int32_t, int32_t, uint32_t> rows[] = {
        {"woken for VoIP", 1003, 3, 0, 0, 0}, {"another pending", 1003, 3, 0, 1, 2},
        {"on as stored", 1003, 3, 2, 0, 2},   {"not VoIP", 1003, 6, 0, 0, 2},
        {"request 19", 208, 2, 0, 0, 0},
    };
    bytes none;
    for (const auto &[name, id, to, status, pending, mode_after] : rows) {
        SetUp();
        mt_gps_status = status;
        pending_req_count = pending;
        const bus_msg req = fake::make_message(0, id, to, none);
        EXPECT_EQ(id == 208 ? ls_hal_send_req_msg(fake::connection(), &req, nullptr, 0)
                            : ls_send_response(fake::connection(), &req, nullptr, 0, 0),
                  0);
        EXPECT_EQ(gps_current_power_mode_g, mode_after) << name;
    }
}

const auto ubx = from_hex<std::string>;

const std::vector<std::string> whole_configuration = {
    "$PUBX,41,1,0007,0000,9600,0*13\r\n",
    ubx("B5 62 06 02 0A 00 01 00 00 00 00 00 00 00 00 00 13 F0"),
    "$PUBX,40,GGA,0,0,0,0,0,0*5A\r\n",
    "$PUBX,40,GSV,0,0,0,0,0,0*59\r\n",
    "$PUBX,40,GSA,0,0,0,0,0,0*4E\r\n",
    "$PUBX,40,GLL,0,0,0,0,0,0*5C\r\n",
    "$PUBX,40,RMC,0,0,0,0,0,0*47\r\n",
    "$PUBX,40,VTG,0,0,0,0,0,0*5E\r\n",
    "$PUBX,40,TXT,0,0,0,0,0,0*43\r\n",
    "$PUBX,41,1,0007,0003,9600,0*10\r\n",
    ubx("B5 62 06 08 06 00 64 00 01 00 01 00 7A 12"),
    ubx("B5 62 06 3E 0C 00 00 00 20 01 00 08 20 00 01 00 01 00 9B F1"),
    ubx("B5 62 06 17 14 00 00 40 00 00 72 00 00 00 00 01 01 01 00 00 00 00 00 00 00 00 E6 57"),
    ubx("B5 62 06 57 08 00 01 00 00 00 52 55 4E 20 7B 60"),
    ubx("B5 62 06 3B 2C 00 01 00 00 00 60 10 00*38 DE 79"),
    ubx("B5 62 06 09 0D 00 00 00 00 00 1F 00 00 00 1F 00 00 00 01 5B 6C"),
};
constexpr size_t SILENCING = 10; // commands at its start that nobody acknowledges

// Nothing for what is not acknowledged.
std::string acknowledge(const std::string &command, bool positive) {
    return is_frame(command) && command[3] != 2 ? ubx_acknowledge(command, positive) : "";
}

using receiver = daemon_fixture;

TEST_F(receiver, refusals_are_retried_logged_and_passed_over) {
    // One is cut before its message id.
    line_peer peer([](const std::string &frame) {
        return acknowledge(frame, false).substr(0, frame[3] == 0x3E ? 3 : 10);
    });
    ASSERT_EQ(ls_hal_uart_init(), 0);
    EXPECT_EQ(ls_hal_power_on_gps(), 0);
    // Five frames are tried 4 times each, the last one 6 times. Three bytes differ, a line each.
    EXPECT_EQ(peer.commands().size(), SILENCING + 26);
    EXPECT_EQ(fake::count_logged(4, "Negative ack for "), 5u * 3 + 6);
    peer.send_unasked("late"); // the acknowledge that was not there in time
    ls_hal_tty_discard_doubtful();
    peer.send_unasked("next");
    uint8_t answer[205] = {};
    int32_t length = sizeof(answer);
    EXPECT_EQ(ls_hal_tty_read(answer, &length), 0);
    EXPECT_EQ(answer[0], 'n');
}

TEST_F(receiver, a_line_that_goes_away_ends_its_configuration) {
    line_peer peer([](const std::string &command) {
        if (command.starts_with("$PUBX,41,1,0007,0003"))
            ls_hal_uart_close();
        return "";
    });
    ASSERT_EQ(ls_hal_uart_init(), 0);
    EXPECT_EQ(ls_hal_power_on_gps(), 1);
    EXPECT_EQ(peer.commands().size(), SILENCING);
}

class bring_up : public receiver {
  protected:
    void SetUp() override {
        daemon_fixture::SetUp();
        gps_p_g = nullptr;
    }
    void TearDown() override {
        ls_hal_deinit_device(1);
        gps_p_g = nullptr; // was the daemon's
    }
};

TEST_F(bring_up, leaves_the_receiver_on_or_off_as_stored) {
    for (const int32_t status : {2, 0}) {
        SetUp();
        mt_gps_status = status;
        gps_current_power_mode_g = static_cast<uint32_t>(status);
        // A fresh receiver: it talks until it is silenced, and what it said waits on the line.
        line_peer peer([](const std::string &command) {
            const std::string ack = acknowledge(command, true);
            return ack.empty() ? "$GNRMC,,V,,,,,,,,,,N*4D\r\n" : ack;
        });
        const auto before = std::chrono::steady_clock::now();
        EXPECT_EQ(ls_hal_init_device(1), 0);
        const std::chrono::duration<double> took = std::chrono::steady_clock::now() - before;
        EXPECT_GE(took.count(), 2 * 0.1 + 8 * 0.05 + 7 * 0.05); // the waits are there
        EXPECT_EQ(peer.commands(), whole_configuration);
        EXPECT_EQ(fake::count_logged(4, "Negative ack for "), 0u);
        for (const std::string line : {"gpio102/", "gpio37/"}) {
            EXPECT_EQ(gpio(line + "direction"), "out");
            EXPECT_EQ(gpio(line + "value"), status == 2 ? "1" : "0");
        }
        EXPECT_EQ(gps_current_power_mode_g, static_cast<uint32_t>(status));
        EXPECT_EQ(fake::database().power_on_writes, 0);
        EXPECT_EQ(told(fake::sent()), "2 1014>3 0" + std::to_string(status) + "000000");
        TearDown();
    }
}

TEST_F(bring_up, fails_without_bus_line_or_power_lines) {
    // What is missing: the bus, or a file.
    const std::pair<std::string, const char *> rows[] = {
        {"", "Scm registration failed"},
        {"dev", "GPS uart initialization failed\n"},
        {"sys", "Unable to open gpio export file\n"},
        {"sys/class/gpio/gpio102/direction", "/gpio102/direction file\n"},
        {"sys/class/gpio/gpio37/value", "/gpio37/value file\n"},
    };
    for (const auto &[missing, error] : rows) {
        SetUp();
        line_peer peer(nullptr);
        fake::database().registration_result = missing.empty() ? -1 : 0;
        std::filesystem::remove_all(missing);
        EXPECT_EQ(ls_hal_init_device(1), -1) << error;
        EXPECT_EQ(errors(error), 1u) << error;
        EXPECT_LE(errors("Unable to open"), 1u) << error; // and gives up
        EXPECT_EQ(gps_p_g == nullptr, missing.empty()) << error;
        EXPECT_TRUE(peer.commands().empty() && fake::sent().empty()) << error;
        TearDown();
    }
}

} // namespace
