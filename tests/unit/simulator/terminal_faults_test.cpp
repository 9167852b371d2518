// The faults by name: arguments and effects.
#include "control_faults.h"
#include "receiver_rig.h"

#include <gtest/gtest.h>

namespace sim {
namespace {

struct faults : testing::Test {
    line_faults wire;
    rig::powered module;
    ta_faults unit;
    std::string error;
    fault_targets targets() { return {wire, module.faults(), unit}; }
};

TEST_F(faults, arguments) {
    constexpr struct {
        const char *text; // as behind --fault
        const char *summary;
        const char *error; // part of it; "" = accepted
    } rows[] = {
        {"cut=0", "none", "from 1 to 4096"},
        {"cut=4096", "cut=4096", ""},
        {"cut=4097", "none", "from 1 to 4096"},
        {"cut=", "none", "nothing behind the ="},
        {"nak=0x06", "none", "four hexadecimal digits"},
        {"ta-overlong=200", "none", "from 201 to 4294967295"},
        {"slient", "none", "no fault \"slient\"; there are: silent cut"},
    };
    for (const auto &row : rows) {
        wire = {};
        module.faults() = {};
        error.clear();
        EXPECT_EQ(fault_switch_on(targets(), row.text, error), row.error[0] == '\0') << row.text;
        EXPECT_NE(error.find(row.error), std::string::npos) << row.text << ": " << error;
        EXPECT_EQ(fault_summary(targets()), row.summary) << row.text;
    }
}

// Those whose effect the system tests do not show.
TEST_F(faults, each_acts_until_it_is_switched_off) {
    constexpr const char *rate = "0608 64 00 01 00 01 00";
    constexpr const char *ack = "b5 62 05 01 02 00 06 08 16 3f\n";
    const struct {
        const char *name, *argument, *asked, *answer;
        const unsigned *number; // of a fault that acts elsewhere: becomes the argument
    } rows[] = {
        {"silent", "", rate, "", nullptr},
        {"no-fix", "", "GPGPQ,GGA", "$GPGGA,120000.00,,,,,0,00,99.99,,,,,,*65\r\n", nullptr},
        {"week-rollover", "", rig::zda_poll, "$GPZDA,120000.00,17,05,2004,00,00*60\r\n", nullptr},
        {"nak", "0608", rate, "b5 62 05 00 02 00 06 08 15 3a\n", nullptr},
        {"nak", "0609", rate, ack, nullptr},
        {"ignore", "0608", rate, "", nullptr},
        {"cut", "207", rate, ack, &wire.cut_bytes},
        {"garbage-after", "206", rate, ack, &wire.garbage_after},
        {"noise", "208", rate, ack, &wire.noise},
        {"late", "209", rate, ack, &wire.late_ms},
        {"ta-late", "211", rate, ack, &unit.late_ms},
        {"ta-overlong", "300", rate, ack, &unit.claimed_length},
    };
    for (const auto &row : rows) {
        EXPECT_TRUE(fault_switch(targets(), row.name, row.argument, true, error)) << error;
        EXPECT_EQ(rig::ask(module, row.asked), row.answer) << row.name;
        EXPECT_TRUE(row.number == nullptr || std::to_string(*row.number) == row.argument)
            << row.name;
        EXPECT_TRUE(fault_switch(targets(), row.name, row.argument, false, error)) << error;
        EXPECT_EQ(fault_summary(targets()), "none") << row.name;
    }
    EXPECT_EQ(rig::ask(module, rig::zda_poll), rig::known_zda);
}

} // namespace
} // namespace sim
