// The directory that is a terminal, the command line's source of truth, processes, texts.
#include "terminal_fake_receiver.h"
#include "terminal_loop.h"
#include "terminal_process.h"
#include "terminal_say.h"
#include "terminal_source.h"
#include "terminal_tree.h"

#include <array>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <sstream>
#include <sys/wait.h>
#include <unistd.h>

namespace sim {
namespace {

namespace fs = std::filesystem;

std::string content(const std::string &path) {
    std::stringstream text;
    text << std::ifstream(path).rdbuf();
    return text.str();
}

struct terminal_directory : testing::Test {
    std::string base;
    std::string root;
    terminal_paths paths;
    bool fresh = false;
    std::string error;

    void SetUp() override {
        std::string name = testing::TempDir() + "/tree_XXXXXX";
        ASSERT_NE(mkdtemp(name.data()), nullptr);
        base = name;
        root = base + "/terminal";
    }
    void TearDown() override { fs::remove_all(base); }

    int make() { return tree_make(root, paths, fresh, error); }
};

TEST_F(terminal_directory, made_from_nothing) {
    const int lock = make();
    ASSERT_GE(lock, 0) << error;
    EXPECT_TRUE(fresh);
    for (const char *name : {"/dev", "/sys/class", "/user/location", "/bus", "/log", "/etc"}) {
        EXPECT_TRUE(fs::is_directory(root + name)) << name;
    }
    // The daemon reads 21 bytes for the switch and 23 for the place, whatever the line says.
    const std::string stub = content(paths.stub);
    EXPECT_EQ(stub, "STATIC_LOCATION = OFF\n7007.939,N,01131.000,E\n");
    std::string on = stub;
    on.replace(on.find("OFF"), 3, "ON");
    EXPECT_EQ(on.substr(0, 21), "STATIC_LOCATION = ON\n");
    EXPECT_EQ(on.substr(21, 23), "7007.939,N,01131.000,E\n");
    close(lock);
}

TEST_F(terminal_directory, taken_up_again_with_everything_in_it) {
    close(make());
    std::ofstream(paths.settings) << "settings";
    std::ofstream(paths.battery) << "battery";
    std::ofstream(paths.stub) << "STATIC_LOCATION = ON\n";
    const int lock = make();
    ASSERT_GE(lock, 0) << error;
    EXPECT_FALSE(fresh);
    EXPECT_EQ(content(paths.settings), "settings");
    EXPECT_EQ(content(paths.battery), "battery");
    EXPECT_EQ(content(paths.stub), "STATIC_LOCATION = ON\n");
    close(lock);
}

TEST_F(terminal_directory, second_one_at_the_same_time_is_refused) {
    const int lock = make();
    ASSERT_GE(lock, 0) << error;
    EXPECT_EQ(make(), -1);
    EXPECT_NE(error.find("another simterm"), std::string::npos) << error;
    close(lock);
    const int next = make();
    EXPECT_GE(next, 0) << error;
    close(next);
}

TEST_F(terminal_directory, somebody_elses_directory_is_left_alone) {
    fs::create_directory(root);
    std::ofstream(root + "/thesis.txt") << "text";
    EXPECT_EQ(make(), -1);
    EXPECT_NE(error.find("neither empty nor a simulated terminal"), std::string::npos) << error;
    EXPECT_FALSE(fs::exists(root + "/dev"));
    EXPECT_FALSE(fs::exists(root + "/.simterm"));
    fs::remove(root + "/thesis.txt");
    std::ofstream(root + "/.simterm") << "something else\n";
    EXPECT_EQ(make(), -1);
    EXPECT_NE(error.find("not the mark of a terminal"), std::string::npos) << error;
    EXPECT_FALSE(fs::exists(root + "/dev"));
}

TEST_F(terminal_directory, file_in_its_place_is_refused) {
    std::ofstream(root) << "text";
    EXPECT_EQ(make(), -1);
    EXPECT_NE(error.find("making directory"), std::string::npos) << error;
    EXPECT_EQ(content(root), "text");
}

TEST_F(terminal_directory, configuration_keeps_what_is_not_asked_for) {
    const int lock = make();
    int board = 0;
    ASSERT_TRUE(tree_configure(paths, {}, board, error)) << error;
    EXPECT_EQ(board, 1);
    EXPECT_EQ(content(paths.hal), "[board]\ntype=1\n\n[log]\ntarget=file\nlevel=info\nfile=" +
                                      paths.log + "\n\n[power]\ndirectory=" + paths.power + "\n");
    terminal_options options;
    options.board = 2;
    options.log_level = "debug";
    ASSERT_TRUE(tree_configure(paths, options, board, error)) << error;
    EXPECT_EQ(board, 2);
    ASSERT_TRUE(tree_configure(paths, {}, board, error)) << error;
    EXPECT_EQ(board, 2);
    EXPECT_NE(content(paths.hal).find("level=debug"), std::string::npos);
    close(lock);
}

struct place_case {
    const char *place;
    const char *ttff;
    bool accepted;
};

const place_case PLACE_CASES[] = {
    {"", "", true},         {"-90,180,-12.5", "", true}, {"90,-180", "", true},
    {"90.1,0", "", false},  {"0,180.1", "", false},      {"1", "", false},
    {"1,2,3,4", "", false}, {"1,,2", "", false},         {"1,2,", "", false},
    {"north,2", "", false}, {"nan,2", "", false},        {"1 ,2", "", false},
    {"", "29,25,1", true},  {"", "0,0,0", true},         {"", "29,25", false},
    {"", "29,-1,1", false},
};

TEST(source, places_and_times) {
    for (const place_case &row : PLACE_CASES) {
        terminal_options options;
        options.place = row.place;
        options.ttff = row.ttff;
        receiver_options module;
        std::string source;
        std::string error;
        EXPECT_EQ(source_from_options(options, module, source, error), row.accepted)
            << row.place << " " << row.ttff << " " << error;
        EXPECT_EQ(error.empty(), row.accepted) << row.place << " " << row.ttff;
    }
}

TEST(source, unreadable_file_names_the_reason) {
    terminal_options options;
    options.route = "tour.txt";
    receiver_options module;
    std::string source;
    std::string error;
    EXPECT_FALSE(source_from_options(options, module, source, error));
    EXPECT_EQ(error, "reading the route tour.txt: no routes here");
}

struct processes : testing::Test {
    std::string error;
    void SetUp() override {
        loop_add_timer([] { return loop_now() + 0.005; }, [] {});
    }
    void TearDown() override { loop_close(); }

