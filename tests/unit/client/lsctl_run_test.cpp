// lsctl as a whole, without its main: arguments, records, sentences, exit status.
#include "lsctl_rig.h"

#include <cerrno>
#include <csignal>

#include <fcntl.h>
#include <unistd.h>

namespace {

struct lsctl_command_line : testing::Test {
    void SetUp() override { fake_reset(); }
};

// The system tests meet the others.
TEST_F(lsctl_command_line, each_failure_has_its_sentence_and_status) {
    const play silent = [](const sent_message &) {};
    const struct {
        int init_errno, send_errno, status;
        play service;
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
        {0, 0, 3, with_power(2), "position --timeout 0.4",
         "the receiver is on, but the location service did not answer this request in time (0.4 "
         "s); the receiver is slow, or its stored power mode is off: lsctl power on --as 6 sets "
         "both"},
        {0, 0, 1, always(padded({2}, 16)), "speed",
         "the location service answered that the receiver did not answer it in time"},
        {0, 0, 1, always(bytes(17)), "speed",
         "the location service sent a reply of the wrong size or with an unknown status"},
        {0, 0, 1, always(bytes(284)), "nmea PUBX,00",
         "the location service could not exchange this with the receiver"},
        {0, 0, 1, always(padded({1}, 284)), "nmea PUBX,00",
         "the receiver did not answer (the service reports that as success)"},
        {0, 0, 2, silent, "ubx 06", "class and id are needed"},
        {0, 0, 2, silent, "lpp --as 6",
         "LPP parameters go to service 2 (SAL) only: leave --as out"},
    };
    for (const auto &row : rows) {
        fake_reset();
        fake.init_errno[-1] = row.init_errno;
        fake.send_errno = row.send_errno;
        fake.service = row.service;
        expect_outcome(row.line, row.status, "", row.sentence);
    }
}

TEST_F(lsctl_command_line, wrong_usage_sends_nothing) {
    constexpr const char *lines[] = {"",
                                     "position --timeout 0",
                                     "position --as 0",
                                     "position --as 8",
                                     "watch -i 3",
                                     "history --json --format svg",
                                     "watch -n 0",
                                     "position --as 256",
                                     "nmea",
                                     "watch -i 604801",
                                     "history --gap 0",
                                     "settings --interval 0",
                                     "power 3",
                                     "history --since soon",
                                     "settings --power-status 3",
                                     "history --since 2019-02-06 --until 2019-02-05"};
    for (const char *line : lines) {
        const outcome got = run(line);
        EXPECT_EQ(got.status, 2) << line;
        EXPECT_NE(got.err, "") << line;
        EXPECT_EQ(got.out, "") << line;
    }
    EXPECT_TRUE(fake.sent.empty());
}

// 10:51:05 on 5 February 2019, with a status before it and a record behind it.
bytes timed(const bytes &rest, size_t size) {
    return padded({1, 0, 0, 0, 10, 51, 5, 0, 0, 0, 5, 2, 0xE3, 7}, size, rest, 14);
}

TEST_F(lsctl_command_line, records_as_they_come_over_the_bus) {
    // Three in view, two used: PRN 7, and 31, which is not in the list.
    const bytes sky = padded(timed({3, 2, 7, 9, 12, 30}, 52), 52, {44, 0, 1, 50}, 28);
    const bytes heard = padded(sky, 52, {0, 7, 31}, 40);
    const bytes lpp = {1,    0, 0,  0, 0, 0, 0,    0, 10, 0, 10,   70,
                       0x1E, 2, 45, 0, 0, 0, 0x40, 0, 0,  0, 0xC0, 0};
    const struct {
        const char *line;
        bytes reply;
        const char *out;
    } rows[] = {
        {"satellites", heard,
         "Time  2019-02-05T10:51:05Z\n"
         "  PRN  C/N0 dB-Hz                             used\n"
         "    7    44  ######################              yes\n"
         "    9     -                                      no\n"
         "   12     1                                      no\n"
         "   31     ?  (not in the list)                   yes\n"
         "3 in view, 2 used\n"},
        {"speed", timed({12, 5}, 16),
         "Time   2019-02-05T10:51:05Z\n"
         "Speed  12 km/h and a fraction (digits 5, their place is not transmitted)\n"},
        {"time", timed({0, 0, 0x7F, 0x3A, 9, 0}, 20),
         "Time          2019-02-05T10:51:05Z\n"
         "Time of week  604799 s (Saturday 23:59:59)\n"},
        {"time", timed({0, 0, 0x80, 0x3A, 9, 0}, 20), // longer than a week
         "Time          2019-02-05T10:51:05Z\n"
         "Time of week  604800 s\n"},
        {"time --json", padded({1}, 20, {5}, 16), "{\"time_utc\":null,\"time_of_week_s\":5}\n"},
    };
    for (const auto &row : rows) {
        fake.service = always(row.reply);
        expect_outcome(row.line, 0, row.out, "");
    }
    fake.service = always(padded(heard, 52, {13}, 14)); // in view
    EXPECT_TRUE(
        run("satellites").out.ends_with("13 in view, 2 used (the service lists the first 12)\n"));
    fake.service = [&lpp](const sent_message &) { fake_send(LS_MSG_REQUEST, 19, lpp); };
    expect_outcome("lpp", 0,
                   "Latitude     45.000000 deg S (coded 4194304)\n"
                   "Longitude    90.000000 deg W (coded 12582912)\n"
                   "Altitude     542 m up\n"
                   "Uncertainty  15.9 m semi-major, 0.0 m semi-minor, 12.6 m altitude "
                   "(codes 10, 0, 10)\n"
                   "Major axis   90 deg\n"
                   "Confidence   70 %\n",
                   "");
}

TEST_F(lsctl_command_line, a_refused_power_change_is_explained) {
    const struct {
        const char *line;
        uint8_t in_force, wanted;
        const char *sentence;
    } rows[] = {
        {"power on", 0, 2,
         "switching on was refused: service 32 may not switch on a receiver that is off; services "
         "3, 6, 8 and 9 may, lsctl power on --as 6"},
        {"power off", 0, 0, "the receiver is already off (power mode 0)"},
        {"power off", 2, 0,
         "switching off was refused: service 32 may not switch off a receiver that is to stay on; "
         "services 3, 6 and 9 may, lsctl power off --as 6"},
        {"power 1 --as 6", 2, 1,
         "switching off was refused: the receiver is still on (power mode 2); lsctl power off --as "
         "6 uses mode 0"},
    };
    for (const auto &row : rows) {
        fake.service = [&row](const sent_message &m) {
            with_power(row.in_force)(m);
            if (m.hdr.msg_id == LS_REQUEST_SET_POWER_MODE) {
                EXPECT_EQ(m.payload, (bytes{row.wanted, 0, 0, 0}));
                fake_reply(m.hdr, bytes(8));
            }
        };
        expect_outcome(row.line, 1, "", row.sentence);
    }
}

TEST_F(lsctl_command_line, a_refused_frame_is_a_failure) {
    const bytes nak = {0xB5, 0x62, 0x05, 0x00, 0x02, 0x00, 0x06, 0x08, 0x15, 0x3A};
    fake.service = always(padded({1}, 284, nak, 84));
    expect_outcome("ubx 06 08", 1,
                   "ACK-NAK (05 00), 2 payload bytes, checksum good\n"
                   "  0000  06 08                                            ..\n",
                   "the receiver refused CFG-RATE (06 08)");
    // A reset is obeyed without a word.
    fake.service = always(padded({1}, 284));
    EXPECT_EQ(run("ubx 06 04 00 00 02 00").status, 0);
    // Of a frame of 108 bytes the service passes on 80.
    fake.service = always(padded({1}, 284, {0xB5, 0x62, 0x0A, 0x04, 0x64, 0x00, 'S'}, 84));
    EXPECT_EQ(run("ubx 0A 04").out.substr(0, 44), "MON-VER (0A 04), cut after 74 payload bytes\n");
}

// Accepts a registration and sends `statuses` as updates at once.
play registering(bytes statuses) {
    return [statuses = std::move(statuses)](const sent_message &m) {
        fake_reply(m.hdr, {1, 0, 0, 0});
        if (m.hdr.msg_id == LS_REQUEST_REGISTER_PERIODIC_UPDATE) {
            for (const uint8_t status : statuses)
                fake_send(LS_MSG_NOTIFICATION, LS_NOTIFY_PERIODIC_UPDATE, padded({status}, 80));
        }
    };
}

TEST_F(lsctl_command_line, watch_tells_why_there_is_no_position) {
    fake.service = registering({0, 2});
    expect_outcome("watch -n 2 -i 4", 1,
                   "no position: the receiver has no fix, or its answer was not valid\n"
                   "no position: the receiver did not answer in time\n",
                   "");
    EXPECT_EQ(fake_sent(1007).at(0).payload, (bytes{2, 0, 0, 0, 4, 0, 0, 0}));
    fake.service = registering({0});
    expect_outcome("watch -n 1 --json", 1, "{\"status\":\"failed\"}\n", "");
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
        if (m.hdr.msg_id == LS_REQUEST_REGISTER_PERIODIC_UPDATE)
            kill(getpid(), SIGHUP);
    };
    expect_outcome("watch", 3, "", "");
    EXPECT_EQ(fake_sent(1009).size(), 1U);
    fake.service = [](const sent_message &) { kill(getpid(), SIGTERM); };
    expect_outcome("position", 128 + SIGTERM, "", "");
}

TEST_F(lsctl_command_line, a_closed_output_ends_a_watch_and_a_full_disk_is_reported) {
    const auto run_onto = [](int fd, const char *line) {
        std::fflush(stdout);
        const int kept = fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 3);
        dup2(fd, STDOUT_FILENO);
        close(fd);
        const int status = run_words(line);
        dup2(kept, STDOUT_FILENO);
        close(kept);
        std::clearerr(stdout);
        return status;
    };
    fake.service = registering({1});
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
    close(ends[0]);
    testing::internal::CaptureStderr();
    EXPECT_EQ(run_onto(ends[1], "watch -i 4"), 0);
    EXPECT_EQ(fake_sent(1009).size(), 1U); // unregistered
    fake.service = with_power(2);
    EXPECT_EQ(run_onto(open("/dev/full", O_WRONLY | O_CLOEXEC), "power"), 1);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "lsctl: cannot write to the standard output\n");
}

} // namespace
