// The control socket and the table of faults.
#include "control.h"
#include "control_faults.h"
#include "scratch_dir.h"
#include "terminal_loop.h"

#include <atomic>
#include <gtest/gtest.h>
#include <thread>

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
        {"cut=1", "cut=1", ""},
        {"cut=4096", "cut=4096", ""},
        {"cut=4097", "none", "from 1 to 4096"},
        {"cut=", "none", "nothing behind the ="},
        {"cut=5x", "none", "whole number"},
        {"cut=-1", "none", "whole number"},
        {"noise", "noise=20", ""},
        {"noise=1001", "none", "from 1 to 1000"},
        {"nak", "none", "four hexadecimal digits"},
        {"nak=06081", "none", "four hexadecimal digits"},
        {"nak=0x06", "none", "four hexadecimal digits"},
        {"ignore=063e", "ignore=063E", ""},
        {"ta-overlong", "ta-overlong=201", ""},
        {"ta-overlong=200", "none", "from 201 to 4294967295"},
        {"slient", "none", "no fault \"slient\"; there are: silent cut"},
        {"", "none", "no fault"},
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

// A server in the loop of this thread, asked from another.
struct control_socket : testing::Test {
    scratch_dir scratch;
    std::string path = scratch.path() / "control";
    std::string error;
    int waiting = -1;

    void TearDown() override {
        control_close();
        loop_close();
    }
    // Says the words back; "wait" is left without an answer.
    void serve() {
        const auto handler = [this](const std::vector<std::string> &words,
                                    int client) -> std::optional<control_reply> {
            const std::string first = words.empty() ? "" : words.front();
            if (first == "wait") {
                waiting = client;
                return std::nullopt;
            }
            return control_reply{words.size() == 3, first + "\nand more\n"};
        };
        ASSERT_TRUE(control_open(path, handler, error)) << error;
    }
    // The result and the answer, as "ok:text", after `then` in the loop.
    std::string ask(const std::vector<std::string> &words, const std::function<void()> &then = {}) {
        std::string answer;
        std::atomic<bool> done = false;
        control_result result{};
        waiting = -1;
        std::thread client([&] {
            result = control_ask(path, words, 5, answer);
            done = true;
        });
        loop_add_timer([] { return loop_now() + 0.001; }, [] {});
        loop_until([&] { return done || waiting >= 0; }, loop_now() + 10);
        if (then)
            then();
        loop_until([&] { return done.load(); }, loop_now() + 10);
        client.join();
        const char *const names[] = {"ok:", "refused:", "unreachable:"};
        return names[static_cast<int>(result)] + answer;
    }
};

TEST_F(control_socket, answers_at_once_later_or_never) {
    EXPECT_EQ(ask({"status"}).find("unreachable:no simulated terminal at"), 0U);
    serve();
    EXPECT_EQ(ask({"fault", "cut", "on"}), "ok:fault\nand more\n");
    EXPECT_EQ(ask({"status"}), "refused:status\nand more\n");
    EXPECT_EQ(ask({}), "refused:\nand more\n");
    EXPECT_EQ(ask({"wait"}, [this] { control_answer(waiting, {true, "at last"}); }), "ok:at last");
    control_answer(waiting, {true, "twice"}); // gone already: nothing happens
    EXPECT_EQ(ask({"wait"}, control_close), "unreachable:the terminal went away without an answer");
}

// A socket address holds 107 characters.
TEST_F(control_socket, deep_directory) {
    const std::filesystem::path deep = scratch.path() / std::string(120, 'd');
    std::filesystem::create_directory(deep);
    path = deep / "control";
    serve();
    EXPECT_EQ(ask({"a", "b", "c"}), "ok:a\nand more\n");
}

} // namespace
} // namespace sim
