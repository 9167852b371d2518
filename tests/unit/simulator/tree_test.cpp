// The directory that is a terminal.
#include "scratch_dir.h"
#include "tree.h"

#include <gtest/gtest.h>
#include <unistd.h>

namespace sim {
namespace {

struct terminal_directory : testing::Test {
    scratch_dir scratch;
    terminal_paths paths;
    bool fresh = false;
    std::string error;
    int make() { return tree_make("terminal", paths, fresh, error); }
};

TEST_F(terminal_directory, made_once_and_taken_up_again_with_everything_in_it) {
    const int lock = make();
    ASSERT_GE(lock, 0) << error;
    EXPECT_TRUE(fresh);
    EXPECT_EQ(make(), -1);
    close(lock);
    EXPECT_EQ(scratch_dir::read(paths.history), std::string("\x08\0\0\0\x08\0\0\0", 8));
    for (const std::string &file : {paths.settings, paths.battery, paths.stub, paths.history}) {
        scratch_dir::write(file, "kept");
        const int next = make();
        ASSERT_GE(next, 0) << error;
        EXPECT_FALSE(fresh);
        EXPECT_EQ(scratch_dir::read(file), "kept") << file;
        close(next);
    }
}

TEST_F(terminal_directory, somebody_elses_directory_is_left_alone) {
    for (const char *file : {"terminal/thesis.txt", "terminal/.simterm"}) {
        scratch_dir::write(file, "text\n");
        EXPECT_EQ(make(), -1) << file;
        EXPECT_EQ(scratch_dir::read(file), "text\n");
        EXPECT_FALSE(std::filesystem::exists("terminal/dev")) << file;
        std::filesystem::remove_all("terminal");
    }
}

} // namespace
} // namespace sim
