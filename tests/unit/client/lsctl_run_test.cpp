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

void answer_power(const sent_message &m, uint32_t mode) {
    if (m.hdr.msg_id == LS_REQUEST_GET_POWER_MODE) {
        fake_reply(m.hdr, power_reply(1, mode));
    }
}

bytes update(uint32_t status) {
    ls_position_reply reply{};
    reply.status = status;
    reply.pos.time = {10, 51, 5, 0, 5, 2, 2019};
    reply.pos.num_satellites = 8;
    return bytes_of(reply);
}

TEST_F(lsctl_command_line, shows_the_power_mode) {
    fake.service = [](const sent_message &m) { answer_power(m, 2); };
    outcome got = run("power");
    EXPECT_EQ(got.status, 0);
    EXPECT_EQ(got.out, "Receiver  on (power mode 2)\n");
    EXPECT_EQ(got.err, "");
    got = run("power --json --as 6");
    EXPECT_EQ(got.out, "{\"receiver_on\":true,\"power_mode\":2}\n");
    EXPECT_EQ(fake_sent(1001).at(1).hdr.src_serv_id, 6);
}

using play = std::function<void(const sent_message &)>;

play always(bytes reply) {
    return [reply = std::move(reply)](const sent_message &m) { fake_reply(m.hdr, reply); };
}

play with_power(uint32_t mode) {
    return [mode](const sent_message &m) { answer_power(m, mode); };
}

TEST_F(lsctl_command_line, each_failure_has_its_sentence_and_status) {
    enum class bus { up, absent, taken, nobody, full };
    const std::map<bus, std::pair<int, int>> errors = {{bus::up, {0, 0}},
                                                       {bus::absent, {ENOENT, 0}},
                                                       {bus::taken, {EADDRINUSE, 0}},
                                                       {bus::nobody, {0, ENOENT}},
                                                       {bus::full, {0, EAGAIN}}};
    const play silent = [](const sent_message &) {};
    const play failing = always(bytes(80)), failing_command = always(bytes(284));
    const play off = with_power(0), busy = with_power(2), gate = always(bytes(8));
    const play timed_out = always(padded({2}, 16)), odd = always(bytes(17));
    const play unanswered = always(padded({1}, 284)), refusing = always(bytes(4));
    const struct {
        bus state;
        int status;
        const play &service;
        const char *line;
        const char *sentence;
    } rows[] = {
        {bus::absent, 3, silent, "position",
         "the bus directory does not exist; is the terminal's bus set up? (MQUTILS_DIR names "
         "another one)"},
        {bus::taken, 3, silent, "time --as 6",
         "another process already uses this service id (6); choose another one with --as"},
        {bus::taken, 3, silent, "time",
         "all service ids for tools (32 to 63) are in use; choose another one with --as"},
        {bus::nobody, 3, silent, "speed", "the location service is not running"},
        {bus::full, 3, silent, "speed",
         "the location service does not take messages from its queue"},
        {bus::up, 3, silent, "satellites --timeout 0.05",
         "the location service did not answer in time (0.05 s)"},
        {bus::up, 3, silent, "time --timeout 0.05 --as 3",
         "the location service did not answer in time (0.05 s); the receiver may be switched off, "
         "which lsctl does not ask as service 3"},
        {bus::up, 3, off, "position",
         "the receiver is switched off (power mode 0); lsctl power on --as 6 switches it on"},
        {bus::up, 3, busy, "position --timeout 0.4",
         "the receiver is on, but the location service did not answer this request in time (0.4 "
         "s); the receiver is slow, or its stored power mode is off: lsctl power on --as 6 sets "
         "both"},
        {bus::up, 1, gate, "position",
         "the location service refuses all requests: this terminal has no GNSS antenna and no "
         "static location"},
        {bus::up, 1, failing, "position",
         "the location service answered that the request failed (the receiver may have no fix "
         "yet)"},
        {bus::up, 1, timed_out, "speed",
         "the location service answered that the receiver did not answer it in time"},
        {bus::up, 1, odd, "speed",
         "the location service sent a reply of the wrong size or with an unknown status"},
        {bus::up, 1, failing_command, "nmea PUBX,00",
         "the location service could not exchange this with the receiver"},
        {bus::up, 1, unanswered, "nmea PUBX,00",
         "the receiver did not answer (the service reports that as success)"},
        {bus::up, 2, silent, "nmea $PUBX,00",
         "give the sentence without $, * and checksum: the service adds them"},
        {bus::up, 2, silent, "ubx 06", "class and id are needed"},
        {bus::up, 2, silent, "lpp --as 6",
         "LPP parameters go to service 2 (SAL) only: leave --as out"},
        {bus::taken, 3, silent, "lpp",
         "service 2 (SAL) is running; only it can ask for LPP parameters"},
        {bus::up, 1, refusing, "watch --as 6",
         "the registration was refused: service 6 is registered already, or three others are"},
        {bus::up, 1, refusing, "watch",
         "the registration was refused: three other services are registered already"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.sentence);
        fake_reset();
        fake.init_errno[-1] = errors.at(row.state).first;
        fake.send_errno = errors.at(row.state).second;
        fake.service = row.service;
        const outcome got = run(row.line);
        EXPECT_EQ(got.status, row.status);
        EXPECT_EQ(got.err, "lsctl: " + std::string(row.sentence) + "\n");
        EXPECT_EQ(got.out, "");
    }
}

