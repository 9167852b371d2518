// Power lines, power modes by service, and the requests that read and set the mode.
#include "fake_platform.h"
#include "gps_gpio.h"
#include "gps_message_handler.h"
#include "gps_power.h"
#include "ls_state.h"
#include "scratch_dir.h"

#include <gtest/gtest.h>

namespace {

constexpr char gpio_dir[] = "sys/class/gpio/";

std::string gpio_file(const std::string &name) {
    return scratch_dir::read(gpio_dir + name);
}

class power : public testing::Test {
  protected:
    void SetUp() override {
        fake::reset();
        for (const char *file : {"export", "unexport", "gpio102/direction", "gpio102/value",
                                 "gpio37/direction", "gpio37/value"})
            scratch_dir::write(std::string(gpio_dir) + file, "");
    }

    // A 1002 request, served to its end.
    static void set_mode(uint8_t from, std::vector<uint8_t> payload) {
        bus_msg msg = fake::make_message(0, 1002, from, payload);
        EXPECT_EQ(ls_hal_process_message(fake::connection(), &msg), 0);
        EXPECT_TRUE(fake::wait_for_votes_returned());
    }

    scratch_dir dir;
};

TEST_F(power, gpio_files_get_bare_texts) {
    EXPECT_EQ(u_gpio_check_file(102), 1);
    EXPECT_EQ(u_gpio_export(102), 0);
    EXPECT_EQ(u_gpio_unexport(37), 0);
    EXPECT_EQ(u_gpio_set_direction(102, 1), 0);
    EXPECT_EQ(u_gpio_set_value(102, 1), 0);
    EXPECT_EQ(u_gpio_set_direction(37, 0), 0);
    EXPECT_EQ(u_gpio_set_value(37, 0), 0);
    EXPECT_EQ(gpio_file("export"), "102");
    EXPECT_EQ(gpio_file("unexport"), "37");
    EXPECT_EQ(gpio_file("gpio102/direction"), "out");
    EXPECT_EQ(gpio_file("gpio102/value"), "1");
    EXPECT_EQ(gpio_file("gpio37/direction"), "in");
    EXPECT_EQ(gpio_file("gpio37/value"), "0");
    EXPECT_TRUE(fake::logged().empty());
}

TEST_F(power, gpio_failures_are_told) {
    EXPECT_EQ(u_gpio_set_direction(102, 2), -1);
    EXPECT_EQ(u_gpio_set_value(102, -1), -1);
    EXPECT_EQ(gpio_file("gpio102/direction"), "");
    EXPECT_EQ(gpio_file("gpio102/value"), "");
    std::filesystem::remove_all("sys");
    EXPECT_EQ(u_gpio_check_file(102), 0);
    EXPECT_EQ(u_gpio_export(102), -1);
    EXPECT_EQ(u_gpio_unexport(102), -1);
    EXPECT_EQ(u_gpio_set_direction(102, 1), -1);
    EXPECT_EQ(u_gpio_set_value(102, 1), -1);
    for (const char *text :
         {"Invalid direction value\n", "Invalid GPIO value\n",
          "u_gpio_check_file: GPIO file doesn't exist", "Unable to open gpio export file\n",
          "Unable to open gpio unexport file\n",
          "Unable to open ./sys/class/gpio/gpio102/direction file\n",
          "Unable to open ./sys/class/gpio/gpio102/value file\n"})
        EXPECT_EQ(fake::count_logged(3, text), 1u) << text;
}

TEST_F(power, modes_by_service_and_state) {
    struct row {
        const char *name;
        uint32_t mode, serv_id;
        int32_t stored_status; // mt_gps_status
        uint32_t current;
        int32_t result;
        uint32_t current_after;
        int writes;        // of the database
        const char *lines; // value both lines were driven to
    };
    const row rows[] = {
        {"on when on", 2, 5, 2, 2, 0, 2, 0, ""},
        {"on when off, status on", 2, 5, 2, 0, 0, 2, 1, "1"},
        {"on by a stranger, status off", 2, 5, 0, 0, 1, 0, 0, ""},
        {"on by VoIP, status off", 2, 3, 0, 0, 0, 2, 1, "1"},
        {"on by WS, status off", 2, 6, 0, 1, 0, 2, 1, "1"},
        {"on by client 9, status off", 2, 9, 0, 0, 0, 2, 1, "1"},
        {"on by itself is not stored", 2, 8, 0, 0, 0, 2, 0, "1"},
        {"off", 0, 5, 0, 2, 0, 0, 1, "0"},
        {"other off", 1, 5, 0, 2, 0, 1, 1, "0"},
        {"off by itself is not stored", 0, 8, 0, 2, 0, 0, 0, "0"},
        {"off when off", 0, 5, 0, 0, 1, 0, 0, ""},
        {"off while the status says on", 0, 5, 2, 2, 1, 2, 0, ""},
        {"invalid", 3, 3, 2, 0, 1, 0, 0, ""},
        {"negative", 0xFFFFFFFF, 3, 2, 2, 1, 2, 0, ""},
    };
    for (const row &r : rows) {
        SetUp();
        mt_gps_status = r.stored_status;
        gps_current_power_mode_g = r.current;
        EXPECT_EQ(gps_set_power_mode(r.mode, r.serv_id), r.result) << r.name;
        EXPECT_EQ(gps_current_power_mode_g, r.current_after) << r.name;
        EXPECT_EQ(fake::database().power_on_writes, r.writes) << r.name;
        if (r.writes != 0) {
            EXPECT_EQ(fake::database().power_on_status, static_cast<int32_t>(r.mode)) << r.name;
        }
        EXPECT_EQ(gpio_file("gpio102/value"), r.lines) << r.name;
        EXPECT_EQ(gpio_file("gpio37/value"), r.lines) << r.name;
        EXPECT_EQ(fake::count_logged(3, "Invalid power mode value\n"), r.mode > 2 ? 1u : 0u)
            << r.name;
    }
}

TEST_F(power, board_2_has_no_lines_to_drive) {
    gps_board_type_g = 2;
    mt_gps_status = 0;
    EXPECT_EQ(gps_set_power_mode(0, 3), 0);
    EXPECT_EQ(gps_current_power_mode_g, 0u);
    EXPECT_EQ(gpio_file("gpio102/value"), "");
}

TEST_F(power, set_mode_replies_and_tells_voip_for_voip_and_ws_only) {
    struct row {
        uint8_t from;
        bool stores_status;
        bool notifies;
    };
    for (const row &r :
         {row{3, true, true}, row{6, true, true}, row{9, true, false}, row{5, false, false}}) {
        SetUp();
        gps_current_power_mode_g = 0;
        mt_gps_status = r.stores_status ? 0 : 1;
        set_mode(r.from, {2, 0, 0, 0});
        EXPECT_EQ(mt_gps_status, r.stores_status ? 2 : 1) << int{r.from};
        const auto sent = fake::sent();
        ASSERT_EQ(sent.size(), r.notifies ? 2u : 1u) << int{r.from};
        EXPECT_EQ(sent[0].hdr.msg_type, 1);
        EXPECT_EQ(sent[0].payload, (std::vector<uint8_t>{1, 0, 0, 0, 2, 0, 0, 0}));
        if (r.notifies) {
            EXPECT_EQ(sent[1].hdr.msg_type, 2);
            EXPECT_EQ(sent[1].hdr.msg_id, 1014u);
            EXPECT_EQ(sent[1].hdr.dst_serv_id, 3);
            EXPECT_EQ(sent[1].payload, (std::vector<uint8_t>{2, 0, 0, 0}));
        }
    }
}

TEST_F(power, a_refused_mode_leaves_the_reply_zero) {
    set_mode(5, {0, 0, 0, 0}); // the stored status says on
    EXPECT_EQ(fake::sent().at(0).payload, std::vector<uint8_t>(8, 0));
    EXPECT_EQ(fake::count_logged(3, "ls_hal_set_power_mode: failed to set power mode\n"), 1u);
    set_mode(3, {0, 0, 0}); // no mode in it: nothing is stored either
    EXPECT_EQ(fake::sent().at(1).payload, std::vector<uint8_t>(8, 0));
    EXPECT_EQ(mt_gps_status, 2);
    EXPECT_EQ(gps_current_power_mode_g, 2u);
    EXPECT_EQ(fake::sent().size(), 2u);
}

TEST_F(power, a_mode_change_is_announced_to_sal_while_the_modem_is_up) {
    gps_cfun_level_g = 1;
    for (const uint8_t mode : {uint8_t{2}, uint8_t{0}, uint8_t{1}})
        set_mode(6, {mode, 0, 0, 0});
    std::vector<std::vector<uint8_t>> announced;
    for (const fake::sent_message &sent : fake::sent()) {
        if (sent.hdr.msg_id == 18)
            announced.push_back(sent.payload);
    }
    EXPECT_EQ(announced, (std::vector<std::vector<uint8_t>>{{1, 0}, {0, 0}}));
}

TEST_F(power, client_9_wakes_the_receiver_before_its_request) {
    mt_gps_status = 0;
    gps_current_power_mode_g = 0;
    gps_board_type_g = 3; // the query then fails at once
    antenna_type = 4;
    std::vector<uint8_t> payload;
    for (const uint32_t id : {1001u, 1003u}) {
        bus_msg msg = fake::make_message(0, id, 9, payload);
        EXPECT_EQ(ls_hal_process_message(fake::connection(), &msg), 0);
        EXPECT_TRUE(fake::wait_for_votes_returned());
        EXPECT_EQ(gps_current_power_mode_g, id == 1001 ? 0u : 2u) << id;
    }
    EXPECT_EQ(fake::sent().size(), 2u);
}

TEST_F(power, the_last_reply_to_voip_puts_a_woken_receiver_back) {
    for (const int32_t status : {0, 2}) {
        for (const uint8_t from : {uint8_t{3}, uint8_t{6}}) {
            for (const int32_t pending : {0, 1}) {
                SetUp();
                mt_gps_status = status;
                pending_req_count = pending;
                std::vector<uint8_t> none;
                bus_msg req = fake::make_message(0, 1003, from, none);
                EXPECT_EQ(ls_send_response(fake::connection(), &req, nullptr, 0, 0), 0);
                const bool down = status == 0 && from == 3 && pending == 0;
                EXPECT_EQ(gps_current_power_mode_g, down ? 0u : 2u)
                    << status << " " << int{from} << " " << pending;
            }
        }
    }
}

} // namespace
