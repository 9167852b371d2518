// Log lines and configuration, as they arrive in files, pipes and sockets.
#include "zukhal_fixture.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <regex>
#include <set>
#include <sstream>
#include <thread>

#include <sys/socket.h>
#include <sys/un.h>

namespace {

using zukhal_log = zukhal_fixture;

TEST_F(zukhal_log, a_line_has_time_level_place_and_text) {
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

TEST_F(zukhal_log, what_cannot_be_printed_is_escaped_what_does_not_fit_cut) {
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

void log_numbered(int number) {
    zuk_log_tmplt(6, "line %d.%d", "m", 1, number, gettid());
}

TEST_F(zukhal_log, lines_of_threads_processes_and_handlers_stay_whole) {
    constexpr int each = 200;
    in_child([] {
        const bool child = fork() == 0;
        signal(SIGUSR1, log_numbered);
        std::array<std::thread, 3> threads;
        for (std::thread &thread : threads)
            thread = std::thread([] {
                for (int i = 0; i < each; i++)
                    log_numbered(1000 + i);
            });
        for (int i = 0; i < each; i++)
            raise(SIGUSR1);
        for (std::thread &thread : threads)
            thread.join();
        if (child)
            _exit(0);
        EXPECT_GT(wait(nullptr), 0);
    });
    std::istringstream lines(content("log"));
    const std::regex whole("20\\S+Z info m:1: line \\d+\\.\\d+");
    std::set<std::string> different;
    int count = 0;
    for (std::string line; std::getline(lines, line); count++) {
        EXPECT_TRUE(std::regex_match(line, whole)) << line;
        different.insert(line.substr(line.find("line")));
    }
    EXPECT_EQ(count, 2 * 4 * each);
    EXPECT_EQ(different.size(), 2U * 3 * each + 2) << "handlers log the same text";
}

TEST_F(zukhal_log, a_log_file_that_was_renamed_or_removed_is_made_anew) {
    in_child([] {
        zuk_log_tmplt(6, "first", "m", 1);
        std::filesystem::rename("log", "log.1");
        zuk_log_tmplt(6, "second", "m", 1);
        EXPECT_TRUE(content("log").ends_with("second\n"));
        std::filesystem::remove("log");
        zuk_log_tmplt(6, "third", "m", 1);
    });
    EXPECT_TRUE(content("log.1").ends_with("first\n"));
    EXPECT_TRUE(content("log").ends_with("third\n"));
}

TEST_F(zukhal_log, syslog_gets_a_line_and_stops_nobody) {
    configure("[log]\ntarget=syslog\nsocket=" + path("socket"));
    in_child([this] {
        sockaddr_un address{AF_UNIX, {}};
        path("socket").copy(address.sun_path, sizeof address.sun_path - 1);
        const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
        zuk_log_tmplt(3, "nobody listens", "m", 5);
        EXPECT_TRUE(content("stderr").ends_with(" error m:5: nobody listens\n"));
        EXPECT_EQ(bind(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address), 0);
        zuk_log_tmplt(4, "low\nbattery\n", "m", 5);
        std::array<char, 4096> line{};
        EXPECT_GT(recv(fd, line.data(), line.size() - 1, 0), 0);
        EXPECT_TRUE(std::regex_match(line.data(),
                                     std::regex("<28>[A-Z][a-z]{2} [ 1-3]\\d \\d\\d:\\d\\d:\\d\\d "
                                                "zukhal_log_test\\[\\d+\\]: m:5: low\\\\nbattery")))
            << line.data();
        for (int i = 0; i < 10'000 && !content("stderr").ends_with("queued\n"); i++)
            zuk_log_tmplt(3, "queued", "m", 5);
        EXPECT_TRUE(content("stderr").ends_with("queued\n")) << "the socket is full";
    });
}

TEST_F(zukhal_log, impossible_configuration_is_reported_once_and_the_default_serves) {
    const struct {
        std::string conf; // after [log], socket and target=stderr
        const char *complaint;
        int board = 1;
    } rows[] = {
        {"[board]\ntype=2 ; comment\n[log]\nlevel=warning", "", 2},
        {"[board]\ntype=3", "[board] type: '3' is none of 1, 2"},
        {"level=8", "[log] level: '8' is none of error,"},
        {"target=file", "[log] file: is missing"},
        {"socket=/" + std::string(108, 's'), "[log] socket: is too long"},
        {"type 1\n", ", using the defaults"},
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

} // namespace
