// The GPIO tree of plain files, driven by the writes that a program makes, alone and as the
// receiver's power lines.
#include "gpio_tree.h"
#include "scratch_dir.h"
#include "terminal.h"
#include "terminal_loop.h"
#include "terminal_say.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

namespace sim {
namespace {

TEST(gpio_tree, lines_meant) {
    const struct {
        const char *content;
        std::vector<int> exported, meant;
    } rows[] = {
        {"102", {37, 102}, {102}},
        {"37\n", {37, 102}, {37}},
        {"372\n", {37, 102}, {102, 37}}, // the second number over the first
        {"372", {37}, {}},
        {"372", {37, 102, 372}, {372}},
        {"36", {37, 102}, {}},
        {"37x", {37, 102}, {}},
        {"", {37, 102}, {}},
    };
    for (const auto &row : rows)
        EXPECT_EQ(gpio_lines_meant(row.content, row.exported), row.meant) << row.content;
}

// As the daemon does: write-only, no creation, no truncation, one write.
void put(const std::string &file, std::string_view text) {
    const int fd = open(file.c_str(), O_WRONLY | O_CLOEXEC);
    ASSERT_GE(fd, 0) << file;
    EXPECT_EQ(write(fd, text.data(), text.size()), static_cast<ssize_t>(text.size()));
    close(fd);
}

struct gpio_tree_on_disk : testing::Test {
    scratch_dir scratch;
    gpio_tree tree;

    void SetUp() override {
        std::string error;
        ASSERT_TRUE(gpio_tree_open(tree, scratch.path() / "gpio", error)) << error;
        std::filesystem::current_path("gpio");
    }
    void TearDown() override { gpio_tree_close(tree); }

    // What people are told, joined with "|".
    std::string step() {
        std::string text;
        for (const std::string &event : gpio_tree_step(tree))
            text += (text.empty() ? "" : "|") + event;
        return text;
    }
};

TEST_F(gpio_tree_on_disk, the_sequence_of_a_start_and_a_stop) {
    EXPECT_FALSE(std::filesystem::exists("gpio102"));
    put("export", "102");
    EXPECT_EQ(step(), "gpio102 exported");
    EXPECT_EQ(scratch_dir::read("gpio102/direction"), "in\n");
    EXPECT_EQ(scratch_dir::read("gpio102/value"), "0\n");
    put("gpio102/direction", "out");
    put("gpio102/value", "1"); // before anybody looked at the direction
    EXPECT_EQ(step(), "gpio102 direction out|gpio102 = 1");
    EXPECT_TRUE(gpio_tree_level(tree, 102));
    put("export", "37");
    EXPECT_EQ(step(), "gpio37 exported");
    // Both unexports land before the tree looks.
    put("unexport", "102");
    put("unexport", "37");
    EXPECT_EQ(step(), "gpio102 unexported|gpio37 unexported");
    EXPECT_FALSE(std::filesystem::exists("gpio102"));
    EXPECT_TRUE(gpio_tree_level(tree, 102)) << "the pin keeps driving";
    EXPECT_TRUE(gpio_tree_export(tree, 102));
    EXPECT_EQ(scratch_dir::read("gpio102/direction"), "out\n");
    EXPECT_EQ(scratch_dir::read("gpio102/value"), "1\n");
}

TEST_F(gpio_tree_on_disk, writes) {
    constexpr struct {
        const char *from, *file, *text, *told, *direction, *value;
    } rows[] = {
        {"high", "gpio37/value", "0\n", "gpio37 = 0", "out\n", "0\n"},
        {"high", "gpio37/value", "7", "", "out\n", "1\n"},
        {"high", "gpio37/value", "x", "gpio37 value \"x\" refused", "out\n", "1\n"},
        {"high", "gpio37/direction", "in", "gpio37 direction in", "in\n", "1\n"},
        {"high", "gpio37/direction", "low", "gpio37 direction out", "out\n", "0\n"},
        {"high", "gpio37/direction", "up!", "gpio37 direction \"up!\" refused", "out\n", "1\n"},
        {"in", "gpio37/value", "0", "gpio37 is an input: value \"0\" refused", "in\n", "1\n"},
        {"high", "export", "37", "gpio export of \"37\" refused", "out\n", "1\n"},
        {"high", "unexport", "36", "gpio unexport of \"36\" refused", "out\n", "1\n"},
        {"high", "export", "224", "gpio export of \"224\" refused", "out\n", "1\n"},
        {"high", "export", "223", "gpio223 exported", "out\n", "1\n"},
    };
    ASSERT_TRUE(gpio_tree_export(tree, 37));
    for (const auto &row : rows) {
        put("gpio37/direction", "high");
        step();
        put("gpio37/direction", row.from);
        step();
        put(row.file, row.text);
        EXPECT_EQ(step(), row.told) << row.text;
        EXPECT_EQ(scratch_dir::read("gpio37/direction"), row.direction) << row.text;
        EXPECT_EQ(scratch_dir::read("gpio37/value"), row.value) << row.text;
        EXPECT_EQ(gpio_tree_level(tree, 37), row.value[0] == '1') << row.text;
        EXPECT_EQ(scratch_dir::read("export") + scratch_dir::read("unexport"), "") << row.text;
    }
}

TEST(terminal, receiver_is_on_with_both_power_lines_up) {
    const scratch_dir scratch;
    const terminal_paths paths = tree_paths(scratch.path());
    std::filesystem::create_directories("dev");
    std::string error;
    say_to_stderr(true); // the test's own findings go to stdout
    ASSERT_TRUE(terminal_up({}, paths, 1, error)) << error;
    constexpr std::pair<const char *, const char *> rows[] = {
        {"gpio102", "gpio102=1 gpio37=0 receiver off\n"},
        {"gpio37", "gpio102=1 gpio37=1 receiver on\n"}};
    for (const auto &[line, told] : rows) {
        put(paths.gpio + "/" + line + "/direction", "high");
        terminal_step();
        EXPECT_EQ(terminal_power(), told);
    }
    terminal_down();
    loop_close();
}

} // namespace
} // namespace sim
