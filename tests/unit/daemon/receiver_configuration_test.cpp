// Configuration at power-on and device bring-up: what arrives on the line, to the byte.
#include "fake_platform.h"
#include "gps_power.h"
#include "gps_uart.h"
#include "line_peer.h"
#include "ls_state.h"
#include "scratch_dir.h"

#include <gtest/gtest.h>

namespace {

using bytes = std::string;

bytes hex(std::string_view text) {
    bytes out;
    for (size_t i = 0; i < text.size(); i += 3)
        out.push_back(static_cast<char>(std::stoi(std::string(text.substr(i, 2)), nullptr, 16)));
    return out;
}

const std::vector<bytes> silencing = {
    "$PUBX,41,1,0007,0000,9600,0*13\r\n",
    hex("B5 62 06 02 0A 00 01 00 00 00 00 00 00 00 00 00 13 F0"),
    "$PUBX,40,GGA,0,0,0,0,0,0*5A\r\n",
    "$PUBX,40,GSV,0,0,0,0,0,0*59\r\n",
    "$PUBX,40,GSA,0,0,0,0,0,0*4E\r\n",
    "$PUBX,40,GLL,0,0,0,0,0,0*5C\r\n",
    "$PUBX,40,RMC,0,0,0,0,0,0*47\r\n",
    "$PUBX,40,VTG,0,0,0,0,0,0*5E\r\n",
    "$PUBX,40,TXT,0,0,0,0,0,0*43\r\n",
    "$PUBX,41,1,0007,0003,9600,0*10\r\n",
};
const std::vector<bytes> configuring = {
    hex("B5 62 06 08 06 00 64 00 01 00 01 00 7A 12"),
    hex("B5 62 06 3E 0C 00 00 00 20 01 00 08 20 00 01 00 01 00 9B F1"),
    hex("B5 62 06 17 14 00 00 40 00 00 72 00 00 00 00 01 01 01 00 00 00 00 00 00 00 00 E6 57"),
    hex("B5 62 06 57 08 00 01 00 00 00 52 55 4E 20 7B 60"),
    hex("B5 62 06 3B 2C 00 01 00 00 00 60 10 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 "
        "00 "
        "00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 DE 79"),
    hex("B5 62 06 09 0D 00 00 00 00 00 1F 00 00 00 1F 00 00 00 01 5B 6C"),
};

// Acknowledge (id 1) or its refusal (id 0) of a frame, with its own checksum arithmetic.
bytes acknowledge(const bytes &frame, char id) {
    bytes ack = {'\xB5', '\x62', 5, id, 2, 0, frame[2], frame[3]};
    unsigned a = 0;
    unsigned b = 0;
    for (size_t i = 2; i < ack.size(); ++i) {
        a = (a + static_cast<unsigned char>(ack[i])) & 0xFF;
        b = (b + a) & 0xFF;
    }
    ack.push_back(static_cast<char>(a));
    ack.push_back(static_cast<char>(b));
    return ack;
}

bool to_be_acknowledged(const bytes &command) {
    return command[0] == '\xB5' && command[3] != 2;
}

size_t warnings() {
    return fake::count_logged(4, "Negative ack for ");
}

class receiver : public testing::Test {
  protected:
    void SetUp() override { fake::reset(); }
    void TearDown() override { ls_hal_uart_close(); }

    scratch_dir dir;
};

TEST_F(receiver, an_acknowledging_receiver_gets_each_command_once) {
    // A fresh one: it talks until it is silenced, and what it said waits on the line.
    line_peer peer([](const bytes &command) {
        return to_be_acknowledged(command) ? acknowledge(command, 1)
                                           : "$GNRMC,,V,,,,,,,,,,N*4D\r\n";
    });
    ASSERT_EQ(ls_hal_uart_init(), 0);
    const auto before = std::chrono::steady_clock::now();
    EXPECT_EQ(ls_hal_power_on_gps(), 0);
    const std::chrono::duration<double> took = std::chrono::steady_clock::now() - before;
    std::vector<bytes> expected = silencing;
    expected.insert(expected.end(), configuring.begin(), configuring.end());
    EXPECT_EQ(peer.commands(), expected);
    EXPECT_EQ(warnings(), 0u);
    EXPECT_GE(took.count(), 2 * 0.1 + 8 * 0.05 + 7 * 0.05); // the waits are there
    EXPECT_EQ(fake::count_logged(6, "GPS device Powered ON\n"), 1u);
    for (const fake::log_line &line : fake::logged())
        EXPECT_NE(line.level, 3) << line.text;
}

TEST_F(receiver, refusals_are_retried_logged_and_passed_over) {
    line_peer peer([](const bytes &command) {
        return to_be_acknowledged(command) ? acknowledge(command, 0) : "";
    });
    ASSERT_EQ(ls_hal_uart_init(), 0);
    EXPECT_EQ(ls_hal_power_on_gps(), 0);
    EXPECT_EQ(peer.commands().size(), silencing.size() + 5 * 4 + 6);
    for (const char *text : {"Negative ack for measurement rate config sentence\n",
                             "Negative ack for configuring GNSS system\n",
                             "Negative ack for configuring NMEA protocol\n",
                             "Negative ack for configuring power state\n",
                             "Negative ack for power management sentence\n",
                             "Negative ack for configuring cfg-cfg sentence\n"})
        EXPECT_EQ(fake::count_logged(4, text), 3u) << text; // id and both checksum bytes
}

// An answer of zeros looks like none: every byte of the acknowledge differs but the zero one.
TEST_F(receiver, an_empty_answer_differs_in_nine_bytes) {
    line_peer peer(
        [](const bytes &command) { return to_be_acknowledged(command) ? bytes(10, '\0') : ""; });
    ASSERT_EQ(ls_hal_uart_init(), 0);
    EXPECT_EQ(ls_hal_power_on_gps(), 0);
    EXPECT_EQ(peer.commands().size(), silencing.size() + 5 * 4 + 6);
    EXPECT_EQ(warnings(), 6u * 9);
}

TEST_F(receiver, a_line_that_dies_ends_the_configuration) {
    line_peer peer([&peer](const bytes &command) {
        if (command.find("GSA") != bytes::npos)
            peer.hang_up();
        return "";
    });
    ASSERT_EQ(ls_hal_uart_init(), 0);
    EXPECT_EQ(ls_hal_power_on_gps(), 1);
    EXPECT_EQ(peer.commands().size(), 5u);
    EXPECT_EQ(fake::count_logged(3, "Write NMEA sentence to disable GLL output on UART failed"),
              1u);
    EXPECT_EQ(fake::count_logged(6, "Disabling RMC"), 0u);
}

class bring_up : public receiver {
  protected:
    void SetUp() override {
        receiver::SetUp();
        gps_p_g = nullptr;
        std::filesystem::create_directories("user/location");
        for (const char *file : {"export", "unexport", "gpio102/direction", "gpio102/value",
                                 "gpio37/direction", "gpio37/value"})
            scratch_dir::write(std::string("sys/class/gpio/") + file, "");
    }
    void TearDown() override { ls_hal_deinit_device(1); }

