// Configuration at power-on and device bring-up: what arrives on the line, to the byte.
#include "daemon_fixture.h"
#include "gps_power.h"

namespace {

using commands = std::vector<std::string>;

const auto ubx = from_hex<std::string>;

const commands whole_configuration = {
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
    line_peer peer([](const std::string &frame) { return acknowledge(frame, false); });
    ASSERT_EQ(ls_hal_uart_init(), 0);
    EXPECT_EQ(ls_hal_power_on_gps(), 0);
    // Five frames are tried 4 times each, the last one 6 times. Three bytes differ, a line each.
    EXPECT_EQ(peer.commands().size(), SILENCING + 26);
    EXPECT_EQ(fake::count_logged(4, "Negative ack for "), 6u * 3);
    EXPECT_EQ(fake::count_logged(4, "Negative ack for configuring GNSS system\n"), 3u);
    peer.send_unasked("late"); // the acknowledge that was not there in time
    ls_hal_tty_discard_doubtful();
    peer.send_unasked("next");
    uint8_t answer[205] = {};
    int32_t length = sizeof(answer);
    EXPECT_EQ(ls_hal_tty_read(answer, &length), 0);
    EXPECT_EQ(answer[0], 'n');
}

class bring_up : public receiver {
  protected:
    void SetUp() override {
        fake::reset();
        gps_p_g = nullptr;
        std::filesystem::create_directories("user/location");
        make_gpio_files();
    }
    void TearDown() override {
        ls_hal_deinit_device(1);
        gps_p_g = nullptr; // was the daemon's
    }
};

TEST_F(bring_up, leaves_the_receiver_on_or_off_as_stored) {
    for (const int32_t status : {2, 0}) {
        SCOPED_TRACE(status);
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
    const auto without = [](const std::string &file) {
        return [file] { std::filesystem::remove("sys/class/gpio/" + file); };
    };
    const struct {
        std::function<void()> spoil;
        const char *error;
    } rows[] = {
        {[] { fake::database().registration_result = -1; }, "Scm registration failed"},
        {[] { std::filesystem::remove_all("dev"); }, "GPS uart initialization failed\n"},
        {[] { std::filesystem::remove_all("sys"); }, "Unable to open gpio export file\n"},
        {without("gpio102/direction"), "/gpio102/direction file\n"},
        {without("gpio37/value"), "/gpio37/value file\n"},
    };
    for (const auto &r : rows) {
        SetUp();
        line_peer peer(nullptr);
        r.spoil();
        EXPECT_EQ(ls_hal_init_device(1), -1) << r.error;
        EXPECT_EQ(errors(r.error), 1u) << r.error;
        EXPECT_LE(errors("Unable to open"), 1u) << r.error; // and gives up
        EXPECT_EQ(gps_p_g == nullptr, fake::database().registration_result != 0) << r.error;
        EXPECT_TRUE(peer.commands().empty() && fake::sent().empty()) << r.error;
        TearDown();
    }
}

} // namespace
