// One receiver, two ways to it: what clients get must not tell which one the terminal has.
#include "daemon_fixture.h"
#include "receiver.h"

namespace {

constexpr double NOW = 100;                 // of the receiver's clock, which stands still
constexpr double WALL_CLOCK = 1704110400.0; // 2024-01-01 12:00:00 UTC

using fault = bool sim::receiver_faults::*; // null = none

// A receiver that its owner has configured, at a fixed place in a fixed moment.
class one_receiver {
  public:
    explicit one_receiver(fault wrong) : module(options()) {
        if (wrong != nullptr)
            module.faults().*wrong = true;
        module.set_power(true, true, 0);
        module.take_output(NOW);
    }
    std::string answer(std::string_view command) {
        module.input({reinterpret_cast<const uint8_t *>(command.data()), command.size()}, NOW);
        std::string all;
        for (const bytes &message : module.take_output(NOW))
            all.append(message.begin(), message.end());
        return all;
    }

  private:
    static sim::receiver_options options() {
        const auto clock = [] { return WALL_CLOCK; };
        sim::receiver_options wanted;
        wanted.truth = sim::make_fixed_place(51.5, -0.125, 35.9, clock);
        wanted.instant_fix = wanted.preconfigured = true;
        wanted.wall_clock = clock;
        return wanted;
    }
    sim::receiver module;
};

class boards : public daemon_fixture {
  protected:
    // The payloads of the replies to 1003 to 1006.
    static std::vector<bytes> replies() {
        gps_pos_buffer_time = 0; // board 2 would answer with the last good position
        std::vector<bytes> payloads;
        for (uint32_t id = 1003; id <= 1006; ++id)
            payloads.push_back(serve(id).back().payload);
        return payloads;
    }
    static std::vector<bytes> over_the_line(fault wrong) {
        fake::reset();
        one_receiver receiver(wrong);
        const line_peer peer([&](const std::string &command) { return receiver.answer(command); });
        EXPECT_EQ(ls_hal_uart_init(), 0);
        std::vector<bytes> payloads = replies();
        ls_hal_uart_close();
        return payloads;
    }
    static std::vector<bytes> through_the_ta(fault wrong) {
        fake::reset();
        one_receiver receiver(wrong);
        gps_board_type_g = 2;
        antenna_type = 4;
        fake::on_send([&](const fake::sent_message &sent) {
            if (sent.hdr.msg_id != 1416)
                return;
            const auto exchange = sent.as<gps_data_req_pld>();
            const std::string answer = receiver.answer(
                {reinterpret_cast<const char *>(exchange.command), exchange.cmd_len});
            fake::deliver_ta_answer(answer, static_cast<uint32_t>(answer.size()));
        });
        return replies();
    }
};

TEST_F(boards, the_same_receiver_gives_the_same_replies_over_both_paths) {
    const struct {
        const char *name;
        fault wrong;
        std::array<uint8_t, 4> status; // of 1003 to 1006
    } rows[] = {
        {"a fix", nullptr, {1, 1, 1, 1}},
        {"fix lost", &sim::receiver_faults::no_fix, {0, 1, 1, 0}},
        {"empty fields", &sim::receiver_faults::empty_fields, {0, 0, 0, 0}},
        {"1024 weeks ago", &sim::receiver_faults::week_rollover, {1, 1, 1, 1}},
    };
    for (const auto &row : rows) {
        const std::vector<bytes> line = over_the_line(row.wrong);
        const std::vector<bytes> ta = through_the_ta(row.wrong);
        for (size_t i = 0; i < row.status.size(); ++i) {
            EXPECT_EQ(line[i], ta[i]) << row.name << ": " << 1003 + i;
            EXPECT_EQ(line[i][0], row.status[i]) << row.name << ": " << 1003 + i;
        }
    }
}

} // namespace
