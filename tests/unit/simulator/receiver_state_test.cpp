// Power, start-up, time to first fix, periodic output, and what comes in.
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
    for (const int lines : {0, 1, 2, 3, 2}) {
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
    // Seconds from power-on to the first fix. The process then just ends.
    const auto wait = [&] {
        rig::powered receiver(options);
        int seconds = 0;
        while (seconds < 100 &&
               ask(receiver, "GPGPQ,GGA", seconds).find(",1,03,") == std::string::npos)
            ++seconds;
        return seconds;
    };
    EXPECT_EQ(wait(), 29);
    wall += 4 * 3600 - 1;
    EXPECT_EQ(wait(), 1) << "off for a second less than 4 h";
    wall += 4 * 3600;
    EXPECT_EQ(wait(), 25) << "off for 4 h";
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
    for (const char *one : {"PUBX,40,ZDA,9,5,9,9,9,0", "0608 c8 00 01 00 01 00", "0601 01 01 0a"})
        ask(receiver, one);
    EXPECT_EQ(run(receiver, 4 + 1e-6), "ZDA ZDA UBX ZDA ZDA UBX ") << "each fifth and tenth 200 ms";
}

TEST(ReceiverInput, FindsACommandBehindGarbage) {
    const struct {
        const char *name;
        rig::bytes garbage;
        double pause; // before the command
    } rows[] = {
        {"frame longer than any", rig::from_hex("b5 62 06 08 01 01"), 0},
        {"cut checksum", rig::as_bytes("$GPGPQ,ZDA*0"), 0},
        {"sentence longer than any", command(std::string(300, 'A')), 0},
        {"a frame cut more than a second ago", rig::from_hex("b5 62 06 3b 2c 00 01 00"), 1.1},
    };
    for (const auto &row : rows) {
        rig::powered receiver;
        receiver.input(row.garbage, 0);
        EXPECT_EQ(ask(receiver, zda_poll, row.pause), known_zda) << row.name;
    }
}

} // namespace
