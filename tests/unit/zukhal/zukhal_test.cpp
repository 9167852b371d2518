// The HAL library: log lines and configuration as they arrive in files, pipes and sockets, timers
// on the real clock with the shortest interval there is, and votes. Each test has a directory with
// a configuration, and child processes to use it in: the library reads its own once per process.
#include "child.h"
#include "scratch_dir.h"
#include "zukhal.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <gtest/gtest.h>
#include <regex>
#include <sstream>
#include <thread>

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

using namespace std::chrono_literals;
using std::chrono::steady_clock;

namespace {
std::atomic<int> g_other_calls; // that a line might make besides its write
}

// The library's calls come here.
extern "C" {
[[gnu::visibility("default")]] int stat(const char *path, struct stat *status) noexcept {
    g_other_calls++;
    return fstatat(AT_FDCWD, path, status, 0);
}
[[gnu::visibility("default")]] int poll(pollfd *fds, nfds_t count, int timeout_ms) {
    g_other_calls++;
    const timespec timeout{timeout_ms / 1000, timeout_ms % 1000 * 1'000'000L};
    return ppoll(fds, count, &timeout, nullptr);
}
}

namespace {

template <typename Condition>
bool reached(Condition condition, steady_clock::duration patience = 10s) {
    const auto deadline = steady_clock::now() + patience;
    while (!condition()) {
        if (steady_clock::now() > deadline)
            return false;
        std::this_thread::sleep_for(2ms);
    }
    return true;
}

class zukhal : public testing::Test {
  protected:
    scratch_dir dir;

    void SetUp() override {
        configure("[board]\ntype=1\n[log]\ntarget=file\nfile=" + path("log") +
                  "\n[power]\ndirectory=" + dir.path().string());
        for (const char *file : {"wake_lock", "wake_unlock"})
            scratch_dir::write(file, "");
    }

    std::string path(const char *name) const { return dir.path() / name; }
    static std::string content(const char *name) { return scratch_dir::read(name); }
    void configure(const std::string &text) const {
        scratch_dir::write("conf", text);
        setenv("ZUKHAL_CONF", path("conf").c_str(), 1);
    }

