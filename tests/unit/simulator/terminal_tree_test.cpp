// The directory that is a terminal, the command line's source of truth, processes, the loop.
#include "scratch_dir.h"
#include "terminal_loop.h"
#include "terminal_process.h"
#include "terminal_say.h"
#include "terminal_source.h"
#include "terminal_tree.h"

#include <csignal>
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
    for (const char *name : {"/dev", "/sys/class", "/user/location", "/bus", "/log", "/etc"})
        EXPECT_TRUE(std::filesystem::is_directory(paths.root + name)) << name;
    // The daemon reads 21 bytes for the switch and 23 for the place, whatever the line says.
    EXPECT_EQ(scratch_dir::read(paths.stub), "STATIC_LOCATION = OFF\n7007.939,N,01131.000,E\n");
    int board = 0;
    ASSERT_TRUE(tree_configure(paths, {}, board, error)) << error;
    EXPECT_EQ(scratch_dir::read(paths.hal),
              "[board]\ntype=1\n\n[log]\ntarget=file\nlevel=info\nfile=" + paths.log +
                  "\n\n[power]\ndirectory=" + paths.power + "\n");
    terminal_options options;
    options.board = 2;
    ASSERT_TRUE(tree_configure(paths, options, board, error)) << error;
    ASSERT_TRUE(tree_configure(paths, {}, board, error)) << error;
    EXPECT_EQ(board, 2) << "what is not asked for is kept";
    EXPECT_EQ(make(), -1);
    EXPECT_NE(error.find("another simterm"), std::string::npos) << error;
    for (const std::string &file : {paths.settings, paths.battery, paths.stub})
        scratch_dir::write(file, "kept");
    close(lock);
    const int next = make();
    ASSERT_GE(next, 0) << error;
    EXPECT_FALSE(fresh);
    for (const std::string &file : {paths.settings, paths.battery, paths.stub})
        EXPECT_EQ(scratch_dir::read(file), "kept") << file;
    close(next);
}

TEST_F(terminal_directory, somebody_elses_directory_is_left_alone) {
    constexpr std::pair<const char *, const char *> rows[] = {
        {"terminal", "making directory"},
        {"terminal/thesis.txt", "neither empty nor a simulated terminal"},
        {"terminal/.simterm", "not the mark of a terminal"}};
    for (const auto &[file, reason] : rows) {
        scratch_dir::write(file, "text\n");
        EXPECT_EQ(make(), -1) << file;
        EXPECT_NE(error.find(reason), std::string::npos) << error;
        EXPECT_EQ(scratch_dir::read(file), "text\n");
        EXPECT_FALSE(std::filesystem::exists("terminal/dev")) << file;
        std::filesystem::remove_all("terminal");
    }
}

TEST(source, places_times_and_files) {
    using options = terminal_options;
    const std::tuple<std::string options::*, const char *, const char *> rows[] = {
        {&options::place, "", ""},
        {&options::place, "-90,180,-12.5", ""},
        {&options::place, "90.1,0", "--place 90.1,0"},
        {&options::place, "0,180.1", "--place"},
        {&options::place, "1", "--place"},
        {&options::place, "1,2,", "--place"},
        {&options::place, "nan,2", "--place"},
        {&options::ttff, "29,25,1", ""},
        {&options::ttff, "29,25", "--ttff"},
        {&options::ttff, "29,-1,1", "--ttff"},
        {&options::replay, "/no/file", "/no/file: cannot be opened"},
    };
    for (const auto &[option, text, fault] : rows) {
        options asked;
        receiver_options module;
        std::string source;
        std::string error;
        asked.*option = text;
        EXPECT_EQ(source_from_options(asked, module, source, error), fault[0] == '\0') << text;
        EXPECT_NE(error.find(fault), std::string::npos) << error;
    }
}

struct processes : testing::Test {
    scratch_dir scratch;
    std::string error;
    void SetUp() override {
        loop_add_timer([] { return loop_now() + 0.005; }, [] {});
    }
    void TearDown() override { loop_close(); }