    static std::string gpio(const std::string &file) {
        return scratch_dir::read("sys/class/gpio/" + file);
    }
    static bytes answer(const bytes &command) {
        return to_be_acknowledged(command) ? acknowledge(command, 1) : "";
    }
};

TEST_F(bring_up, leaves_the_receiver_on_or_off_as_stored) {
    for (const int32_t status : {2, 0}) {
        SetUp();
        mt_gps_status = status;
        gps_current_power_mode_g = static_cast<uint32_t>(status);
        line_peer peer(answer);
        EXPECT_EQ(ls_hal_init_device(1), 0);
        EXPECT_EQ(peer.commands().size(), silencing.size() + configuring.size());
        EXPECT_EQ(gpio("export"), ""); // they were exported
        EXPECT_EQ(gpio("gpio102/direction"), "out");
        EXPECT_EQ(gpio("gpio37/direction"), "out");
        EXPECT_EQ(gpio("gpio102/value"), status == 2 ? "1" : "0");
        EXPECT_EQ(gpio("gpio37/value"), status == 2 ? "1" : "0");
        EXPECT_EQ(gps_current_power_mode_g, static_cast<uint32_t>(status));
        EXPECT_EQ(fake::database().power_on_writes, 0);
        const auto sent = fake::sent();
        ASSERT_EQ(sent.size(), 1u);
        EXPECT_EQ(sent[0].hdr.msg_id, 1014u);
        EXPECT_EQ(sent[0].hdr.dst_serv_id, 3);
        EXPECT_EQ(sent[0].payload[0], status);
        ls_hal_deinit_device(1);
        EXPECT_EQ(gpio("unexport"), "372"); // 102, then 37 over it: a plain file keeps the tail
        gps_p_g = nullptr;
    }
}

TEST_F(bring_up, lines_that_are_not_there_end_it) {
    line_peer peer(answer);
    std::filesystem::remove("sys/class/gpio/gpio37/direction");
    EXPECT_EQ(ls_hal_init_device(1), -1);
    EXPECT_EQ(gpio("export"), "37"); // tried, but no kernel made the line
    EXPECT_TRUE(peer.commands().empty());
    EXPECT_EQ(fake::count_logged(3, "GPS device initialization failed\n"), 1u);
}

TEST_F(bring_up, without_a_serial_device_it_ends_before_the_lines) {
    EXPECT_EQ(ls_hal_init_device(1), -1);
    EXPECT_EQ(fake::count_logged(3, "GPS uart initialization failed\n"), 1u);
    EXPECT_EQ(gpio("gpio102/value"), "");
}

TEST_F(bring_up, a_receiver_that_cannot_be_configured_is_switched_off_if_it_was) {
    mt_gps_status = 0;
    gps_current_power_mode_g = 0;
    line_peer peer([&peer](const bytes &) {
        peer.hang_up();
        return bytes();
    });
    EXPECT_EQ(ls_hal_init_device(1), -1);
    EXPECT_EQ(fake::count_logged(3, "GPS power on failed\n"), 1u);
    EXPECT_EQ(gpio("gpio102/value"), "0");
    EXPECT_EQ(gpio("gpio37/value"), "0");
}

TEST_F(bring_up, other_boards_have_neither_line_nor_gpio) {
    EXPECT_EQ(ls_hal_init_device(2), 0);
    EXPECT_EQ(gpio("gpio102/value"), "");
    EXPECT_EQ(fake::sent().size(), 1u);
}

} // namespace
