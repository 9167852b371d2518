// Power, start-up, time to first fix, periodic output, faults, and what comes in.
#include "receiver_rig.h"

#include <gtest/gtest.h>

namespace {

using rig::ask;
using rig::command;
using rig::heard;
using rig::known_zda;
using rig::zda_poll;

bool has_fix(sim::receiver &receiver, double now) {
    return ask(receiver, "GPGPQ,GGA", now).find(",1,03,") != std::string::npos;
}

TEST(ReceiverPower, NeedsBothLines) {
    sim::receiver receiver(rig::polled());
    double now = 0;
    for (const int lines : {0, 1, 2, 3, 1, 3, 2}) {
        receiver.set_power((lines & 1) != 0, (lines & 2) != 0, ++now);
        EXPECT_EQ(ask(receiver, zda_poll, now) == known_zda, lines == 3) << now;
    }
}

TEST(ReceiverPower, HearsNothingUntilStarted) {
    sim::receiver_options options = rig::polled();
    options.startup_s = 0.5;
    sim::receiver receiver(options);
    receiver.set_power(true, true, 10);
    EXPECT_EQ(receiver.next_event(), 10.5);
    EXPECT_EQ(ask(receiver, zda_poll, 10.499), "");
    EXPECT_EQ(ask(receiver, zda_poll, 10.5), known_zda);
}

TEST(ReceiverPower, ForgetsUnsavedSettingsAndUnsentAnswers) {
    rig::powered receiver(rig::fresh());
    receiver.input(command("PUBX,41,1,0007,0000,9600,0"), 0);
    receiver.set_power(false, false, 1);
    receiver.set_power(true, true, 2);
    EXPECT_NE(ask(receiver, zda_poll, 2), "");
    receiver.input(command(zda_poll), 3);
    receiver.set_power(false, true, 3);
    EXPECT_EQ(heard(receiver, 3), "");
}

struct first_fix : testing::Test {
    scratch_dir scratch;
    double wall = 1704110400.0;
    sim::receiver_options options = rig::polled();
    first_fix() {
        options.instant_fix = false;
        options.battery_file = "battery";
        options.wall_clock = [this] { return wall; };
    }
    // Seconds from power-on to the first fix. The process then just ends.
    int wait() {
        rig::powered receiver(options);
        int seconds = 0;
        while (seconds < 100 && !has_fix(receiver, seconds))
            ++seconds;
        return seconds;
    }
};

TEST_F(first_fix, IsColdWarmOrHot) {
    EXPECT_EQ(wait(), 29);
    EXPECT_EQ(wait(), 1) << "off for no time";
    wall += 4 * 3600 - 1;
    EXPECT_EQ(wait(), 1) << "off for a second less than 4 h";
    wall += 4 * 3600;
    EXPECT_EQ(wait(), 25) << "off for 4 h";
    EXPECT_EQ(wait(), 1) << "and hot again";
    scratch_dir::write("battery", "damaged");
    EXPECT_EQ(wait(), 29);
}

TEST_F(first_fix, ResetForgetsWhatItIsTold) {
    wait();
    constexpr std::pair<const char *, int> rows[] = {
        {"0604 00 00 02 00", 1}, {"0604 01 00 02 00", 25}, {"0604 ff ff 01 00", 29}};
    for (const auto &[reset, seconds] : rows) {
        rig::powered receiver(options);
        ASSERT_TRUE(has_fix(receiver, 1)) << reset;
        ask(receiver, reset, 2);
        EXPECT_FALSE(has_fix(receiver, 2 + seconds - 1)) << reset;
        EXPECT_TRUE(has_fix(receiver, 2 + seconds)) << reset;
    }
}

TEST_F(first_fix, ColdSearchLearnsTimeThenDate) {
    rig::powered receiver(options);
    EXPECT_EQ(ask(receiver, zda_poll, 14), "$GPZDA,,,,,00,00*48\r\n");
    EXPECT_EQ(ask(receiver, zda_poll, 15), "$GPZDA,120000.00,,,,00,00*65\r\n");
    EXPECT_EQ(ask(receiver, zda_poll, 22), known_zda);
}

// Runs from next_event to next_event; what goes out.
std::string run(sim::receiver &receiver, double until) {
    std::string said;
    while (receiver.next_event() && *receiver.next_event() <= until)
        for (const rig::bytes &one : receiver.take_output(*receiver.next_event()))
            said += one[0] == '$' ? std::string(&one[3], &one[6]) + " " : "UBX ";
    return said;
}

TEST(ReceiverPeriodic, SpeaksUnaskedUntilToldAndThenByEpochs) {
    rig::powered blank(rig::fresh());
    EXPECT_EQ(run(blank, 1), "TXT TXT TXT GGA GLL GSA GSV RMC VTG ");
    rig::powered receiver(rig::polled());
    for (const char *half : {"PUBX,40,ZDA,0,1,0,0", "PUBX,40,ZDA,0,256,0,0,0,0", "PUBX,40"}) {
        receiver.input(command(half), 0);
        EXPECT_EQ(receiver.next_event(), std::nullopt) << half;
    }
    for (const char *one : {"PUBX,40,ZDA,9,5,9,9,9,0", "0608 c8 00 01 00 01 00", "0601 01 01 0a"})
        ask(receiver, one, 0);
    EXPECT_EQ(run(receiver, 4 + 1e-6), "ZDA ZDA UBX ZDA ZDA UBX ") << "each fifth and tenth 200 ms";
}

TEST(ReceiverFaults, SwitchAtAnyTime) {
    using faults = sim::receiver_faults;
    const std::string rate = "0608 64 00 01 00 01 00";
    const std::tuple<bool faults::*, std::string, std::string> rows[] = {
        {&faults::silent, zda_poll, ""},
        {&faults::silent, rate, ""},
        {&faults::no_fix, "GPGPQ,GGA", "$GPGGA,120000.00,,,,,0,00,99.99,,,,,,*65\r\n"},
        {&faults::empty_fields, "GPGPQ,GGA", "$GPGGA,,,,,,,,,,,,,,*56\r\n"},
        {&faults::week_rollover, zda_poll, "$GPZDA,120000.00,17,05,2004,00,00*60\r\n"},
    };
    rig::powered receiver(rig::polled());
    for (const auto &[fault, asked, answer] : rows) {
        receiver.faults().*fault = true;
        EXPECT_EQ(ask(receiver, asked, 0), answer);
        receiver.faults().*fault = false;
    }
    EXPECT_EQ(ask(receiver, zda_poll, 0), known_zda);
    receiver.faults().nak_frames = {0x0608};
    EXPECT_EQ(ask(receiver, rate, 0), "b5 62 05 00 02 00 06 08 15 3a\n");
    receiver.faults().nak_frames.clear();
    receiver.faults().ignored_frames = {0x0608};
    EXPECT_EQ(ask(receiver, rate, 0), "");
}

TEST(ReceiverInput, TakesAnyPieces) {
    rig::powered receiver(rig::polled());
    rig::bytes both = command("0608 64 00 01 00 01 00");
    const rig::bytes second = command(zda_poll);
    both.insert(both.end(), second.begin(), second.end());
    for (size_t cut = 0; cut <= both.size(); ++cut) {
        receiver.input(std::span(both).first(cut), 0);
        receiver.input(std::span(both).subspan(cut), 0);
        EXPECT_EQ(heard(receiver, 0), std::string("b5 62 05 01 02 00 06 08 16 3f\n") + known_zda)
            << cut;
    }
}

TEST(ReceiverInput, FindsACommandBehindGarbage) {
    const std::pair<const char *, rig::bytes> rows[] = {
        {"frame longer than any", rig::from_hex("b5 62 06 08 01 01")},
        {"cut checksum", rig::as_bytes("$GPGPQ,ZDA*0")},
        {"carriage return in a sentence", rig::as_bytes("$GP\rQ\n")},
        {"sentence longer than any", command(std::string(300, 'A'))},
        {"high bytes", rig::bytes(300, 0xff)},
    };
    for (const auto &[name, garbage] : rows) {
        rig::powered receiver(rig::polled());
        receiver.input(garbage, 0);
        EXPECT_EQ(ask(receiver, zda_poll, 0), known_zda) << name;
    }
}

TEST(ReceiverInput, GivesUpACutFrameAfterASecond) {
    rig::powered receiver(rig::polled());
    const rig::bytes cut = rig::from_hex("b5 62 06 3b 2c 00 01 00");
    receiver.input(cut, 0);
    EXPECT_EQ(ask(receiver, zda_poll, 1.0), "") << "may still be its payload";
    receiver.input(cut, 10);
    EXPECT_EQ(ask(receiver, zda_poll, 11.1), known_zda);
}

} // namespace