    // Runs `work` in a child whose stderr is the file "stderr"; its failed checks fail the test.
    template <typename Work>
    static void in_child(Work work) {
        const int status = run_in_child([&work] {
            if (freopen("stderr", "ae", stderr) == nullptr)
                return 2;
            work();
            fflush(nullptr);
            return HasFailure() ? 1 : 0;
        });
        EXPECT_EQ(status, 0) << content("stderr");
    }
};

TEST_F(zukhal, a_line_has_time_level_place_and_text) {
    in_child([] {
        errno = EDOM;
        zuk_log_tmplt(3, "%s: %d: %m\n", "gps_main", 42, "opening", 7);
        EXPECT_EQ(errno, EDOM);
        zuk_log_tmplt(6, nullptr, nullptr, -1);
    });
    EXPECT_TRUE(std::regex_match(
        content("log"),
        std::regex("20\\d\\d-[01]\\d-[0-3]\\dT[0-2]\\d:[0-5]\\d:[0-6]\\d\\.\\d{3}Z error "
                   "gps_main:42: opening: 7: Numerical argument out of domain\n"
                   "20.*Z info \\?:-1: \\(no format\\)\n")))
        << content("log");
}

TEST_F(zukhal, what_cannot_be_printed_is_escaped_what_does_not_fit_cut) {
    // A line has 2048 bytes, of which "2026-03-01T12:00:00.123Z info m:1: ", " [cut]" and the
    // newline.
    const auto most = [](size_t less) { return std::string(2048 - 35 - 6 - 1 - less, 'a'); };
    const struct {
        std::string text, written;
    } rows[] = {
        // newlines at the end go, others show, as do carriage returns
        {"a\nb\r\n\n", "a\\nb\\x0d"},
        // either side of the printable ASCII characters
        {"\x1f ~\x7f", "\\x1f ~\\x7f"},
        // UTF-8 of 2 to 4 bytes, a control character in it
        {"\xe2\x82\xac\xf0\x9f\x9b\xb0\xc2\x9f", "\xe2\x82\xac\xf0\x9f\x9b\xb0\\xc2\\x9f"},
        // overlong
        {"\xe0\x9f\xbf", "\\xe0\\x9f\\xbf"},
        // cut by another character, by the end
        {"\xe2\x82z\xe2\x82", "\\xe2\\x82z\\xe2\\x82"},
        // as long as can be, and longer: cut at a whole character
        {most(0) + "a", most(0) + " [cut]"},
        {most(2) + "\xe2\x82\xac", most(2) + " [cut]"},
        {most(3) + std::string(100'000, '\x01'), most(3) + " [cut]"},
    };
    std::string expected;
    for (const auto &row : rows)
        expected += "m:1: " + row.written + "\n";
    in_child([&rows] {
        for (const auto &row : rows)
            zuk_log_tmplt(6, "%s", "m", 1, row.text.c_str());
    });
    EXPECT_EQ(std::regex_replace(content("log"), std::regex("20[^ ]* info "), ""), expected);
}

TEST_F(zukhal, a_log_file_that_was_renamed_is_made_anew_within_a_second) {
    in_child([] {
        zuk_log_tmplt(6, "line", "m", 1);
        std::filesystem::rename("log", "log.1");
        int logged = 1;
        EXPECT_TRUE(reached([&logged] {
            zuk_log_tmplt(6, "line", "m", 1);
            logged++;
            return content("log").ends_with("line\n");
        }));
        const std::string all = content("log.1") + content("log");
        EXPECT_EQ(std::count(all.begin(), all.end(), '\n'), logged) << all;
    });
}

// A log daemon's socket that nobody reads yet.
int bound_socket(const std::string &path) {
    sockaddr_un address{AF_UNIX, {}};
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    std::filesystem::remove(path);
    EXPECT_EQ(bind(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address), 0);
    return fd;
}
std::string received(int fd) {
    std::array<char, 4096> line{};
    return recv(fd, line.data(), line.size() - 1, 0) > 0 ? line.data() : "";
}

TEST_F(zukhal, a_log_daemon_that_hangs_costs_one_wait_and_hears_later_what_it_missed) {
    configure("[board]\ntype=1\n[log]\ntarget=syslog\nsocket=" + path("socket"));
    in_child([this] {
        int fd = bound_socket(path("socket"));
        zuk_log_tmplt(4, "low\nbattery\n", "m", 5);
        EXPECT_TRUE(std::regex_match(received(fd),
                                     std::regex("<28>[A-Z][a-z]{2} [ 1-3]\\d \\d\\d:\\d\\d:\\d\\d "
                                                "zukhal_test\\[\\d+\\]: m:5: low\\\\nbattery")));
        const auto start = steady_clock::now();
        int logged = 0, taken = 0;
        for (int stuck = 0; stuck < 40; logged++) {
            zuk_log_tmplt(6, "queued", "m", 5);
            stuck += content("stderr").ends_with(" info m:5: queued\n") ? 1 : 0;
        }
        EXPECT_LT(steady_clock::now() - start, 4s) << "200 ms each";
        while (!received(fd).empty())
            taken++;
        std::string report;
        EXPECT_TRUE(reached(
            [&] {
                zuk_log_tmplt(6, "it reads again", "m", 6);
                while (report.find("zukhal:") == std::string::npos)
                    if ((report = received(fd)).empty())
                        return false;
                return true;
            },
            20s));
        EXPECT_TRUE(report.ends_with(": " + std::to_string(logged - taken))) << report;
        close(fd);
        zuk_log_tmplt(3, "nobody listens", "m", 5);
        EXPECT_TRUE(content("stderr").ends_with(" error m:5: nobody listens\n"));
        fd = bound_socket(path("socket"));
        zuk_log_tmplt(6, "started anew", "m", 5);
        EXPECT_TRUE(received(fd).ends_with(": m:5: started anew"));
    });
}

TEST_F(zukhal, impossible_configuration_is_reported_once_and_means_no_wrong_board) {
    const struct {
        std::string conf; // after [log], socket and target=stderr
        const char *complaint;
        int board = 0;
    } rows[] = {
        {"[board]\ntype=2 ; comment\n[log]\nlevel=warning", "", 2},
        {"[board]\ntype=3", "[board] type: '3' is none of 1, 2"},
        {"", "[board] type: is missing"},
        {"target=file\n[board]\ntype=1", "[log] file: is missing", 1},
        {"socket=/" + std::string(108, 's') + "\n[board]\ntype=1", "[log] socket: is too long", 1},
        {"[board]\ntype=1\ntype 1\n", "; the board type is unknown, the log has its defaults"},
    };
    for (const auto &row : rows) {
        configure("[log]\nsocket=/nonexistent\ntarget=stderr\n" + row.conf);
        std::filesystem::remove("stderr");
        in_child([&row] {
            EXPECT_EQ(get_zuk_type(), row.board) << row.conf;
            zuk_log_tmplt(row.board == 2 ? 6 : 7, "below the level", "m", 1);
        });
        const std::string log = content("stderr");
        EXPECT_NE(log.find(row.complaint), std::string::npos) << row.conf << ": " << log;
        EXPECT_EQ(std::count(log.begin(), log.end(), '\n'), *row.complaint != '\0') << log;
    }
}

// What callbacks saw and did; each test uses them in child processes of its own.
std::atomic<int> g_calls, g_once_calls;
std::atomic<bool> g_begun, g_go_on, g_returned, g_signals_blocked;
std::atomic<int> g_own, g_victim; // handles
int g_argument;                   // only its address counts

int count(void *) {
    sigset_t blocked;
    pthread_sigmask(SIG_SETMASK, nullptr, &blocked);
    g_signals_blocked = sigismember(&blocked, SIGTERM) + sigismember(&blocked, SIGRTMIN + 1) == 2;
    g_calls++;
    return 0;
}

TEST_F(zukhal, callbacks_of_32_come_each_interval_on_a_thread_without_signals) {
    in_child([] {
        EXPECT_EQ(rtc_start_timer(1, count, nullptr), 0) << "not started";
        ASSERT_EQ(rtc_init_timers(), 0);
        EXPECT_EQ(rtc_start_timer(0, count, nullptr), 0);
        EXPECT_EQ(rtc_del_timer(0), -1);
        const auto delete_itself_and_another = [](void *argument) {
            g_once_calls++;
            EXPECT_EQ(argument, &g_argument);
            return rtc_del_timer(g_own) + rtc_del_timer(g_victim);
        };
        g_own = rtc_start_timer(1, delete_itself_and_another, &g_argument);
        const auto start = steady_clock::now();
        ASSERT_GT(rtc_start_timer(1, count, nullptr), 0);
        g_victim = rtc_start_timer(3600, count, nullptr);
        for (int i = 3; i < 32; i++)
            EXPECT_GT(rtc_start_timer(UINT32_MAX, count, nullptr), 0);
        EXPECT_EQ(rtc_start_timer(1, count, nullptr), 0) << "all in use";
        EXPECT_TRUE(reached([] { return g_calls >= 2; }));
        EXPECT_GE(steady_clock::now() - start, 1995ms);
        EXPECT_TRUE(g_signals_blocked);
        EXPECT_EQ(g_once_calls, 1);
        EXPECT_EQ(rtc_del_timer(g_victim), -1) << "deleted by the other";
        EXPECT_EQ(rtc_exit(), 0);
        EXPECT_EQ(rtc_init_timers(), 0);
        for (int i = 0; i < 32; i++)
            EXPECT_GT(rtc_start_timer(1, count, nullptr), 0) << "exit frees all";
        EXPECT_EQ(rtc_exit(), 0);
    });
}

TEST_F(zukhal, a_running_callback_holds_up_no_deletion_and_exit_for_its_bound) {
    in_child([] {
        ASSERT_EQ(rtc_init_timers(), 0);
        const auto wait_to_go_on = [](void *) {
            g_begun = true;
            g_returned = reached([] { return g_go_on.load(); }, 20s);
            return 0;
        };
        const int running = rtc_start_timer(1, wait_to_go_on, nullptr);
        ASSERT_TRUE(reached([] { return g_begun.load(); }));
        const int other = rtc_start_timer(1, count, nullptr);
        EXPECT_EQ(rtc_del_timer(running), 0);
        EXPECT_FALSE(g_returned) << "deletion waited";
        EXPECT_EQ(rtc_exit(), -1);
        EXPECT_EQ(errno, ETIMEDOUT);
        EXPECT_FALSE(g_returned) << "exit waited to the end";
        EXPECT_EQ(rtc_init_timers(), -1) << "the callback still runs";
        EXPECT_EQ(rtc_del_timer(other), 0) << "ended by exit";
        EXPECT_EQ(rtc_del_timer(other + 1), -1) << "there never was one";
        std::this_thread::sleep_for(1s); // the other would be due
        g_go_on = true;
        EXPECT_TRUE(reached([] { return rtc_exit() == 0; }, 20s));
        EXPECT_TRUE(g_returned) << "exit did not wait";
        EXPECT_EQ(g_calls, 0);
    });
}

TEST_F(zukhal, the_kernel_hears_of_the_first_and_the_last_vote) {
    in_child([] {
        errno = EILSEQ; // a handler may vote
        for (const int id : {3, 3, 0})
            EXPECT_EQ(pm_system_state_disable(id), 1);
        EXPECT_EQ(pm_system_state_enable(3), 1);
        EXPECT_EQ(errno, EILSEQ);
        EXPECT_EQ(content("wake_lock"), "zukhal.3\nzukhal.0\n");
        EXPECT_EQ(content("wake_unlock"), "") << "one is left";
        EXPECT_EQ(pm_system_state_enable(3), 1);
        EXPECT_EQ(pm_system_state_enable(3), 1) << "never below zero";
        EXPECT_EQ(content("wake_unlock"), "zukhal.3\n");
        EXPECT_EQ(pm_system_state_disable(3), 1);
        EXPECT_EQ(content("wake_lock"), "zukhal.3\nzukhal.0\nzukhal.3\n");
        for (int id = 100; id <= 162; id++)
            EXPECT_EQ(pm_system_state_disable(id), id < 162) << "64 ids hold votes";
    });
    std::filesystem::remove("wake_lock");
    std::filesystem::remove("wake_unlock");
    in_child([] { EXPECT_EQ(pm_system_state_disable(3), 1) << "a kernel without wake locks"; });
    EXPECT_EQ(content("log"), "");
}

void log_number(int number) {
    zuk_log_tmplt(6, "line %d", "m", 1, number);
}

void vote_and_take_back(int) {
    pm_system_state_disable(3);
    pm_system_state_enable(3);
}

TEST_F(zukhal, lines_of_threads_processes_and_handlers_stay_whole_and_their_votes_counted) {
    constexpr int each = 500;
    in_child([] {
        const bool child = fork() == 0;
        signal(SIGUSR1, log_number);
        signal(SIGUSR2, vote_and_take_back);
        std::array<std::thread, 3> threads;
        for (std::thread &thread : threads)
            thread = std::thread([] {
                for (int i = 0; i < each; i++) {
                    log_number(i);
                    vote_and_take_back(0);
                }
            });
        for (int i = 0; i < each; i++) {
            raise(SIGUSR1);
            for (std::thread &thread : threads) // in the middle of a vote, too
                pthread_kill(thread.native_handle(), SIGUSR2);
        }
        for (std::thread &thread : threads)
            thread.join();
        if (child)
            raise(SIGKILL); // every line is out already
        EXPECT_LT(g_other_calls, 100)
            << "a line is one write; a few more a second are for rotation";
        EXPECT_GT(wait(nullptr), 0);
    });
    std::istringstream lines(content("log"));
    const std::regex whole("20\\S+Z info m:1: line \\d+");
    int count = 0;
    for (std::string line; std::getline(lines, line); count++)
        EXPECT_TRUE(std::regex_match(line, whole)) << line;
    EXPECT_EQ(count, 2 * 4 * each);
    EXPECT_EQ(content("wake_lock"), content("wake_unlock"));
    EXPECT_NE(content("wake_lock"), "");
}

} // namespace
