// The faults by name: arguments and effects.
#include "control_faults.h"

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
        unit = {};
        error.clear();
        EXPECT_EQ(fault_switch_on(targets(), row.text, error), row.error[0] == '\0') << row.text;
        EXPECT_NE(error.find(row.error), std::string::npos) << row.text << ": " << error;
        EXPECT_EQ(fault_summary(targets()), row.summary) << row.text;
    }
}

TEST_F(faults, each_acts_on_its_own_member) {
    const std::pair<const char *, const bool *> switches[] = {
        {"silent", &module.silent},
        {"cut", &wire.cut},
        {"checksum", &wire.checksum},
        {"unplugged", &wire.unplugged},
        {"no-fix", &module.no_fix},
        {"empty-fields", &module.empty_fields},
        {"week-rollover", &module.week_rollover},
        {"ta-silent", &unit.silent}};
    for (const auto &[name, member] : switches) {
        EXPECT_FALSE(*member) << name;
        EXPECT_TRUE(fault_switch_on(targets(), name, error)) << error;
        EXPECT_TRUE(*member) << name;
        EXPECT_TRUE(fault_switch(targets(), name, "", false, error)) << error;
        EXPECT_EQ(fault_summary(targets()), "none") << name;
    }
    const std::pair<const char *, const unsigned *> numbers[] = {
        {"cut=207", &wire.cut_bytes},
        {"garbage-before=205", &wire.garbage_before},
        {"garbage-after=206", &wire.garbage_after},
        {"noise=208", &wire.noise},
        {"late=209", &wire.late_ms},
        {"ta-late=211", &unit.late_ms},
        {"ta-overlong=300", &unit.claimed_length}};
    for (const auto &[text, member] : numbers) {
        EXPECT_TRUE(fault_switch_on(targets(), text, error)) << error;
        EXPECT_TRUE(std::string(text).ends_with("=" + std::to_string(*member))) << text;
    }
    for (const char *text : {"nak=0608", "nak=063E", "nak=0608", "ignore=0609"})
        EXPECT_TRUE(fault_switch_on(targets(), text, error)) << error;
    EXPECT_TRUE(fault_switch(targets(), "nak", "063E", false, error));
    EXPECT_EQ(module.nak_frames, std::vector<uint16_t>{0x0608});
    EXPECT_EQ(module.ignored_frames, std::vector<uint16_t>{0x0609});
}

} // namespace
} // namespace sim
