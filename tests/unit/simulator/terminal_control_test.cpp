// The control socket and the table of faults.
#include "control.h"
#include "control_faults.h"
#include "terminal_loop.h"

#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <gtest/gtest.h>
#include <thread>

namespace sim {
namespace {

struct fault_case {
    const char *text; // as behind --fault
    const char *summary;
    const char *error; // part of it; "" = accepted
};

const fault_case FAULT_CASES[] = {
    {"silent", "silent", ""},
    {"silent=1", "none", "fault silent takes no argument"},
    {"checksum", "checksum", ""},
    {"unplugged", "unplugged", ""},
    {"no-fix", "no-fix", ""},
    {"empty-fields", "empty-fields", ""},
    {"week-rollover", "week-rollover", ""},
    {"cut", "cut", ""},
    {"cut=1", "cut=1", ""},
    {"cut=0", "none", "from 1 to 4096"},
    {"cut=4096", "cut=4096", ""},
    {"cut=4097", "none", "from 1 to 4096"},
    {"cut=", "none", "nothing behind the ="},
    {"cut=5x", "none", "whole number"},
    {"cut=-1", "none", "whole number"},
    {"garbage-before", "garbage-before=16", ""},
    {"garbage-after=3", "garbage-after=3", ""},
    {"noise", "noise=20", ""},
    {"noise=1000", "noise=1000", ""},
    {"noise=1001", "none", "from 1 to 1000"},
    {"late", "late=4000", ""},
    {"late=250", "late=250", ""},
    {"nak=0608", "nak=0608", ""},
    {"nak", "none", "four hexadecimal digits"},
    {"nak=608", "none", "four hexadecimal digits"},
    {"nak=06081", "none", "four hexadecimal digits"},
    {"nak=0x06", "none", "four hexadecimal digits"},
    {"ignore=063e", "ignore=063E", ""},
    {"ta-silent", "ta-silent", ""},
    {"ta-late", "ta-late=16000", ""},
    {"ta-overlong", "ta-overlong=201", ""},
    {"ta-overlong=200", "none", "from 201 to 4294967295"},
    {"slient", "none", "no fault \"slient\"; there are: silent cut"},
    {"", "none", "no fault"},
};

TEST(faults, switching_on) {
    for (const fault_case &row : FAULT_CASES) {
        line_faults wire;
        receiver_faults module;
        ta_faults unit;
        std::string error;
        EXPECT_EQ(fault_switch_on({wire, module, unit}, row.text, error), row.error[0] == '\0')
            << row.text << ": " << error;
        EXPECT_NE(error.find(row.error), std::string::npos) << row.text << ": " << error;
        EXPECT_EQ(fault_summary({wire, module, unit}), row.summary) << row.text;
    }
}

// The names alone would not show a row that acts on its neighbour's member.
TEST(faults, each_acts_on_its_own_member) {
    line_faults wire;
    receiver_faults module;
    ta_faults unit;
    std::string error;
    const auto on = [&](const char *text) {
        wire = {};
        module = {};
        unit = {};
        ASSERT_TRUE(fault_switch_on({wire, module, unit}, text, error)) << error;
    };
    on("silent");
    EXPECT_TRUE(module.silent);
    on("cut=7");
    EXPECT_TRUE(wire.cut);
    EXPECT_EQ(wire.cut_bytes, 7U);
    on("checksum");
    EXPECT_TRUE(wire.checksum);
    on("garbage-before=5");
    EXPECT_EQ(wire.garbage_before, 5U);
    on("garbage-after=6");
    EXPECT_EQ(wire.garbage_after, 6U);
    on("noise=8");
    EXPECT_EQ(wire.noise, 8U);
    on("late=9");
    EXPECT_EQ(wire.late_ms, 9U);
    on("unplugged");
    EXPECT_TRUE(wire.unplugged);
    on("nak=0608");
    EXPECT_EQ(module.nak_frames, std::vector<uint16_t>{0x0608});
    on("ignore=0609");
    EXPECT_EQ(module.ignored_frames, std::vector<uint16_t>{0x0609});
    on("no-fix");
    EXPECT_TRUE(module.no_fix);
    on("empty-fields");
    EXPECT_TRUE(module.empty_fields);
    on("week-rollover");
    EXPECT_TRUE(module.week_rollover);
    on("ta-silent");
    EXPECT_TRUE(unit.silent);
    on("ta-late=11");
    EXPECT_EQ(unit.late_ms, 11U);
    on("ta-overlong=300");
    EXPECT_EQ(unit.claimed_length, 300U);
}

TEST(faults, switching_off) {
    line_faults wire;
    receiver_faults module;
    ta_faults unit;
    const fault_targets targets{wire, module, unit};
    std::string error;
    for (const char *text : {"cut=5", "late", "checksum", "nak=0608", "nak=063E", "nak=0608"}) {
        ASSERT_TRUE(fault_switch_on(targets, text, error)) << error;
    }
    EXPECT_EQ(fault_summary(targets), "cut=5 checksum late=4000 nak=063E,0608");
    EXPECT_TRUE(fault_switch(targets, "cut", "", false, error));
    EXPECT_TRUE(fault_switch(targets, "late", "", false, error));
    EXPECT_TRUE(fault_switch(targets, "nak", "063E", false, error));
    EXPECT_EQ(fault_summary(targets), "checksum nak=0608");
    EXPECT_TRUE(fault_switch(targets, "nak", "", false, error));
    EXPECT_TRUE(fault_switch(targets, "checksum", "", false, error));
    EXPECT_EQ(fault_summary(targets), "none");
    EXPECT_TRUE(fault_switch(targets, "checksum", "", false, error)); // off already
}

// A server in the loop of this thread, asked from another.
struct control_socket : testing::Test {
    std::string directory;
    std::string path;
    std::string error;

