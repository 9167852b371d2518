// Configuration: what is acknowledged, refused, given back, saved and lost.
#include "receiver_config.h"
#include "receiver_rig.h"

#include <gtest/gtest.h>

namespace {

using rig::ask;
using rig::frame;
using rig::from_hex;
using rig::heard;
using rig::sentence;

const std::string zeros36 = [] {
    std::string text;
    for (int i = 0; i < 36; ++i)
        text += " 00";
    return text;
}();

struct fresh_receiver : testing::Test {
    sim::receiver receiver{rig::instant()};
    fresh_receiver() { receiver.set_power(true, true, 0); }
    std::string tell(const rig::bytes &data) { return ask(receiver, data, 0); }
};

struct accepted_row {
    const char *name;
    std::string frame, acknowledge;
};

const accepted_row power_on_frames[] = {
    {"INF", "b5 62 06 02 0a 00 01 00 00 00 00 00 00 00 00 00 13 f0",
     "b5 62 05 01 02 00 06 02 10 39\n"},
    {"RATE", "b5 62 06 08 06 00 64 00 01 00 01 00 7a 12", "b5 62 05 01 02 00 06 08 16 3f\n"},
    {"GNSS", "b5 62 06 3e 0c 00 00 00 20 01 00 08 20 00 01 00 01 00 9b f1",
     "b5 62 05 01 02 00 06 3e 4c 75\n"},
    {"NMEA", "b5 62 06 17 14 00 00 40 00 00 72 00 00 00 00 01 01 01 00 00 00 00 00 00 00 00 e6 57",
     "b5 62 05 01 02 00 06 17 25 4e\n"},
    {"PWR", "b5 62 06 57 08 00 01 00 00 00 52 55 4e 20 7b 60", "b5 62 05 01 02 00 06 57 65 8e\n"},
    {"PM2", "b5 62 06 3b 2c 00 01 00 00 00 60 10 00 00" + zeros36 + " de 79",
     "b5 62 05 01 02 00 06 3b 49 72\n"},
    {"CFG", "b5 62 06 09 0d 00 00 00 00 00 1f 00 00 00 1f 00 00 00 01 5b 6c",
     "b5 62 05 01 02 00 06 09 17 40\n"},
};

TEST_F(fresh_receiver, AcknowledgesEachFrameOfPowerOn) {
    for (const accepted_row &row : power_on_frames)
        EXPECT_EQ(tell(from_hex(row.frame)), row.acknowledge) << row.name;
    EXPECT_EQ(tell(sentence("GPGPQ,ZDA")), "$GPZDA,120000.00,01,01,2024,00,00*61\r\n")
        << "GPS only and main talker GP";
}

TEST_F(fresh_receiver, IsSilentOnAWrongChecksum) {
    rig::bytes wrong = from_hex(power_on_frames[1].frame);
    wrong.back() ^= 1;
    EXPECT_EQ(tell(wrong), "");
    const std::string text = "$GPGPQ,ZDA*00\r\n";
    EXPECT_EQ(tell({text.begin(), text.end()}), "");
}

struct value_row {
    const char *name;
    uint16_t key;
    bool accepted;
    std::string payload;
};

const std::string gps_on = " 00 08 10 00 01 00 01 00", glonass_on = " 06 08 0e 00 01 00 01 00";

const value_row value_rows[] = {
    {"RATE 50 ms", sim::ubx_cfg_rate, true, "32 00 01 00 01 00"},
    {"RATE 49 ms", sim::ubx_cfg_rate, false, "31 00 01 00 01 00"},
    {"RATE 127 measurements", sim::ubx_cfg_rate, true, "64 00 7f 00 01 00"},
    {"RATE 128 measurements", sim::ubx_cfg_rate, false, "64 00 80 00 01 00"},
    {"RATE no measurement", sim::ubx_cfg_rate, false, "64 00 00 00 01 00"},
    {"RATE last reference", sim::ubx_cfg_rate, true, "64 00 01 00 04 00"},
    {"RATE unknown reference", sim::ubx_cfg_rate, false, "64 00 01 00 05 00"},
    {"RATE too short", sim::ubx_cfg_rate, false, "64 00 01 00 01"},
    {"RATE too long", sim::ubx_cfg_rate, false, "64 00 01 00 01 00 00"},
    {"PRT UART 1", sim::ubx_cfg_prt, true,
     "01 00 00 00 d0 08 00 00 00 c2 01 00 07 00 03 00 00 00 00 00"},
    {"PRT another port", sim::ubx_cfg_prt, false,
     "02 00 00 00 d0 08 00 00 00 c2 01 00 07 00 03 00 00 00 00 00"},
    {"PRT odd baud rate", sim::ubx_cfg_prt, false,
     "01 00 00 00 d0 08 00 00 01 c2 01 00 07 00 03 00 00 00 00 00"},
    {"PRT seven bits", sim::ubx_cfg_prt, false,
     "01 00 00 00 90 08 00 00 00 c2 01 00 07 00 03 00 00 00 00 00"},
    {"PRT poll of this port", sim::ubx_cfg_prt, true, "01"},
    {"PRT poll of another port", sim::ubx_cfg_prt, false, "03"},
    {"MSG on this port", sim::ubx_cfg_msg, true, "f0 00 05"},
    {"MSG on all ports", sim::ubx_cfg_msg, true, "f0 00 00 05 00 00 00 00"},
    {"MSG poll", sim::ubx_cfg_msg, true, "f0 00"},
    {"MSG unknown", sim::ubx_cfg_msg, false, "f0 77 05"},
    {"MSG poll of an unknown one", sim::ubx_cfg_msg, false, "f0 77"},
    {"MSG empty", sim::ubx_cfg_msg, false, ""},
    {"INF both protocols", sim::ubx_cfg_inf, true,
     "00 00 00 00 00 00 00 00 00 00 01 00 00 00 00 00 00 00 00 00"},
    {"INF unknown protocol", sim::ubx_cfg_inf, false, "02 00 00 00 00 00 00 00 00 00"},
    {"INF half a block", sim::ubx_cfg_inf, false, "01 00 00 00 00"},
    {"NMEA short form", sim::ubx_cfg_nmea, true, "00 23 08 00"},
    {"NMEA middle form", sim::ubx_cfg_nmea, true, "00 41 00 00 00 00 00 00 01 05 01 00"},
    {"NMEA middle form with the long one's number", sim::ubx_cfg_nmea, false,
     "00 41 00 00 00 00 00 00 01 05 01 01"},
    {"NMEA version 2.2", sim::ubx_cfg_nmea, false, "00 22 00 00"},
    {"NMEA nine satellites", sim::ubx_cfg_nmea, false, "00 40 09 00"},
    {"NMEA talker 6", sim::ubx_cfg_nmea, false, "00 40 00 00 00 00 00 00 00 06 00 00"},
    {"NMEA five bytes", sim::ubx_cfg_nmea, false, "00 40 00 00 00"},
    {"PM2 long form", sim::ubx_cfg_pm2, true, "02 00 00 00 60 10 02 00" + zeros36 + " 00 00 00 00"},
    {"PM2 long form with the short one's number", sim::ubx_cfg_pm2, false,
     "01 00 00 00 60 10 00 00" + zeros36 + " 00 00 00 00"},
    {"PM2 unknown mode", sim::ubx_cfg_pm2, false, "01 00 00 00 60 10 04 00" + zeros36},
    {"GNSS two systems", sim::ubx_cfg_gnss, true, "00 00 20 02" + gps_on + glonass_on},
    {"GNSS all channels", sim::ubx_cfg_gnss, true, "00 00 ff 01" + gps_on},
    {"GNSS 33 channels", sim::ubx_cfg_gnss, false, "00 00 21 01" + gps_on},
    {"GNSS fewer blocks than told", sim::ubx_cfg_gnss, false, "00 00 20 02" + gps_on},
    {"GNSS one system twice", sim::ubx_cfg_gnss, false, "00 00 20 02" + gps_on + gps_on},
    {"GNSS reserved as many as there are", sim::ubx_cfg_gnss, true, "00 00 08 01" + gps_on},
    {"GNSS reserved over channels", sim::ubx_cfg_gnss, false, "00 00 07 01" + gps_on},
    {"GNSS reserved over maximum", sim::ubx_cfg_gnss, false, "00 00 20 01 00 08 07 00 01 00 01 00"},
    {"GNSS three channels for GPS", sim::ubx_cfg_gnss, false,
     "00 00 20 01 00 03 03 00 01 00 01 00"},
    {"GNSS nothing on", sim::ubx_cfg_gnss, false, "00 00 20 01 00 08 10 00 00 00 01 00"},
    {"GNSS unknown system", sim::ubx_cfg_gnss, false,
     "00 00 20 02" + gps_on + " 07 08 0e 00 01 00 01 00"},
    {"PWR state as a number", sim::ubx_cfg_pwr, true, "01 00 00 00 20 4e 55 52"},
    {"PWR unknown state", sim::ubx_cfg_pwr, false, "01 00 00 00 52 55 4e 00"},
    {"PWR unknown version", sim::ubx_cfg_pwr, false, "00 00 00 00 52 55 4e 20"},
    {"CFG without device", sim::ubx_cfg_cfg, true, "00 00 00 00 00 00 00 00 00 00 00 00"},
    {"CFG to flash only", sim::ubx_cfg_cfg, false, "00 00 00 00 1f 00 00 00 00 00 00 00 02"},
    {"CFG short", sim::ubx_cfg_cfg, false, "00 00 00 00 1f 00 00 00"},
    {"RST unknown mode", sim::ubx_cfg_rst, false, "00 00 03 00"},
    {"RST satellites stop", sim::ubx_cfg_rst, true, "00 00 08 00"},
    {"unknown frame", 0x06ff, false, ""},
    {"unknown class", 0x4242, false, "01"},
    {"NAV poll with a payload", sim::ubx_nav_posecef, false, "00"},
};

TEST(ReceiverConfig, ChecksLengthsAndValues) {
    for (const value_row &row : value_rows) {
        sim::receiver receiver(rig::instant());
        receiver.set_power(true, true, 0);
        const std::string before = receiver.describe(0);
        const std::string answer = ask(receiver, frame(row.key, row.payload), 0);
        const rig::bytes about{static_cast<uint8_t>(row.key >> 8),
                               static_cast<uint8_t>(row.key & 0xff)};
        const std::string end =
            rig::to_hex(sim::ubx_frame(row.accepted ? sim::ubx_ack_ack : sim::ubx_ack_nak, about));
        ASSERT_GE(answer.size(), end.size()) << row.name;
        EXPECT_EQ(answer.substr(answer.size() - end.size() - 1), end + "\n") << row.name;
        if (!row.accepted) {
            EXPECT_EQ(answer, end + "\n") << row.name << ": nothing but the refusal";
            EXPECT_EQ(receiver.describe(0), before) << row.name << ": nothing changed";
        }
    }
}

TEST_F(fresh_receiver, ShortNmeaFormLeavesTheRest) {
    tell(frame(sim::ubx_cfg_nmea, "00 40 00 00 72 00 00 00 00 01 01 00"));
    tell(frame(sim::ubx_cfg_nmea, "00 23 08 00"));
    EXPECT_EQ(tell(frame(sim::ubx_cfg_nmea, "")).substr(18, 59),
              "00 23 08 00 72 00 00 00 00 01 01 01 00 00 00 00 00 00 00 00");
}

TEST_F(fresh_receiver, TalkerFollowsSystemsAndMainTalker) {
    const auto talker = [&] { return tell(sentence("GPGPQ,ZDA")).substr(0, 6); };
    EXPECT_EQ(talker(), "$GNZDA");
    tell(frame(sim::ubx_cfg_gnss, "00 00 20 01" + gps_on));
    EXPECT_EQ(talker(), "$GPZDA");
    tell(frame(sim::ubx_cfg_nmea, "00 40 00 00 00 00 00 00 00 03 00 00"));
    EXPECT_EQ(talker(), "$GNZDA");
    EXPECT_EQ(tell(sentence("GPGPQ,GSV")).substr(0, 6), "$GPGSV") << "GSV by system";
    tell(frame(sim::ubx_cfg_nmea, "00 40 00 00 00 00 00 00 00 03 01 00"));
    EXPECT_EQ(tell(sentence("GPGPQ,GSV")).substr(0, 6), "$GNGSV") << "GSV by main talker";
}

TEST_F(fresh_receiver, ProtocolMasksClose) {
    const rig::bytes rate_poll = frame(sim::ubx_cfg_rate, "");
    const rig::bytes time_poll = sentence("GPGPQ,ZDA");
    struct row {
        const char *name, *sentence;
        bool text, frames;
    };
    constexpr row rows[] = {{"out nothing", "PUBX,41,1,0007,0000,9600,0", false, false},
                            {"out UBX", "PUBX,41,1,0007,0001,9600,0", false, true},
                            {"out NMEA", "PUBX,41,1,0007,0002,9600,0", true, false},
                            {"out both", "PUBX,41,1,0007,0003,9600,0", true, true},
                            {"another port", "PUBX,41,3,0000,0000,9600,0", true, true},
                            {"no baud rate", "PUBX,41,1,0000,0000,0,0", true, true},
                            {"not hexadecimal", "PUBX,41,1,0007,00x0,9600,0", true, true},
                            {"in NMEA", "PUBX,41,1,0002,0003,9600,0", true, false},
                            {"in UBX", "PUBX,41,1,0001,0003,9600,0", false, true}};
    for (const row &one : rows) {
        EXPECT_EQ(tell(sentence(one.sentence)), "") << one.name;
        EXPECT_EQ(!tell(time_poll).empty(), one.text) << one.name;
        EXPECT_EQ(!tell(rate_poll).empty(), one.frames) << one.name;
    }
}

struct with_battery : testing::Test {
    rig::temporary_file battery{"", "battery"};
    sim::receiver_options options = rig::instant();
    with_battery() { options.battery_file = battery.path; }
    // The rate a new receiver on this battery comes up with, milliseconds.
    int rate_at_power_on() {
        sim::receiver next(options);
        next.set_power(true, true, 0);
        const rig::bytes answer = from_hex(ask(next, frame(sim::ubx_cfg_rate, ""), 0));
        return answer.size() < 8 ? -1 : answer[6] | answer[7] << 8;
    }
    void save_100_ms() {
        sim::receiver first(options);
        first.set_power(true, true, 0);
        ask(first, frame(sim::ubx_cfg_rate, "64 00 01 00 01 00"), 0);
        ask(first, frame(sim::ubx_cfg_cfg, "00 00 00 00 1f 00 00 00 00 00 00 00 01"), 0);
    }
};

TEST_F(with_battery, KeepsOnlyWhatWasSaved) {
    sim::receiver receiver(options);
    receiver.set_power(true, true, 0);
    ask(receiver, frame(sim::ubx_cfg_rate, "64 00 01 00 01 00"), 0);
    ask(receiver, frame(sim::ubx_cfg_cfg, "00 00 00 00 17 00 00 00 00 00 00 00 01"), 0);
    EXPECT_EQ(rate_at_power_on(), 1000) << "all sections but navigation";
    ask(receiver, frame(sim::ubx_cfg_cfg, "00 00 00 00 08 00 00 00 00 00 00 00 01"), 0);
    EXPECT_EQ(rate_at_power_on(), 100);
    receiver.set_power(true, false, 1);
    receiver.set_power(true, true, 2);
    EXPECT_EQ(ask(receiver, frame(sim::ubx_cfg_rate, ""), 2).substr(0, 35),
              "b5 62 06 08 06 00 64 00 01 00 01 00");
}

TEST_F(with_battery, KeepsAllOfPowerOn) {
    sim::receiver first(options);
    first.set_power(true, true, 0);
    for (const char *type : {"GGA", "GLL", "GSA", "GSV", "RMC", "VTG"})
        ask(first, sentence("PUBX,40," + std::string(type) + ",0,0,0,0,0,0"), 0);
    for (const accepted_row &row : power_on_frames)
        ask(first, from_hex(row.frame), 0);
    sim::receiver next(options);
    next.set_power(true, true, 0);
    EXPECT_EQ(heard(next, 0), "") << "no start lines";
    for (const accepted_row &row : power_on_frames) {
        const rig::bytes set = from_hex(row.frame);
        const auto key = static_cast<uint16_t>(set[2] << 8 | set[3]);
        if (key == sim::ubx_cfg_cfg)
            continue;
        EXPECT_EQ(ask(next, frame(key, key == sim::ubx_cfg_inf ? "01" : ""), 0),
                  row.frame + " " + row.acknowledge)
            << row.name;
    }
    EXPECT_EQ(next.next_event(), std::nullopt) << "silent until asked";
}

TEST_F(with_battery, ClearsAndLoads) {
    save_100_ms();
    sim::receiver receiver(options);
    receiver.set_power(true, true, 0);
    const auto rate = [&] { return ask(receiver, frame(sim::ubx_cfg_rate, ""), 0).substr(18, 5); };
    ask(receiver, frame(sim::ubx_cfg_rate, "c8 00 01 00 01 00"), 0);
    EXPECT_EQ(rate(), "c8 00");
    ask(receiver, frame(sim::ubx_cfg_cfg, "00 00 00 00 00 00 00 00 1f 00 00 00 01"), 0);
    EXPECT_EQ(rate(), "64 00") << "loaded what was saved";
    ask(receiver, frame(sim::ubx_cfg_cfg, "1f 00 00 00 00 00 00 00 00 00 00 00 01"), 0);
    EXPECT_EQ(rate(), "64 00") << "clearing what is saved leaves what runs";
    EXPECT_EQ(rate_at_power_on(), 1000);
}

TEST_F(with_battery, DamageMakesAFreshReceiver) {
    save_100_ms();
    const std::string good = rig::content_of(battery.path);
    ASSERT_EQ(rate_at_power_on(), 100);
    const auto with = [&](const std::string &text) {
        std::ofstream(battery.path, std::ios::binary | std::ios::trunc) << text;
        return rate_at_power_on();
    };
    std::string flipped = good;
    flipped[good.find("0608 64") + 5] = '5';
    EXPECT_EQ(with(good), 100);
    EXPECT_EQ(with(flipped), 1000) << "one digit";
    EXPECT_EQ(with(good.substr(0, good.size() / 2)), 1000) << "half";
    EXPECT_EQ(with(good.substr(0, good.size() - 1)), 1000) << "last byte";
    EXPECT_EQ(with(good + good), 1000) << "twice";
    EXPECT_EQ(with(std::string(100000, '\0')), 1000) << "zeros";
    EXPECT_EQ(with(""), 1000) << "empty";
}

TEST_F(with_battery, RefusesToSaveWhereItCannot) {
    options.battery_file = battery.path + "/not/there";
    sim::receiver receiver(options);
    receiver.set_power(true, true, 0);
    ask(receiver, frame(sim::ubx_cfg_rate, "64 00 01 00 01 00"), 0);
    EXPECT_EQ(ask(receiver, frame(sim::ubx_cfg_cfg, "00 00 00 00 1f 00 00 00 00 00 00 00 01"), 0),
              "b5 62 05 00 02 00 06 09 16 3b\n");
    ask(receiver, frame(sim::ubx_cfg_cfg, "00 00 00 00 00 00 00 00 1f 00 00 00 01"), 0);
    EXPECT_EQ(ask(receiver, frame(sim::ubx_cfg_rate, ""), 0).substr(18, 5), "e8 03")
        << "what could not be saved is not there to load";
}

} // namespace
