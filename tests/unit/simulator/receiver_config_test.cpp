// Configuration: what is acknowledged, refused, given back, saved and lost.
#include "receiver_rig.h"

#include <gtest/gtest.h>

namespace {

using rig::ask;

const std::string zeros36 = rig::to_hex(rig::bytes(36));
constexpr const char *rate_100_ms = "0608 64 00 01 00 01 00";
constexpr const char *save_all = "0609 00 00 00 00 1f 00 00 00 00 00 00 00 01";

struct battery_receiver : testing::Test {
    scratch_dir scratch;
    sim::receiver_options options = rig::options(false);
    battery_receiver() { options.battery_file = "battery"; }
    // Milliseconds, of a new receiver on this battery.
    int rate() const {
        rig::powered next(options);
        const rig::bytes answer = rig::from_hex(ask(next, "0608"));
        return answer.size() < 8 ? -1 : answer[6] | answer[7] << 8;
    }
};

// The answer to a frame that begins with this class and id.
std::string acknowledge(const std::string &frame, bool positive = true) {
    const rig::bytes about = rig::from_hex(frame.substr(0, 2) + " " + frame.substr(2, 2));
    return rig::to_hex(sim::ubx_frame(positive ? 0x0501 : 0x0500, about)) + "\n";
}

TEST_F(battery_receiver, AcknowledgesAndKeepsAllOfPowerOn) {
    const struct {
        const char *poll;
        std::string frame;
    } rows[] = {
        {"0602 01", "b5 62 06 02 0a 00 01 00 00 00 00 00 00 00 00 00 13 f0"},
        {"0608", "b5 62 06 08 06 00 64 00 01 00 01 00 7a 12"},
        {"063e", "b5 62 06 3e 0c 00 00 00 20 01 00 08 20 00 01 00 01 00 9b f1"},
        {"0617",
         "b5 62 06 17 14 00 00 40 00 00 72 00 00 00 00 01 01 01 00 00 00 00 00 00 00 00 e6 57"},
        {"063b", "b5 62 06 3b 2c 00 01 00 00 00 60 10 00 00 " + zeros36 + " de 79"},
    };
    rig::powered first(options);
    for (const char *type : {"GGA", "GLL", "GSA", "GSV", "RMC", "VTG"})
        ask(first, "PUBX,40," + std::string(type) + ",0,0,0,0,0,0");
    for (const auto &row : rows)
        EXPECT_EQ(ask(first, rig::from_hex(row.frame)), acknowledge(row.poll)) << row.poll;
    const std::string save = "b5 62 06 09 0d 00 00 00 00 00 1f 00 00 00 1f 00 00 00 01 5b 6c";
    EXPECT_EQ(ask(first, rig::from_hex(save)), "b5 62 05 01 02 00 06 09 17 40\n");
    EXPECT_EQ(ask(first, rig::zda_poll), rig::known_zda) << "GPS only and main talker GP";
    rig::powered next(options);
    EXPECT_EQ(rig::heard(next, 0), "") << "no start lines";
    for (const auto &row : rows)
        EXPECT_EQ(ask(next, row.poll), row.frame + " " + acknowledge(row.poll)) << row.poll;
    EXPECT_EQ(next.next_event(), std::nullopt) << "silent until asked";
}

TEST(ReceiverConfig, ChecksSumsLengthsAndValues) {
    const struct {
        const char *name;
        bool accepted;
        std::string frame;
    } rows[] = {
        {"RATE 50 ms", true, "0608 32 00 01 00 01 00"},
        {"RATE 49 ms", false, "0608 31 00 01 00 01 00"},
        {"NMEA five bytes", false, "0617 00 40 00 00 00"},
        {"GNSS 33 channels", false, "063e 00 00 21 01 00 08 10 00 01 00 01 00"},
        {"unknown frame", false, "06ff"},
    };
    rig::powered receiver;
    for (const auto &row : rows) {
        const std::string before = receiver.describe(0);
        EXPECT_EQ(ask(receiver, row.frame), acknowledge(row.frame, row.accepted)) << row.name;
        EXPECT_TRUE(row.accepted || receiver.describe(0) == before) << row.name;
    }
    rig::bytes wrong = rig::command(rate_100_ms);
    wrong.back() ^= 1;
    EXPECT_EQ(ask(receiver, wrong), "");
    EXPECT_EQ(ask(receiver, rig::as_bytes("$GPGPQ,ZDA*00\r\n")), "");
}

TEST_F(battery_receiver, DamageMakesAFreshReceiver) {
    rig::powered first(options);
    ask(first, rate_100_ms);
    ask(first, save_all);
    EXPECT_EQ(rate(), 100);
    const std::string good = scratch_dir::read("battery");
    std::string flipped = good;
    flipped[good.find("0608 64") + 5] = '5';
    for (const std::string &content : {flipped, good.substr(0, good.size() - 1), good + good}) {
        scratch_dir::write("battery", content);
        EXPECT_EQ(rate(), 1000) << content;
    }
}

} // namespace
