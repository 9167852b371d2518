// Power, start-up, time to first fix, periodic output, faults, and what comes in.
#include "receiver_rig.h"

#include <gtest/gtest.h>

namespace {

using rig::ask;
using rig::command;
using rig::heard;
using rig::known_zda;
using rig::zda_poll;

TEST(ReceiverPower, NeedsBothLinesAndTimeToStart) {
    sim::receiver_options options = rig::options();
    options.startup_s = 0.5;
    sim::receiver receiver(options);
    double now = 0;
    for (const int lines : {0, 1, 2, 3, 1, 3, 2}) {
        receiver.set_power((lines & 1) != 0, (lines & 2) != 0, ++now);
        EXPECT_EQ(ask(receiver, zda_poll, now + 0.499), "");
        EXPECT_EQ(ask(receiver, zda_poll, now + 0.5) == known_zda, lines == 3) << now;
    }
}

TEST(ReceiverPower, ForgetsUnsavedSettingsAndUnsentAnswers) {
    rig::powered receiver(rig::options(false));
    receiver.input(command("PUBX,41,1,0007,0000,9600,0"), 0);
    receiver.set_power(false, false, 1);
    receiver.set_power(true, true, 2);
    EXPECT_NE(ask(receiver, zda_poll, 2), "");
    receiver.input(command(zda_poll), 3);
    receiver.set_power(false, true, 3);
    EXPECT_EQ(heard(receiver, 3), "");
}

TEST(ReceiverPower, FirstFixIsColdWarmOrHot) {
    const scratch_dir scratch;
    double wall = 1704110400.0;
    sim::receiver_options options = rig::options();
    options.instant_fix = false;
    options.battery_file = "battery";
    options.wall_clock = [&wall] { return wall; };
    const auto has_fix = [](sim::receiver &receiver, double now) {
        return ask(receiver, "GPGPQ,GGA", now).find(",1,03,") != std::string::npos;
    };
    // Seconds from power-on to the first fix. The process then just ends.
    const auto wait = [&] {
        rig::powered receiver(options);
        int seconds = 0;
        while (seconds < 100 && !has_fix(receiver, seconds))
            ++seconds;
        return seconds;
    };
    EXPECT_EQ(wait(), 29);
    wall += 4 * 3600 - 1;
    EXPECT_EQ(wait(), 1) << "off for a second less than 4 h";
    wall += 4 * 3600;
    EXPECT_EQ(wait(), 25) << "off for 4 h";
    scratch_dir::write("battery", "damaged");
    EXPECT_EQ(wait(), 29);
    constexpr std::pair<const char *, int> rows[] = {
        {"0604 00 00 02 00", 1}, {"0604 01 00 02 00", 25}, {"0604 ff ff 01 00", 29}};
    for (const auto &[reset, seconds] : rows) {
        rig::powered receiver(options);
        ASSERT_TRUE(has_fix(receiver, 1)) << reset;
        ask(receiver, reset, 2);
        EXPECT_FALSE(has_fix(receiver, 2 + seconds - 1)) << reset;
        EXPECT_TRUE(has_fix(receiver, 2 + seconds)) << reset;
    }
    std::filesystem::remove("battery");
    rig::powered cold(options); // learns the time, then the date
    EXPECT_EQ(ask(cold, zda_poll, 15), "$GPZDA,120000.00,,,,00,00*65\r\n");
    EXPECT_EQ(ask(cold, zda_poll, 22), known_zda);
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
    rig::powered blank(rig::options(false));
    EXPECT_EQ(run(blank, 1), "TXT TXT TXT GGA GLL GSA GSV RMC VTG ");
    rig::powered receiver;
    for (const char *half : {"PUBX,40,ZDA,0,1,0,0", "PUBX,40,ZDA,0,256,0,0,0,0", "PUBX,40"}) {
        receiver.input(command(half), 0);
        EXPECT_EQ(receiver.next_event(), std::nullopt) << half;
    }
    for (const char *one : {"PUBX,40,ZDA,9,5,9,9,9,0", "0608 c8 00 01 00 01 00", "0601 01 01 0a"})
        ask(receiver, one);
    EXPECT_EQ(run(receiver, 4 + 1e-6), "ZDA ZDA UBX ZDA ZDA UBX ") << "each fifth and tenth 200 ms";
}

TEST(ReceiverInput, TakesAnyPieces) {
    rig::powered receiver;
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
    const struct {
        const char *name;
        rig::bytes garbage;
        double pause; // before the command
    } rows[] = {
        {"frame longer than any", rig::from_hex("b5 62 06 08 01 01"), 0},
        {"cut checksum", rig::as_bytes("$GPGPQ,ZDA*0"), 0},
        {"carriage return in a sentence", rig::as_bytes("$GP\rQ\n"), 0},
        {"sentence longer than any", command(std::string(300, 'A')), 0},
        {"high bytes", rig::bytes(300, 0xff), 0},
        {"a frame cut more than a second ago", rig::from_hex("b5 62 06 3b 2c 00 01 00"), 1.1},
    };
    for (const auto &row : rows) {
        rig::powered receiver;
        receiver.input(row.garbage, 0);
        EXPECT_EQ(ask(receiver, zda_poll, row.pause), known_zda) << row.name;
    }
}

} // namespace
