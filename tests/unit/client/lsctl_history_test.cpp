// lsctl history and lsctl settings: what they ask, read, write and say.
#include "fake_bus.h"
#include "lsctl.h"
#include "lsctl_history_file.h"
#include "scratch_dir.h"

#include "dbhandler.h"

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <thread>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

namespace {

constexpr char LINES[] = "2019-02-05 10:51:05,2D,70.132317N,11.516667E,+2.25m,08\n"
                         "2019-02-05 10:52:05,2D,70.132400N,11.516700E,+2.25m,08\n";

struct outcome {
    int status;
    std::string out;
    std::string err;
};

outcome run(std::vector<const char *> arguments) {
    arguments.insert(arguments.begin(), "lsctl");
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    const int status = lsctl_run(static_cast<int>(arguments.size()), arguments.data());
    return {status, testing::internal::GetCapturedStdout(), testing::internal::GetCapturedStderr()};
}

class lsctl_files : public testing::Test {
  protected:
    void SetUp() override {
        setenv("TZ", "UTC0", 1);
        setenv("LSCTL_ROOT", "t", 1);
        setenv("DBHANDLER_FILE", "settings.db", 1);
        fake_reset();
        exporting(0);
        scratch_dir::write("t/user/location/location_history.txt", LINES);
    }
    void TearDown() override {
        for (const char *name : {"TZ", "LSCTL_ROOT", "DBHANDLER_FILE"}) {
            unsetenv(name);
        }
    }
    // The service exports with this status.
    static void exporting(uint32_t status) {
        fake.service = [status](const sent_message &m) {
            ls_history_path_reply reply{status, "/user/location/location_history.txt"};
            fake_reply(m.hdr, bytes_of(reply));
        };
    }

