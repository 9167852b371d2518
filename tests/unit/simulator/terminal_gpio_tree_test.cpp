// The GPIO tree of plain files, driven by the writes that a program makes.
#include "gpio_tree.h"

#include <algorithm>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <sstream>
#include <unistd.h>

namespace sim {
namespace {

struct meant_case {
    const char *name;
    const char *content;
    std::vector<int> exported;
    std::vector<int> meant;
};

const meant_case MEANT_CASES[] = {
    {"one", "102", {37, 102}, {102}},
    {"line_end", "37\n", {37, 102}, {37}},
    {"second_over_first", "372", {37, 102}, {102, 37}},
    {"second_over_first_with_line_end", "372\n", {37, 102}, {102, 37}},
    {"first_was_not_exported", "372", {37}, {}},
    {"second_was_not_exported", "372", {102}, {}},
    {"whole_number_before_two", "372", {37, 102, 372}, {372}},
    {"not_exported", "36", {37, 102}, {}},
    {"no_number", "abc", {37, 102}, {}},
    {"trailing_text", "37x", {37, 102}, {}},
    {"empty", "", {37, 102}, {}},
};

TEST(gpio_tree, lines_meant) {
    for (const meant_case &row : MEANT_CASES) {
        EXPECT_EQ(gpio_lines_meant(row.content, row.exported), row.meant) << row.name;
    }
}

struct gpio_tree_on_disk : testing::Test {
    std::string root;
    gpio_tree tree;

    void SetUp() override {
        std::string name = testing::TempDir() + "/gpio_XXXXXX";
        ASSERT_NE(mkdtemp(name.data()), nullptr);
        root = name;
        std::string error;
        ASSERT_TRUE(gpio_tree_open(tree, root, error)) << error;
    }
    void TearDown() override {
        gpio_tree_close(tree);
        std::filesystem::remove_all(root);
    }

    // As the daemon does: write-only, no creation, no truncation, one write.
    bool put(const std::string &name, std::string_view text) const {
        const int fd = open((root + "/" + name).c_str(), O_WRONLY | O_CLOEXEC);
        if (fd < 0) {
            return false;
        }
        const bool done = write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
        close(fd);
        return done;
    }
    std::string get(const std::string &name) const {
        std::stringstream text;
        text << std::ifstream(root + "/" + name).rdbuf();
        return text.str();
    }
    bool there(const std::string &name) const { return std::filesystem::exists(root + "/" + name); }

    // What people are told, joined with "|".
    std::string step() {
        std::string text;
        for (const std::string &event : gpio_tree_step(tree)) {
            text += (text.empty() ? "" : "|") + event;
        }
        return text;
    }
};

TEST_F(gpio_tree_on_disk, nothing_is_exported_at_first) {
    EXPECT_TRUE(there("export"));
    EXPECT_TRUE(there("unexport"));
    EXPECT_FALSE(there("gpio102"));
    EXPECT_EQ(step(), "");
}

TEST_F(gpio_tree_on_disk, the_sequence_of_a_start_and_a_stop) {
    ASSERT_TRUE(put("export", "102"));
    EXPECT_EQ(step(), "gpio102 exported");
    EXPECT_EQ(get("gpio102/direction"), "in\n");
    EXPECT_EQ(get("gpio102/value"), "0\n");
    ASSERT_TRUE(put("gpio102/direction", "out"));
    ASSERT_TRUE(put("gpio102/value", "1")); // before anybody looked at the direction
    EXPECT_EQ(step(), "gpio102 direction out|gpio102 = 1");
    EXPECT_TRUE(gpio_tree_level(tree, 102));
    EXPECT_EQ(get("gpio102/direction"), "out\n");
    ASSERT_TRUE(put("export", "37"));
    EXPECT_EQ(step(), "gpio37 exported");
    // Both unexports land before the tree looks.
    ASSERT_TRUE(put("unexport", "102"));
    ASSERT_TRUE(put("unexport", "37"));
    EXPECT_EQ(step(), "gpio102 unexported|gpio37 unexported");
    EXPECT_FALSE(there("gpio102"));
    EXPECT_FALSE(there("gpio37"));
    EXPECT_TRUE(gpio_tree_level(tree, 102)); // the pin keeps driving
    // Exported again, it shows what the pin does.
    EXPECT_TRUE(gpio_tree_export(tree, 102));
    EXPECT_EQ(get("gpio102/direction"), "out\n");
    EXPECT_EQ(get("gpio102/value"), "1\n");
    EXPECT_EQ(step(), "");
}

struct write_case {
    const char *name;
    const char *file;
    const char *text;
    const char *told;
    const char *direction; // afterwards
    const char *value;
};

// Each row starts from a line that is an output at 1.
const write_case WRITE_CASES[] = {
    {"low", "value", "0", "gpio37 = 0", "out\n", "0\n"},
    {"same", "value", "1", "", "out\n", "1\n"},
    {"shell", "value", "0\n", "gpio37 = 0", "out\n", "0\n"},
    {"any_number_is_high", "value", "7", "", "out\n", "1\n"},
    {"no_number", "value", "x", "gpio37 value \"x\" refused", "out\n", "1\n"},
    {"in_over_out", "direction", "in", "gpio37 direction in", "in\n", "1\n"},
    {"out_again", "direction", "out", "", "out\n", "1\n"},
    {"out_low", "direction", "low", "gpio37 direction out", "out\n", "0\n"},
    {"no_direction", "direction", "up!", "gpio37 direction \"up!\" refused", "out\n", "1\n"},
};

TEST_F(gpio_tree_on_disk, writes) {
    ASSERT_TRUE(gpio_tree_export(tree, 37));
    for (const write_case &row : WRITE_CASES) {
        ASSERT_TRUE(put("gpio37/direction", "high"));
        step();
        ASSERT_TRUE(put(std::string("gpio37/") + row.file, row.text));
        EXPECT_EQ(step(), row.told) << row.name;
        EXPECT_EQ(get("gpio37/direction"), row.direction) << row.name;
        EXPECT_EQ(get("gpio37/value"), row.value) << row.name;
        EXPECT_EQ(gpio_tree_level(tree, 37), row.value[0] == '1') << row.name;
        step();
    }
}

TEST_F(gpio_tree_on_disk, input_cannot_be_driven) {
    ASSERT_TRUE(gpio_tree_export(tree, 37));
    ASSERT_TRUE(put("gpio37/value", "1"));
    EXPECT_EQ(step(), "gpio37 is an input: value \"1\" refused");
    EXPECT_EQ(get("gpio37/value"), "0\n");
    EXPECT_FALSE(gpio_tree_level(tree, 37));
}

TEST_F(gpio_tree_on_disk, refused_numbers_change_nothing) {
    ASSERT_TRUE(gpio_tree_export(tree, 37));
    ASSERT_TRUE(put("export", "37"));
    EXPECT_EQ(step(), "gpio export of \"37\" refused");
    ASSERT_TRUE(put("unexport", "36"));
    EXPECT_EQ(step(), "gpio unexport of \"36\" refused");
    EXPECT_TRUE(there("gpio37/value"));
    ASSERT_TRUE(put("export", "224")); // the lines are 0 to 223
    EXPECT_EQ(step(), "gpio export of \"224\" refused");
    ASSERT_TRUE(put("export", "223"));
    EXPECT_EQ(step(), "gpio223 exported");
    EXPECT_EQ(get("export"), ""); // ready for the next number
    EXPECT_EQ(get("unexport"), "");
}

} // namespace
} // namespace sim