    void SetUp() override {
        std::string name = testing::TempDir() + "/control_XXXXXX";
        ASSERT_NE(mkdtemp(name.data()), nullptr);
        directory = name;
        path = directory + "/control";
    }
    void TearDown() override {
        control_close();
        loop_close();
        std::filesystem::remove_all(directory);
    }

    // The result and the answer, as "ok:text".
    std::string ask(const std::vector<std::string> &words) {
        std::string answer;
        std::atomic<bool> done = false;
        control_result result{};
        std::thread client([&] {
            result = control_ask(path, words, 5, answer);
            done = true;
        });
        loop_add_timer([] { return loop_now() + 0.001; }, [] {});
        loop_until([&] { return done.load(); }, loop_now() + 10);
        client.join();
        const char *const names[] = {"ok:", "refused:", "unreachable:"};
        return names[static_cast<int>(result)] + answer;
    }
};

TEST_F(control_socket, words_go_in_and_the_answer_comes_back) {
    const auto handler = [](const std::vector<std::string> &words,
                            int) -> std::optional<control_reply> {
        std::string text;
        for (const std::string &word : words) {
            text += "[" + word + "]";
        }
        return control_reply{words.size() == 3, text + "\nand more\n"};
    };
    ASSERT_TRUE(control_open(path, handler, error)) << error;
    EXPECT_EQ(ask({"fault", "cut", "on"}), "ok:[fault][cut][on]\nand more\n");
    EXPECT_EQ(ask({"status"}), "refused:[status]\nand more\n");
    EXPECT_EQ(ask({}), "refused:\nand more\n");
}

TEST_F(control_socket, answer_may_come_later) {
    int waiting = -1;
    const auto handler = [&](const std::vector<std::string> &words,
                             int client) -> std::optional<control_reply> {
        if (words.front() == "wait") {
            waiting = client;
            return std::nullopt;
        }
        control_answer(waiting, {true, "at last"});
        return control_reply{true, ""};
    };
    ASSERT_TRUE(control_open(path, handler, error)) << error;
    std::string answer;
    control_result result = control_result::unreachable;
    std::thread first([&] { result = control_ask(path, {"wait"}, 5, answer); });
    loop_add_timer([] { return loop_now() + 0.001; }, [] {});
    loop_until([&] { return waiting >= 0; }, loop_now() + 10);
    EXPECT_EQ(ask({"go"}), "ok:");
    first.join();
    EXPECT_EQ(result, control_result::ok);
    EXPECT_EQ(answer, "at last");
    control_answer(waiting, {true, "twice"}); // gone already: nothing happens
}

TEST_F(control_socket, nobody_there) {
    EXPECT_EQ(ask({"status"}).find("unreachable:no simulated terminal at"), 0U);
}

TEST_F(control_socket, terminal_that_goes_away_without_an_answer) {
    int waiting = -1;
    ASSERT_TRUE(control_open(
        path,
        [&](const std::vector<std::string> &, int client) -> std::optional<control_reply> {
            waiting = client;
            return std::nullopt;
        },
        error));
    std::string answer;
    control_result result = control_result::ok;
    std::thread client([&] { result = control_ask(path, {"wait"}, 5, answer); });
    loop_add_timer([] { return loop_now() + 0.001; }, [] {});
    loop_until([&] { return waiting >= 0; }, loop_now() + 10);
    control_close();
    client.join();
    EXPECT_EQ(result, control_result::unreachable);
    EXPECT_EQ(answer, "the terminal went away without an answer");
}

// A socket address holds 107 characters.
TEST_F(control_socket, deep_directory) {
    directory += "/" + std::string(120, 'd');
    std::filesystem::create_directories(directory);
    path = directory + "/control";
    const auto handler = [](const std::vector<std::string> &, int) -> std::optional<control_reply> {
        return control_reply{true, "deep"};
    };
    ASSERT_TRUE(control_open(path, handler, error)) << error;
    EXPECT_EQ(ask({"x"}), "ok:deep");
    directory = std::filesystem::path(directory).parent_path();
}

} // namespace
} // namespace sim