    scratch_dir dir;
};

TEST_F(lsctl_files, prints_the_exported_lines) {
    outcome got = run({"history"});
    EXPECT_EQ(got.status, 0);
    EXPECT_EQ(got.out, LINES);
    EXPECT_EQ(got.err, "");
    EXPECT_EQ(fake_sent(1013).size(), 1U);
    got = run({"history", "--since", "2019-02-05 10:52", "--format", "csv"});
    EXPECT_NE(got.out.find("\n2019-02-05T10:52:05Z,"), std::string::npos);
    EXPECT_EQ(got.out.find("10:51:05"), std::string::npos);
    EXPECT_EQ(run({"history", "--json"}).out.substr(0, 15), "{\"positions\":[\n");
    unsetenv("LSCTL_ROOT");
    EXPECT_EQ(run({"history", "--root", "t"}).out, LINES);
}

TEST_F(lsctl_files, a_file_from_elsewhere_needs_no_service) {
    fake.init_errno[-1] = ENOENT;
    scratch_dir::write("copy.txt", LINES);
    EXPECT_EQ(run({"history", "--input", "copy.txt"}).out, LINES);
    EXPECT_TRUE(fake.sent.empty());
}

TEST_F(lsctl_files, bad_lines_are_counted_and_told) {
    scratch_dir::write("t/user/location/location_history.txt",
                       "16667E,+2.25m,08\n" + std::string(LINES) +
                           "2019-02-05 10:53:05,ER,0.000000X,0.000000Y,+0.00m,00\n");
    const outcome got = run({"history", "-f", "gpx"});
    EXPECT_EQ(got.status, 0);
    EXPECT_EQ(got.err, "lsctl: 1 line skipped: cut or damaged (the first one is the oldest, which "
                       "the newest may have overwritten in part)\n"
                       "lsctl: 1 line without a place left out\n");
}

TEST_F(lsctl_files, failures_have_their_sentence_and_status) {
    exporting(0xFFFFFFFF);
    outcome got = run({"history"});
    EXPECT_EQ(got.status, 1);
    EXPECT_NE(got.err.find("could not export its history"), std::string::npos);
    EXPECT_EQ(got.out, "");

    exporting(255);
    got = run({"history"});
    EXPECT_EQ(got.status, 1);
    EXPECT_EQ(got.out, LINES);
    EXPECT_EQ(got.err,
              "lsctl: the location service could not write all of its export: lines are missing\n");

    exporting(0);
    got = run({"history", "--root", "elsewhere"});
    EXPECT_EQ(got.status, 1);
    EXPECT_EQ(got.err, "lsctl: the exported history cannot be read: "
                       "elsewhere/user/location/location_history.txt: No such file or directory\n");

    fake.send_errno = ENOENT;
    EXPECT_EQ(run({"history"}).status, 3);

    const std::vector<std::vector<const char *>> usage = {
        {"history", "--since", "soon"},
        {"history", "--since", "2019-02-06", "--until", "2019-02-05"},
        {"history", "--format", "pdf"},
        {"history", "--json", "--format", "svg"},
        {"history", "--gap", "0"},
        {"settings", "--history", "maybe"},
        {"settings", "--interval", "0"},
        {"settings", "--power-status", "3"},
    };
    for (const auto &line : usage) {
        EXPECT_EQ(run(line).status, 2) << line[1] << line.back();
    }
}

TEST_F(lsctl_files, an_output_file_is_whole_or_as_it_was) {
    EXPECT_EQ(run({"history", "-o", "out.txt"}).out, "");
    EXPECT_EQ(scratch_dir::read("out.txt"), LINES);
    EXPECT_EQ(run({"history", "-o", "/dev/full"}).err,
              "lsctl: cannot write /dev/full: No space left on device\n");
    EXPECT_EQ(run({"history", "-o", "missing/out.txt"}).status, 1);

    const std::string failed = history_write("out.txt", [](FILE *out) {
        std::fputs("half", out);
        dup2(open("/dev/full", O_WRONLY | O_CLOEXEC), fileno(out));
    });
    EXPECT_EQ(failed, "out.txt: No space left on device");
    EXPECT_EQ(scratch_dir::read("out.txt"), LINES);
    size_t files = 0;
    for (const auto &entry : std::filesystem::directory_iterator(".")) {
        files += entry.is_regular_file() ? 1 : 0;
    }
    EXPECT_EQ(files, 1U);
}

// Another client has the history exported again while it is read: cut, then grown in pieces.
TEST_F(lsctl_files, a_file_that_is_being_written_is_read_when_it_is_whole) {
    scratch_dir::write("export.txt", "");
    std::thread writer([] {
        for (int piece = 1; piece <= 10; ++piece) {
            scratch_dir::write("export.txt",
                               std::string(static_cast<size_t>(piece) * 1000, 'x') + '\n');
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
    });
    std::string text;
    EXPECT_EQ(history_read(
                  "export.txt", std::chrono::seconds(20), [] { return false; }, &text),
              "");
    writer.join();
    EXPECT_EQ(text.size(), 10001U);
    // One that ends in the middle of a line is waited for longer.
    scratch_dir::write("export.txt", "new");
    EXPECT_NE(history_read(
                  "export.txt", std::chrono::milliseconds(200), [] { return false; }, &text),
              "");
}

TEST_F(lsctl_files, settings_are_shown_and_stored) {
    outcome got = run({"settings", "--history", "on", "--interval", "30"});
    EXPECT_EQ(got.status, 0);
    location_history_settings stored{};
    ASSERT_EQ(db_read_location_history_settings(&stored), 0);
    EXPECT_EQ(stored.status, 1);
    EXPECT_EQ(stored.interval, 30U);
    ASSERT_EQ(fake_sent(808).size(), 1U);
    EXPECT_EQ(fake_sent(808)[0].hdr.msg_type, 2);
    EXPECT_EQ(fake_sent(808)[0].hdr.src_serv_id, 6);
    EXPECT_EQ(fake_sent(808)[0].hdr.dst_serv_id, 8);

    got = run({"settings", "--history", "off"}); // the interval stays
    EXPECT_EQ(got.out.substr(0, 34), "History         off, every 30 s\nAn");
    got = run({"settings", "--antenna", "4", "--power-status", "on"});
    EXPECT_EQ(got.out, "History         off, every 30 s\n"
                       "Antenna type    4 (GNSS)\n"
                       "Receiver        on (power mode 2)\n");
    EXPECT_EQ(got.err, "lsctl: antenna type and receiver at start: taken up at the next start of "
                       "the location service\n");
    int32_t value = 0;
    EXPECT_EQ(db_read_ta_power_on_status(&value), 0);
    EXPECT_EQ(value, 4);
    EXPECT_EQ(db_read_gps_power_on_status(&value), 0);
    EXPECT_EQ(value, 2);
    EXPECT_EQ(run({"settings", "--json"}).out,
              "{\"history_on\":false,\"history_interval_s\":30,\"antenna_type\":4,"
              "\"power_on_status\":2,\"settings_file\":\"settings.db\"}\n");
    EXPECT_EQ(fake_sent(808).size(), 2U); // neither showing nor the other settings
}

TEST_F(lsctl_files, settings_without_a_service_or_beside_ws) {
    fake.send_errno = ENOENT;
    outcome got = run({"settings", "--interval", "7"});
    EXPECT_EQ(got.status, 0);
    EXPECT_EQ(got.err, "lsctl: settings stored; the location service is not running and takes them "
                       "up at its next start\n");
    fake.send_errno = EAGAIN;
    got = run({"settings", "--interval", "8"});
    EXPECT_EQ(got.status, 3);
    EXPECT_NE(got.err.find("settings stored, but the location service could not be told"),
              std::string::npos);

    fake_reset();
    fake.init_errno[6] = EADDRINUSE; // WS is running
    fake.init_errno[-1] = 0;
    EXPECT_EQ(run({"settings", "--history", "on", "--power-status", "off"}).status, 0);
    ASSERT_EQ(fake_sent(808).size(), 1U);
    EXPECT_EQ(fake_sent(808)[0].hdr.src_serv_id, 32);

    setenv("DBHANDLER_FILE", "missing/settings.db", 1);
    got = run({"settings"});
    EXPECT_EQ(got.status, 1);
    EXPECT_EQ(got.err, "lsctl: the settings database missing/settings.db cannot be read\n");
}

} // namespace