    pid_t start(const std::vector<std::string> &arguments, const std::string &directory = "",
                const std::string &output = "") {
        return process_start({arguments, directory, output, false}, error);
    }
    pid_t start_shell(const char *script) { return start({"sh", "-c", script}, "", "output"); }
    static int wait_for_end(pid_t pid) {
        std::optional<int> status;
        loop_until([&] { return (status = process_ended(pid)).has_value(); }, loop_now() + 10);
        return status.value_or(-1);
    }
};

TEST_F(processes, run_where_they_are_told_and_speak_into_their_file) {
    const pid_t pid =
        start({"sh", "-c", "pwd; echo wrong >&2; exit 3"}, "/proc", scratch.path() / "output");
    ASSERT_GT(pid, 0) << error;
    EXPECT_EQ(process_outcome(wait_for_end(pid)), "exit status 3");
    EXPECT_EQ(scratch_dir::read("output"), "/proc\nwrong\n");
    EXPECT_FALSE(process_ended(pid).has_value()); // only once
}

TEST_F(processes, what_cannot_be_started_is_named) {
    EXPECT_EQ(start({"/no/such/program"}), -1);
    EXPECT_EQ(error, "starting /no/such/program: No such file or directory");
    EXPECT_EQ(start({"true"}, "/no/such/directory"), -1);
    EXPECT_EQ(error, "changing to /no/such/directory: No such file or directory");
    EXPECT_EQ(start({"true"}, "", "/no/such/file"), -1);
    EXPECT_EQ(error, "opening /no/such/file: No such file or directory");
}

TEST_F(processes, stopped_by_sigterm_or_killed) {
    const std::tuple<const char *, double, bool, int> rows[] = {
        {"trap 'exit 7' TERM; echo; while :; do sleep 0.01; done", 10, false, 7},
        {"trap '' TERM; echo; while :; do sleep 0.01; done", 0.05, true, 137}};
    for (const auto &[script, patience, to_be_killed, code] : rows) {
        const pid_t pid = start_shell(script);
        ASSERT_GT(pid, 0) << error;
        // The trap is set when it has spoken.
        loop_until([&] { return !scratch_dir::read("output").empty(); }, loop_now() + 10);
        bool killed = !to_be_killed;
        EXPECT_EQ(process_exit_code(process_stop(pid, "test", patience, killed)), code);
        EXPECT_EQ(killed, to_be_killed);
        std::filesystem::remove("output");
    }
}

TEST_F(processes, start_with_no_signal_blocked) {
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    sigprocmask(SIG_BLOCK, &all, &before);
    // Not through a shell, which would clear its mask itself.
    const pid_t pid = start({"grep", "-q", "^SigBlk:[[:space:]]0*$", "/proc/self/status"});
    sigprocmask(SIG_SETMASK, &before, nullptr);
    ASSERT_GT(pid, 0) << error;
    EXPECT_EQ(process_exit_code(wait_for_end(pid)), 0);
}

// A handler that forgets the next descriptor must not see it served in the same round; one with
// nothing to read is not served at all. The wait ends at its deadline.
TEST(loop, forgotten_and_quiet_descriptors_are_not_served) {
    int pipes[3][2];
    int served[3] = {};
    for (int i = 0; i < 3; i++) {
        ASSERT_EQ(pipe(pipes[i]), 0);
        ASSERT_EQ(write(pipes[i][1], "x", i < 2 ? 1 : 0), i < 2 ? 1 : 0);
        loop_watch(pipes[i][0], [&served, &pipes, i] {
            served[i]++;
            loop_forget(pipes[0][0]);
            loop_forget(pipes[1][0]);
        });
    }
    EXPECT_FALSE(loop_until([] { return false; }, loop_now() + 0.02));
    EXPECT_EQ(served[0], 1);
    EXPECT_EQ(served[1], 0);
    EXPECT_EQ(served[2], 0);
    loop_close();
    for (const auto &one : pipes) {
        close(one[0]);
        close(one[1]);
    }
}

} // namespace
} // namespace sim
