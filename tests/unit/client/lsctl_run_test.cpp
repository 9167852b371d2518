// lsctl as a whole, without its main: arguments, sentences, exit status, over the recording bus.
#include "fake_bus.h"
#include "lsctl.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <iterator>
#include <sstream>
#include <thread>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

namespace {

struct outcome {
    int status;
    std::string out;
    std::string err;
};

// `line`: the arguments, between blanks.
int run_words(const std::string &line) {
    std::istringstream stream("lsctl " + line);
    const std::vector<std::string> words{std::istream_iterator<std::string>(stream), {}};
    std::vector<const char *> arguments(words.size());
    std::transform(words.begin(), words.end(), arguments.begin(),
                   [](const std::string &word) { return word.c_str(); });
    return lsctl_run(static_cast<int>(arguments.size()), arguments.data());
}

outcome run(const std::string &line) {
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    const int status = run_words(line);
    return {status, testing::internal::GetCapturedStdout(), testing::internal::GetCapturedStderr()};
}

struct lsctl_command_line : testing::Test {
    void SetUp() override { fake_reset(); }
};

using play = std::function<void(const sent_message &)>;

play always(bytes reply) {
    return [reply = std::move(reply)](const sent_message &m) { fake_reply(m.hdr, reply); };
}

play with_power(uint32_t mode) {
    return [mode](const sent_message &m) {
        if (m.hdr.msg_id == LS_REQUEST_GET_POWER_MODE) {
            fake_reply(m.hdr, power_reply(1, mode));
        }
    };
}

// The system tests meet the others.
TEST_F(lsctl_command_line, each_failure_has_its_sentence_and_status) {
    const play silent = [](const sent_message &) {};
    const play failing_command = always(bytes(284)), unanswered = always(padded({1}, 284));
    const play busy = with_power(2), timed_out = always(padded({2}, 16)), odd = always(bytes(17));
    const struct {
        int init_errno, send_errno, status;
        const play &service;
        const char *line;
        const char *sentence;
    } rows[] = {
        {EADDRINUSE, 0, 3, silent, "time --as 6",
         "another process already uses this service id (6); choose another one with --as"},
        {EADDRINUSE, 0, 3, silent, "time",
         "all service ids for tools (32 to 63) are in use; choose another one with --as"},
        {EADDRINUSE, 0, 3, silent, "lpp",
         "service 2 (SAL) is running; only it can ask for LPP parameters"},
        {0, EAGAIN, 3, silent, "speed",
         "the location service does not take messages from its queue"},
        {0, 0, 3, silent, "satellites --timeout 0.05",
         "the location service did not answer in time (0.05 s)"},
        {0, 0, 3, silent, "time --timeout 0.05 --as 3",
         "the location service did not answer in time (0.05 s); the receiver may be switched off, "
         "which lsctl does not ask as service 3"},
        {0, 0, 3, busy, "position --timeout 0.4",
         "the receiver is on, but the location service did not answer this request in time (0.4 "
         "s); the receiver is slow, or its stored power mode is off: lsctl power on --as 6 sets "
         "both"},
        {0, 0, 1, timed_out, "speed",
         "the location service answered that the receiver did not answer it in time"},
        {0, 0, 1, odd, "speed",
         "the location service sent a reply of the wrong size or with an unknown status"},
        {0, 0, 1, failing_command, "nmea PUBX,00",
         "the location service could not exchange this with the receiver"},
        {0, 0, 1, unanswered, "nmea PUBX,00",
         "the receiver did not answer (the service reports that as success)"},
        {0, 0, 2, silent, "ubx 06", "class and id are needed"},
        {0, 0, 2, silent, "lpp --as 6",
         "LPP parameters go to service 2 (SAL) only: leave --as out"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.sentence);
        fake_reset();
        fake.init_errno[-1] = row.init_errno;
        fake.send_errno = row.send_errno;
        fake.service = row.service;
        const outcome got = run(row.line);
        EXPECT_EQ(got.status, row.status);
        EXPECT_EQ(got.err, "lsctl: " + std::string(row.sentence) + "\n");
        EXPECT_EQ(got.out, "");
    }
}

TEST_F(lsctl_command_line, wrong_usage_sends_nothing) {
    for (const char *line : {"position here", "position --as 0", "position --as 256", "power 3",
                             "nmea", "ubx", "watch -i 604801", "watch -i x", "watch -n 0"}) {
        const outcome got = run(line);
        EXPECT_EQ(got.status, 2) << line;
        EXPECT_NE(got.err, "") << line;
    }
    EXPECT_TRUE(fake.sent.empty());
}

TEST_F(lsctl_command_line, a_refused_power_change_is_explained) {
    const struct {
        const char *line;
        uint32_t in_force;
        const char *sentence;
    } rows[] = {
        {"power on", 0,
         "switching on was refused: service 32 may not switch on a receiver that is off; services "
         "3, 6, 8 and 9 may, lsctl power on --as 6"},
        {"power off", 0, "the receiver is already off (power mode 0)"},
        {"power off", 2,
         "switching off was refused: service 32 may not switch off a receiver that is to stay on; "
         "services 3, 6 and 9 may, lsctl power off --as 6"},
        {"power 1 --as 6", 2,
         "switching off was refused: the receiver is still on (power mode 2); lsctl power off --as "
         "6 uses mode 0"},
    };
    for (const auto &row : rows) {
        fake.service = [&row](const sent_message &m) {
            with_power(row.in_force)(m);
            if (m.hdr.msg_id == LS_REQUEST_SET_POWER_MODE) {
                fake_reply(m.hdr, bytes(8));
            }
        };
        const outcome got = run(row.line);
        EXPECT_EQ(got.status, 1);
        EXPECT_EQ(got.err, "lsctl: " + std::string(row.sentence) + "\n");
    }
    EXPECT_EQ(fake_sent(1002).at(0).payload, (bytes{2, 0, 0, 0}));
    EXPECT_EQ(fake_sent(1002).at(1).payload, (bytes{0, 0, 0, 0}));
    EXPECT_EQ(fake_sent(1002).at(3).payload, (bytes{1, 0, 0, 0}));
}

TEST_F(lsctl_command_line, a_refused_frame_is_a_failure) {
    bytes reply = padded({1}, 284);
    const bytes nak = {0xB5, 0x62, 0x05, 0x00, 0x02, 0x00, 0x06, 0x08, 0x15, 0x3A};
    std::copy(nak.begin(), nak.end(), reply.begin() + 84);
    fake.service = [&reply](const sent_message &m) { fake_reply(m.hdr, reply); };
    const outcome got = run("ubx 06 08");
    EXPECT_EQ(got.status, 1);
    EXPECT_EQ(got.err, "lsctl: the receiver refused CFG-RATE (06 08)\n");
    EXPECT_EQ(got.out, "ACK-NAK (05 00), 2 payload bytes, checksum good\n"
                       "  0000  06 08                                            ..\n");
    // A reset is obeyed without a word.
    reply = padded({1}, 284);
    EXPECT_EQ(run("ubx 06 04 00 00 02 00").status, 0);
}

TEST_F(lsctl_command_line, a_long_frame_is_cut_where_the_service_cuts_it) {
    bytes reply = padded({1}, 284);
    const bytes head = {0xB5, 0x62, 0x0A, 0x04, 0x64, 0x00, 'S'}; // 108 bytes, 80 of them here
    std::copy(head.begin(), head.end(), reply.begin() + 84);
    fake.service = always(reply);
    const outcome got = run("ubx 0A 04");
    EXPECT_EQ(got.status, 0);
    EXPECT_EQ(got.out.substr(0, 44), "MON-VER (0A 04), cut after 74 payload bytes\n");
}

// Accepts a registration and sends `statuses` as updates at once.
play registering(bytes statuses) {
    return [statuses = std::move(statuses)](const sent_message &m) {
        fake_reply(m.hdr, {1, 0, 0, 0});
        if (m.hdr.msg_id == LS_REQUEST_REGISTER_PERIODIC_UPDATE) {
            for (const uint8_t status : statuses) {
                fake_send(LS_MSG_NOTIFICATION, LS_NOTIFY_PERIODIC_UPDATE, padded({status}, 80));
            }
        }
    };
}

TEST_F(lsctl_command_line, watch_tells_why_there_is_no_position) {
    fake.service = registering({0, 2});
    EXPECT_EQ(run("watch -n 2 -i 4").out,
              "no position: the receiver has no fix, or its answer was not valid\n"
              "no position: the receiver did not answer in time\n");
    EXPECT_EQ(fake_sent(1007).at(0).payload, (bytes{2, 0, 0, 0, 4, 0, 0, 0}));
    fake.service = registering({0});
    EXPECT_EQ(run("watch -n 1 --json").out, "{\"status\":\"failed\"}\n");
    EXPECT_EQ(run("watch -n 1").status, 1);
}

TEST_F(lsctl_command_line, watch_replaces_what_a_killed_watch_left_behind) {
    int registrations = 0;
    fake.service = [&registrations](const sent_message &m) {
        if (m.hdr.msg_id == LS_REQUEST_REGISTER_PERIODIC_UPDATE && ++registrations == 1) {
            // An update still of the old one.
            fake_send(LS_MSG_NOTIFICATION, LS_NOTIFY_PERIODIC_UPDATE, padded({0}, 80));
            fake_reply(m.hdr, bytes(4));
            return;
        }
        registering({1})(m);
    };
    const outcome got = run("watch -n 1");
    EXPECT_EQ(got.status, 0);
    EXPECT_EQ(got.err, "lsctl: replaced a registration left behind as service 32\n");
    EXPECT_EQ(fake_sent(1009).size(), 1U);
    EXPECT_EQ(registrations, 2);
}

TEST_F(lsctl_command_line, a_signal_ends_a_request_and_a_watch_which_unregisters) {
    fake.service = [](const sent_message &m) {
        fake_reply(m.hdr, {1, 0, 0, 0});
        if (m.hdr.msg_id == LS_REQUEST_REGISTER_PERIODIC_UPDATE) {
            kill(getpid(), SIGHUP);
        }
    };
    outcome got = run("watch");
    EXPECT_EQ(got.status, 3);
    EXPECT_EQ(got.err, "");
    EXPECT_EQ(fake_sent(1009).size(), 1U);
    fake.service = [](const sent_message &) { kill(getpid(), SIGTERM); };
    got = run("position");
    EXPECT_EQ(got.status, 128 + SIGTERM);
    EXPECT_EQ(got.err, "");
}

// Runs with stdout on `fd`, which it closes.
int run_onto(int fd, const std::string &line) {
    std::fflush(stdout);
    const int kept = fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 3);
    dup2(fd, STDOUT_FILENO);
    close(fd);
    const int status = run_words(line);
    dup2(kept, STDOUT_FILENO);
    close(kept);
    std::clearerr(stdout);
    return status;
}

TEST_F(lsctl_command_line, a_closed_output_ends_a_watch_and_a_full_disk_is_reported) {
    fake.service = registering({1});
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
    close(ends[0]);
    testing::internal::CaptureStderr();
    EXPECT_EQ(run_onto(ends[1], "watch -i 4"), 0);
    EXPECT_EQ(fake_sent(1009).size(), 1U); // unregistered

    fake.service = with_power(2);
    const int full = open("/dev/full", O_WRONLY | O_CLOEXEC);
    ASSERT_GE(full, 0);
    EXPECT_EQ(run_onto(full, "power"), 1);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "lsctl: cannot write to the standard output\n");
}

} // namespace