TEST_F(lsctl_command_line, a_failure_in_json_names_itself) {
    fake.send_errno = ENOENT;
    const outcome got = run("position --json");
    EXPECT_EQ(got.status, 3);
    EXPECT_EQ(got.out,
              "{\"error\":\"no_daemon\",\"text\":\"the location service is not running\"}\n");
}

TEST_F(lsctl_command_line, wrong_usage_sends_nothing) {
    for (const char *line : {"", "fly", "position here", "position --as 8", "position --as 0",
                             "position --as 256", "position --timeout 0", "power 3", "nmea", "ubx",
                             "watch -i 3", "watch -i 604801", "watch -i x", "watch -n 0"}) {
        const outcome got = run(line);
        EXPECT_EQ(got.status, 2) << line;
        EXPECT_NE(got.err, "") << line;
    }
    EXPECT_TRUE(fake.sent.empty());
    EXPECT_EQ(run("--help").status, 0);
    EXPECT_EQ(run("--version").out, "lsctl 2.0\n");
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
            answer_power(m, row.in_force);
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
play registering(std::vector<uint32_t> statuses) {
    return [statuses = std::move(statuses)](const sent_message &m) {
        fake_reply(m.hdr, {1, 0, 0, 0});
        if (m.hdr.msg_id == LS_REQUEST_REGISTER_PERIODIC_UPDATE) {
            for (const uint32_t status : statuses) {
                fake_send(LS_MSG_NOTIFICATION, LS_NOTIFY_PERIODIC_UPDATE, update(status));
            }
        }
    };
}

TEST_F(lsctl_command_line, watch_shows_each_update_and_ends_at_its_count) {
    fake.service = registering({1, 0, 2});
    const outcome got = run("watch -n 3 -i 4");
    EXPECT_EQ(got.status, 0);
    EXPECT_EQ(got.out,
              "2019-02-05T10:51:05Z  2D      0.000000 ?     0.000000 ?       0.0 m  +-0.0 m   8 "
              "satellites\n"
              "no position: the receiver has no fix, or its answer was not valid\n"
              "no position: the receiver did not answer in time\n");
    EXPECT_EQ(fake_sent(1007).at(0).payload, (bytes{3, 0, 0, 0, 4, 0, 0, 0}));
    EXPECT_TRUE(fake_sent(1009).empty()); // it ran out
    fake.service = registering({0});
    EXPECT_EQ(run("watch -n 1 --json").out, "{\"status\":\"failed\"}\n");
    EXPECT_EQ(run("watch -n 1").status, 1);
}

TEST_F(lsctl_command_line, watch_replaces_what_a_killed_watch_left_behind) {
    int registrations = 0;
    fake.service = [&registrations](const sent_message &m) {
        if (m.hdr.msg_id == LS_REQUEST_REGISTER_PERIODIC_UPDATE && ++registrations == 1) {
            fake_send(LS_MSG_NOTIFICATION, LS_NOTIFY_PERIODIC_UPDATE,
                      update(0)); // still of the old one
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

TEST_F(lsctl_command_line, watch_unregisters_when_a_signal_ends_it) {
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
        fake_reset();
        std::thread late; // the end of the registration is worth a wait
        fake.service = [signal, &late](const sent_message &m) {
            if (m.hdr.msg_id == LS_REQUEST_REGISTER_PERIODIC_UPDATE) {
                fake_reply(m.hdr, {1, 0, 0, 0});
                kill(getpid(), signal);
                return;
            }
            late = std::thread([m] {
                std::this_thread::sleep_for(std::chrono::milliseconds(20));
                fake_reply(m.hdr, {1, 0, 0, 0});
            });
        };
        const outcome got = run("watch");
        late.join();
        EXPECT_EQ(got.status, 3);
        EXPECT_EQ(got.err, "");
        EXPECT_EQ(fake_sent(1009).size(), 1U) << signal;
    }
}

TEST_F(lsctl_command_line, a_signal_ends_a_request) {
    fake.service = [](const sent_message &) { kill(getpid(), SIGTERM); };
    const outcome got = run("position");
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

TEST_F(lsctl_command_line, a_closed_output_ends_a_watch_and_unregisters) {
    fake.service = registering({1});
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
    close(ends[0]);
    testing::internal::CaptureStderr();
    EXPECT_EQ(run_onto(ends[1], "watch -i 4"), 0);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    EXPECT_EQ(fake_sent(1009).size(), 1U);
}

TEST_F(lsctl_command_line, a_full_disk_is_reported) {
    fake.service = [](const sent_message &m) { answer_power(m, 2); };
    const int full = open("/dev/full", O_WRONLY | O_CLOEXEC);
    ASSERT_GE(full, 0);
    testing::internal::CaptureStderr();
    EXPECT_EQ(run_onto(full, "power"), 1);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "lsctl: cannot write to the standard output\n");
}

} // namespace
