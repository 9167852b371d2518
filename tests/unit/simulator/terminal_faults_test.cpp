// The faults by name: arguments and effects.
#include "control_faults.h"

#include <functional>
#include <gtest/gtest.h>

namespace sim {
namespace {

struct faults : testing::Test {
    line_faults wire;
    receiver_faults module;
    ta_faults unit;
    std::string error;
    fault_targets targets() { return {wire, module, unit}; }
};

TEST_F(faults, arguments) {
    constexpr struct {
        const char *text; // as behind --fault
        const char *summary;
        const char *error; // part of it; "" = accepted
    } rows[] = {
        {"silent=1", "none", "fault silent takes no argument"},
        {"cut=0", "none", "from 1 to 4096"},
        {"cut=4096", "cut=4096", ""},
        {"cut=4097", "none", "from 1 to 4096"},
        {"cut=", "none", "nothing behind the ="},
        {"nak=0x06", "none", "four hexadecimal digits"},
        {"ignore=063e", "ignore=063E", ""},
        {"ta-overlong=200", "none", "from 201 to 4294967295"},
        {"slient", "none", "no fault \"slient\"; there are: silent cut"},
    };
    for (const auto &row : rows) {
        wire = {};
        module = {};
        error.clear();
        EXPECT_EQ(fault_switch_on(targets(), row.text, error), row.error[0] == '\0') << row.text;
        EXPECT_NE(error.find(row.error), std::string::npos) << row.text << ": " << error;
        EXPECT_EQ(fault_summary(targets()), row.summary) << row.text;
    }
}

// Those that the system tests do not switch.
TEST_F(faults, each_acts_on_its_own_member) {
    const struct {
        const char *text;
        std::function<bool()> acts;
    } rows[] = {
        {"no-fix", [this] { return module.no_fix; }},
        {"week-rollover", [this] { return module.week_rollover; }},
        {"ta-silent", [this] { return unit.silent; }},
        {"cut=207", [this] { return wire.cut && wire.cut_bytes == 207; }},
        {"garbage-after=206", [this] { return wire.garbage_after == 206; }},
        {"noise=208", [this] { return wire.noise == 208; }},
        {"late=209", [this] { return wire.late_ms == 209; }},
        {"ta-late=211", [this] { return unit.late_ms == 211; }},
        {"ta-overlong=300", [this] { return unit.claimed_length == 300; }},
    };
    for (const auto &[text, acts] : rows) {
        EXPECT_FALSE(acts()) << text;
        EXPECT_TRUE(fault_switch_on(targets(), text, error)) << error;
        EXPECT_TRUE(acts()) << text;
        const std::string name(std::string_view(text).substr(0, std::string_view(text).find('=')));
        EXPECT_TRUE(fault_switch(targets(), name, "", false, error)) << error;
        EXPECT_EQ(fault_summary(targets()), "none") << text;
    }
    for (const char *text : {"nak=0608", "nak=063E", "nak=0608", "ignore=0609"})
        EXPECT_TRUE(fault_switch_on(targets(), text, error)) << error;
    EXPECT_TRUE(fault_switch(targets(), "nak", "063E", false, error));
    EXPECT_EQ(module.nak_frames, std::vector<uint16_t>{0x0608});
    EXPECT_EQ(module.ignored_frames, std::vector<uint16_t>{0x0609});
}

} // namespace
} // namespace sim