    pid_t start(const char *script, const std::string &directory = "",
                const std::string &output = "") {
        return process_start({.arguments = {"sh", "-c", script},
                              .directory = directory,
                              .output = output,
                              .own_session = false},
                             error);
    }
    static int wait_for_end(pid_t pid) {
        std::optional<int> status;
        loop_until(
            [&] {
                status = process_ended(pid);
                return status.has_value();
            },
            loop_now() + 10);
        return status.value_or(-1);
    }
};

TEST_F(processes, run_where_they_are_told_and_speak_into_their_file) {
    const std::string output = testing::TempDir() + "/process_out";
    unlink(output.c_str());
    const pid_t pid = start("pwd; echo wrong >&2; exit 3", "/proc", output);
    ASSERT_GT(pid, 0) << error;
    const int status = wait_for_end(pid);
    EXPECT_EQ(process_outcome(status), "exit status 3");
    EXPECT_EQ(process_exit_code(status), 3);
    EXPECT_EQ(content(output), "/proc\nwrong\n");
    EXPECT_FALSE(process_ended(pid).has_value()); // only once
}

TEST_F(processes, what_cannot_be_started_is_named) {
    EXPECT_EQ(process_start({.arguments = {"/no/such/program"},
                             .directory = "",
                             .output = "",
                             .own_session = false},
                            error),
              -1);
    EXPECT_EQ(error, "starting /no/such/program: No such file or directory");
    EXPECT_EQ(start("true", "/no/such/directory"), -1);
    EXPECT_EQ(error, "changing to /no/such/directory: No such file or directory");
    EXPECT_EQ(start("true", "", "/no/such/file"), -1);
    EXPECT_EQ(error, "opening /no/such/file: No such file or directory");
}

TEST_F(processes, stopped_by_sigterm_if_they_listen) {
    bool killed = true;
    const pid_t pid = start("trap 'exit 7' TERM; echo; while :; do sleep 0.01; done");
    ASSERT_GT(pid, 0) << error;
    const int status = process_stop(pid, "test", 10, killed);
    EXPECT_FALSE(killed);
    // SIGTERM may come before the trap is set.
    EXPECT_TRUE(process_exit_code(status) == 7 || process_exit_code(status) == 128 + SIGTERM);
}

TEST_F(processes, killed_if_they_do_not) {
    const std::string output = testing::TempDir() + "/process_deaf";
    unlink(output.c_str());
    const pid_t pid = start("trap '' TERM; echo deaf; while :; do sleep 0.01; done", "", output);
    ASSERT_GT(pid, 0) << error;
    loop_until([&] { return !content(output).empty(); }, loop_now() + 10);
    bool killed = false;
    testing::internal::CaptureStderr();
    const int status = process_stop(pid, "the deaf one", 0.05, killed);
    EXPECT_NE(testing::internal::GetCapturedStderr().find("the deaf one"), std::string::npos);
    EXPECT_TRUE(killed);
    EXPECT_EQ(process_outcome(status), "signal 9 (Killed)");
    EXPECT_EQ(process_exit_code(status), 137);
}

TEST_F(processes, start_with_no_signal_blocked) {
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    sigprocmask(SIG_BLOCK, &all, &before);
    // Not through a shell, which would clear its mask itself.
    const pid_t pid =
        process_start({.arguments = {"grep", "-q", "^SigBlk:[[:space:]]0*$", "/proc/self/status"},
                       .directory = "",
                       .output = "",
                       .own_session = false},
                      error);
    sigprocmask(SIG_SETMASK, &before, nullptr);
    ASSERT_GT(pid, 0) << error;
    EXPECT_EQ(process_exit_code(wait_for_end(pid)), 0);
}

TEST(loop, timer_is_exact_and_deadline_ends_the_wait) {
    const double due = loop_now() + 0.02;
    double at = 0;
    loop_add_timer([&] { return at == 0 ? std::optional<double>(due) : std::nullopt; },
                   [&] { at = loop_now(); });
    EXPECT_TRUE(loop_until([&] { return at != 0; }, due + 10));
    EXPECT_GE(at, due);
    EXPECT_FALSE(loop_until([] { return false; }, loop_now() + 0.01));
    loop_close();
}

// A handler that forgets the next descriptor must not see it served in the same round; one with
// nothing to read is not served at all.
TEST(loop, forgotten_and_quiet_descriptors_are_not_served) {
    std::array<int, 2> one{};
    std::array<int, 2> two{};
    std::array<int, 2> quiet{};
    ASSERT_EQ(pipe(quiet.data()), 0);
    ASSERT_EQ(pipe(one.data()), 0);
    ASSERT_EQ(pipe(two.data()), 0);
    ASSERT_EQ(write(one[1], "x", 1), 1);
    ASSERT_EQ(write(two[1], "x", 1), 1);
    int first = 0;
    int second = 0;
    loop_watch(one[0], [&] {
        first++;
        loop_forget(one[0]);
        loop_forget(two[0]);
    });
    loop_watch(two[0], [&] { second++; });
    int third = 0;
    loop_watch(quiet[0], [&] { third++; });
    loop_until([] { return false; }, loop_now() + 0.02);
    EXPECT_EQ(first, 1);
    EXPECT_EQ(second, 0);
    EXPECT_EQ(third, 0);
    loop_close();
    for (const int fd : {one[0], one[1], two[0], two[1], quiet[0], quiet[1]}) {
        close(fd);
    }
}

TEST(say, bytes_as_people_read_them) {
    EXPECT_EQ(printable(as_bytes("$GPGGA*56\r\n")), "$GPGGA*56");
    EXPECT_EQ(printable(as_bytes("$A*41\r\n$B*42\r\n")), "$A*41 | $B*42");
    EXPECT_EQ(printable(as_bytes("\xB5\x62\x05\x0A")), "B5 62 05 0A");
    EXPECT_EQ(printable(as_bytes("\n")), "");
}

} // namespace
} // namespace sim
