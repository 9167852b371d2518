// Power, start-up, time to first fix, periodic output, faults, and what comes in.
#include "receiver_rig.h"

#include <gtest/gtest.h>

#include <random>

namespace {

using rig::ask;
using rig::frame;
using rig::heard;
using rig::sentence;

const rig::bytes gga_poll = sentence("GPGPQ,GGA");
const rig::bytes zda_poll = sentence("GPGPQ,ZDA");

bool has_fix(sim::receiver &receiver, double now) {
    return ask(receiver, gga_poll, now).find(",1,03,") != std::string::npos;
}

size_t lines_in(const std::string &text) {
    return static_cast<size_t>(std::count(text.begin(), text.end(), '\n'));
}

TEST(ReceiverPower, NeedsBothLines) {
    sim::receiver receiver(rig::polled());
    constexpr struct {
        bool gpio102, gpio37, on;
    } rows[] = {{false, false, false}, {true, false, false}, {false, true, false},
                {true, true, true},    {true, false, false}, {true, true, true},
                {false, true, false}};
    double now = 0;
    for (const auto &row : rows) {
        receiver.set_power(row.gpio102, row.gpio37, ++now);
        EXPECT_EQ(receiver.powered(), row.on) << now;
        EXPECT_EQ(!ask(receiver, zda_poll, now).empty(), row.on) << now;
    }
}

TEST(ReceiverPower, HearsNothingUntilStarted) {
    sim::receiver_options options = rig::polled();
    options.startup_s = 0.5;
    sim::receiver receiver(options);
    receiver.set_power(true, true, 10);
    EXPECT_EQ(receiver.next_event(), 10.5);
    EXPECT_EQ(ask(receiver, zda_poll, 10.499), "");
    EXPECT_EQ(ask(receiver, rig::bytes(zda_poll.begin(), zda_poll.begin() + 5), 10.4995), "");
    EXPECT_EQ(ask(receiver, rig::bytes(zda_poll.begin() + 5, zda_poll.end()), 10.5), "");
    EXPECT_NE(ask(receiver, zda_poll, 10.5), "");
}

TEST(ReceiverPower, ForgetsUnsavedSettingsAndUnsentAnswers) {
    sim::receiver receiver(rig::instant());
    receiver.set_power(true, true, 0);
    receiver.input(sentence("PUBX,41,1,0007,0000,9600,0"), 0);
    receiver.set_power(false, false, 1);
    receiver.set_power(true, true, 2);
    EXPECT_NE(ask(receiver, zda_poll, 2), "");
    receiver.input(zda_poll, 3);
    receiver.set_power(false, true, 3);
    EXPECT_EQ(heard(receiver, 3), "");
}

struct first_fix : testing::Test {
    rig::temporary_file battery{"", "battery"};
    double wall = 1704110400.0;
    sim::receiver_options options = rig::polled();
    first_fix() {
        options.instant_fix = false;
        options.battery_file = battery.path;
        options.wall_clock = [this] { return wall; };
    }
    // Seconds from power-on at `start` to the first fix; then off again after `hours`.
    int wait(double start) {
        sim::receiver receiver(options);
        receiver.set_power(true, true, start);
        int seconds = 0;
        while (seconds < 100 && !has_fix(receiver, start + seconds))
            ++seconds;
        receiver.set_power(false, false, start + seconds);
        return seconds;
    }
};

TEST_F(first_fix, IsColdWarmOrHot) {
    EXPECT_EQ(wait(0), 29);
    EXPECT_EQ(wait(5000), 1) << "off for no time";
    wall += 4 * 3600 - 1;
    EXPECT_EQ(wait(0), 1) << "off for a second less than 4 h, on another steady clock";
    wall += 4 * 3600;
    EXPECT_EQ(wait(0), 25) << "off for 4 h";
    EXPECT_EQ(wait(0), 1) << "and hot again";
    wall -= 60;
    EXPECT_EQ(wait(0), 25) << "the clock went back: orbits of unknown age";
    std::ofstream(battery.path, std::ios::trunc) << "damaged";
    EXPECT_EQ(wait(0), 29);
    options.battery_file.clear();
    EXPECT_EQ(wait(0), 29);
    EXPECT_EQ(wait(0), 29) << "no battery";
}

TEST_F(first_fix, SurvivesAProcessThatJustEnds) {
    {
        sim::receiver receiver(options);
        receiver.set_power(true, true, 0);
        heard(receiver, 29);
    }
    EXPECT_EQ(wait(0), 1);
}

TEST_F(first_fix, ResetForgetsWhatItIsTold) {
    wait(0);
    struct row {
        const char *name, *payload;
        int seconds;
    };
    constexpr row rows[] = {{"hot", "00 00 02 00", 1},
                            {"warm", "01 00 02 00", 25},
                            {"cold", "ff ff 02 00", 29},
                            {"cold, whole receiver", "ff ff 01 00", 29}};
    for (const row &one : rows) {
        sim::receiver receiver(options);
        receiver.set_power(true, true, 0);
        ASSERT_TRUE(has_fix(receiver, 1)) << one.name;
        ask(receiver, frame(0x0604, one.payload), 2);
        EXPECT_FALSE(has_fix(receiver, 2 + one.seconds - 1)) << one.name;
        EXPECT_TRUE(has_fix(receiver, 2 + one.seconds)) << one.name;
    }
}

TEST_F(first_fix, ColdSearchLearnsTimeThenDate) {
    sim::receiver receiver(options);
    receiver.set_power(true, true, 0);
    EXPECT_EQ(ask(receiver, zda_poll, 14), "$GPZDA,,,,,00,00*48\r\n");
    EXPECT_EQ(ask(receiver, zda_poll, 15), "$GPZDA,120000.00,,,,00,00*65\r\n");
    EXPECT_EQ(ask(receiver, sentence("GPGPQ,GSV"), 15).substr(0, 29),
              "$GPGSV,1,1,03,04,,,30,05,,,31")
        << "heard, but without a place in the sky";
    EXPECT_EQ(ask(receiver, zda_poll, 22), "$GPZDA,120000.00,01,01,2024,00,00*61\r\n");
    heard(receiver, 29);
    receiver.set_power(false, false, 30);
    receiver.set_power(true, true, 40);
    EXPECT_EQ(ask(receiver, zda_poll, 40), "$GPZDA,120000.00,01,01,2024,00,00*61\r\n")
        << "the battery's clock";
}

TEST(ReceiverGnss, StopsRunsAndSleeps) {
    sim::receiver receiver(rig::polled());
    receiver.set_power(true, true, 0);
    const auto set = [&](const char *state) { return ask(receiver, frame(0x0657, state), 1); };
    ASSERT_TRUE(has_fix(receiver, 0));
    EXPECT_EQ(set("01 00 00 00 53 54 4f 50"), "b5 62 05 01 02 00 06 57 65 8e\n");
    EXPECT_FALSE(has_fix(receiver, 1));
    EXPECT_EQ(ask(receiver, sentence("GPGPQ,GSV"), 1), "$GPGSV,1,1,00*79\r\n");
    EXPECT_NE(ask(receiver, zda_poll, 1).find("2024"), std::string::npos) << "the clock runs on";
    set("01 00 00 00 52 55 4e 20");
    EXPECT_TRUE(has_fix(receiver, 1));
    EXPECT_EQ(set("01 00 00 00 42 43 4b 50"), "b5 62 05 01 02 00 06 57 65 8e\n") << "backup";
    EXPECT_EQ(ask(receiver, zda_poll, 2), "") << "wakes it, and is lost";
    EXPECT_NE(ask(receiver, zda_poll, 2), "");
}

TEST(ReceiverGnss, WithoutGpsThereIsNoFix) {
    sim::receiver receiver(rig::polled());
    receiver.set_power(true, true, 0);
    ask(receiver, frame(0x063e, "00 00 20 01 06 08 0e 00 01 00 01 00"), 0);
    EXPECT_FALSE(has_fix(receiver, 0));
}

// Runs from next_event to next_event; what goes out, with its times.
std::vector<std::pair<double, std::string>> run(sim::receiver &receiver, double until) {
    std::vector<std::pair<double, std::string>> said;
    while (receiver.next_event() && *receiver.next_event() <= until) {
        const double now = *receiver.next_event();
        for (const rig::bytes &one : receiver.take_output(now))
            said.emplace_back(now, std::string(one.begin(), one.end()).substr(0, 6));
    }
    return said;
}

TEST(ReceiverPeriodic, FreshReceiverSpeaksUnasked) {
    sim::receiver receiver(rig::instant());
    receiver.set_power(true, true, 100);
    const auto said = run(receiver, 101);
    const std::vector<std::pair<double, std::string>> expected{
        {100, "$GNTXT"}, {100, "$GNTXT"}, {100, "$GNTXT"}, {101, "$GNGGA"}, {101, "$GNGLL"},
        {101, "$GNGSA"}, {101, "$GPGSV"}, {101, "$GNRMC"}, {101, "$GNVTG"}};
    EXPECT_EQ(said, expected);
}

TEST(ReceiverPeriodic, RatesCountEpochs) {
    sim::receiver receiver(rig::polled());
    receiver.set_power(true, true, 0);
    EXPECT_EQ(receiver.next_event(), std::nullopt) << "quiet until asked";
    receiver.input(sentence("PUBX,40,ZDA,9,5,9,9,9,0"), 0);
    receiver.input(frame(0x0608, "c8 00 01 00 01 00"), 0);
    receiver.input(frame(0x0601, "01 01 0a"), 0);
    heard(receiver, 0);
    size_t sentences = 0, frames = 0;
    for (const auto &[when, text] : run(receiver, 10.0 + 1e-6))
        (text == "$GPZDA" ? sentences : frames) += 1;
    EXPECT_EQ(sentences, 10U) << "every fifth of 200 ms";
    EXPECT_EQ(frames, 5U) << "every tenth";
    receiver.input(sentence("PUBX,40,ZDA,0,0,0,0,0,0"), 10.1);
    receiver.input(sentence("PUBX,41,1,0007,0002,9600,0"), 10.1);
    EXPECT_EQ(receiver.next_event(), std::nullopt);
}

TEST(ReceiverPeriodic, IgnoresHalfARate) {
    sim::receiver receiver(rig::polled());
    receiver.set_power(true, true, 0);
    for (const char *body :
         {"PUBX,40,ZDA,0,1,0,0", "PUBX,40,ZDA,0,256,0,0,0,0", "PUBX,40,ZDA,0,,0,0,0,0",
          "PUBX,40,TXT,0,1,0,0,0,0", "PUBX,40,,0,1,0,0,0,0", "PUBX,40"}) {
        receiver.input(sentence(body), 0);
        EXPECT_EQ(receiver.next_event(), std::nullopt) << body;
    }
}

TEST(ReceiverPeriodic, LateCallerGetsTheNewestEpochOnly) {
    sim::receiver receiver(rig::instant());
    receiver.set_power(true, true, 0);
    heard(receiver, 0);
    EXPECT_EQ(lines_in(heard(receiver, 3600.5)), 7U) << "six messages, GSV of two lines";
    EXPECT_EQ(receiver.next_event(), 3601.0);
}

TEST(ReceiverPeriodic, EpochsStandOnWholePeriods) {
    sim::receiver_options options = rig::polled();
    options.truth = [](double seconds) {
        sim::epoch now = rig::known_epoch();
        now.time->second = 7.25 + seconds;
        return now;
    };
    sim::receiver receiver(options);
    receiver.set_power(true, true, 50);
    const auto time = [&](double now) { return ask(receiver, zda_poll, now).substr(7, 9); };
    EXPECT_EQ(time(50.74), "120007.25") << "before the first epoch";
    EXPECT_EQ(time(50.76), "120008.00");
    EXPECT_EQ(time(51.74), "120008.00");
    receiver.input(frame(0x0608, "64 00 01 00 01 00"), 51.74);
    EXPECT_EQ(time(51.74), "120008.90");
    EXPECT_EQ(time(51.76), "120009.00");
}

TEST(ReceiverFaults, SwitchAtAnyTime) {
    sim::receiver receiver(rig::polled());
    receiver.set_power(true, true, 0);
    sim::receiver_faults &faults = receiver.faults();
    const rig::bytes rate = frame(0x0608, "64 00 01 00 01 00");
    faults.silent = true;
    EXPECT_EQ(ask(receiver, gga_poll, 0), "");
    EXPECT_EQ(ask(receiver, rate, 0), "");
    faults = {};
    faults.no_fix = true;
    EXPECT_EQ(ask(receiver, gga_poll, 0), "$GPGGA,120000.00,,,,,0,00,99.99,,,,,,*65\r\n");
    EXPECT_EQ(ask(receiver, frame(0x0101, ""), 0).substr(30, 47),
              "c4 43 04 26 00 00 00 00 00 00 00 00 ff ff ff ff");
    faults = {};
    faults.empty_fields = true;
    EXPECT_EQ(ask(receiver, gga_poll, 0), "$GPGGA,,,,,,,,,,,,,,*56\r\n");
    EXPECT_EQ(ask(receiver, sentence("GPGPQ,GSV"), 0),
              "$GPGSV,2,1,,,,,,,,,,,,,,,,,*7A\r\n$GPGSV,2,2,,,,,*79\r\n");
    faults = {};
    faults.week_rollover = true;
    EXPECT_EQ(ask(receiver, zda_poll, 0), "$GPZDA,120000.00,17,05,2004,00,00*60\r\n");
    EXPECT_EQ(ask(receiver, sentence("PUBX,04"), 0).substr(0, 44),
              "$PUBX,04,120000.00,170504,129600.00,1271,18,");
    faults = {};
    faults.nak_frames = {0x0608};
    EXPECT_EQ(ask(receiver, rate, 0), "b5 62 05 00 02 00 06 08 15 3a\n");
    faults.nak_frames.clear();
    faults.ignored_frames = {0x0608};
    EXPECT_EQ(ask(receiver, rate, 0), "");
    faults = {};
    EXPECT_TRUE(has_fix(receiver, 0));
}

TEST(ReceiverInput, TakesAnyPieces) {
    sim::receiver receiver(rig::polled());
    receiver.set_power(true, true, 0);
    rig::bytes both = frame(0x0608, "64 00 01 00 01 00");
    both.insert(both.end(), zda_poll.begin(), zda_poll.end());
    for (size_t cut = 0; cut <= both.size(); ++cut) {
        const auto middle = both.begin() + static_cast<std::ptrdiff_t>(cut);
        receiver.input(rig::bytes(both.begin(), middle), 0);
        receiver.input(rig::bytes(middle, both.end()), 0);
        EXPECT_EQ(heard(receiver, 0), "b5 62 05 01 02 00 06 08 16 3f\n"
                                      "$GPZDA,120000.00,01,01,2024,00,00*61\r\n")
            << cut;
    }
}

TEST(ReceiverInput, FindsACommandBehindGarbage) {
    const std::string long_body(300, 'A');
    const std::pair<const char *, rig::bytes> rows[] = {
        {"zeros", rig::bytes(50, 0)},
        {"lone sync", rig::from_hex("b5")},
        {"two syncs", rig::from_hex("b5 b5 62 b5 62")},
        {"frame longer than any", rig::from_hex("b5 62 06 08 01 01")},
        {"dollar", {'$'}},
        {"cut sentence", {'$', 'G', 'P', 'G', 'P', 'Q', ',', 'G', 'G'}},
        {"cut checksum", {'$', 'G', 'P', 'G', 'P', 'Q', ',', 'Z', 'D', 'A', '*', '0'}},
        {"carriage return in a sentence", {'$', 'G', 'P', '\r', 'Q', '\n'}},
        {"sentence longer than any", sentence(long_body)},
        {"bare star", {'$', '*', '0', '0', '\r', '\n'}},
        {"high bytes", rig::bytes(300, 0xff)},
    };
    for (const auto &[name, garbage] : rows) {
        sim::receiver receiver(rig::polled());
        receiver.set_power(true, true, 0);
        receiver.input(garbage, 0);
        EXPECT_EQ(ask(receiver, zda_poll, 0), "$GPZDA,120000.00,01,01,2024,00,00*61\r\n") << name;
    }
}

TEST(ReceiverInput, GivesUpACutFrameAfterASecond) {
    sim::receiver receiver(rig::polled());
    receiver.set_power(true, true, 0);
    const rig::bytes cut = rig::from_hex("b5 62 06 3b 2c 00 01 00");
    receiver.input(cut, 0);
    EXPECT_EQ(ask(receiver, zda_poll, 1.0), "") << "may still be its payload";
    receiver.input(cut, 10);
    EXPECT_NE(ask(receiver, zda_poll, 11.1), "");
}

TEST(ReceiverInput, SurvivesAnything) {
    std::mt19937 random(1);
    sim::receiver receiver(rig::instant());
    receiver.set_power(true, true, 0);
    constexpr const char *starts[] = {"$GPGPQ,", "$PUBX,4", "\xb5\x62\x06", "\xb5\x62\x01", ""};
    double now = 0;
    size_t most = 0;
    for (int round = 0; round < 4000; ++round) {
        const std::string start = starts[random() % std::size(starts)];
        rig::bytes data(start.begin(), start.end());
        for (size_t left = random() % 40; left > 0; --left)
            data.push_back(static_cast<uint8_t>(random()));
        // Every other one gets past the checksum and into the tables.
        if (round % 2 == 0)
            data = frame(static_cast<uint16_t>(0x0600 | random() % 0x60), rig::to_hex(data));
        receiver.input(data, now += 0.01);
        if (round % 100 == 0)
            most = std::max(most, receiver.take_output(now).size());
        if (round % 20 == 0)
            receiver.describe(now);
    }
    EXPECT_GT(most, 0U);
    for (int poll = 0; poll < 1000; ++poll)
        receiver.input(frame(0x0608, ""), now);
    EXPECT_LE(receiver.take_output(now).size(), 256U) << "what nobody fetches is bounded";
}

} // namespace
