// lsctl as a whole, without its main: arguments, records, sentences, exit status, and the files of
// lsctl history, static and settings.
#include "line_peer.h"
#include "lsctl_history_file.h"
#include "lsctl_rig.h"
#include "scratch_dir.h"

#include <csignal>
#include <thread>

#include <fcntl.h>
#include <unistd.h>

namespace {

constexpr char EXPORT[] = "t/user/location/location_history.txt";
const std::string FIRST = "2019-02-05 10:51:05,2D,70.132317N,11.516667E,+2.25m,08\n";
const std::string SECOND = "2019-02-05 10:52:05,2D,70.132400S,11.516700W,+2.25m,08\n";
const std::string LINES = FIRST + SECOND;

// On a terminal below "t" with an exported history, whose service has nothing else to say.
struct lsctl_command_line : testing::Test {
    scratch_dir dir;

    void SetUp() override {
        setenv("TZ", "UTC0", 1);
        setenv("LOCATION_TERMINAL_ROOT", "t", 1);
        setenv("DBHANDLER_FILE", "settings.db", 1);
        fake_reset();
        exporting(0);
        scratch_dir::write(EXPORT, LINES);
    }
    static void exporting(uint8_t status, uint8_t rest = 0) {
        const std::string path = "/user/location/location_history.txt";
        fake.service =
            always(padded({status, rest, rest, rest}, 104, {path.begin(), path.end()}, 4));
    }
};

TEST_F(lsctl_command_line, wrong_usage_sends_nothing_and_names_what_was_meant) {
    for (const char *line :
         {"position --timeout 0", "position --as 8", "position --as 256", "watch -i 3",
          "watch -n 0", "power 3", "stream --format gpsd", "stream --listen 65536",
          "settings --interval 0", "ubx 06", "stream --json --format nmea"})
        EXPECT_EQ(run(line).status, 2) << line;
    const std::pair<const char *, const char *> rows[] = {
        {"positon", "'positon' is no command; did you mean 'position'?"},
        {"psoition", "'psoition' is no command; did you mean 'position'?"},
        {"sat", "'sat' is no command; did you mean 'satellites'?"},
        {"xyzzy", "'xyzzy' is no command: lsctl --help lists them"},
        {"watch --cuont 2", "'--cuont' is no option of lsctl watch; did you mean '--count'?"},
        {"", "a command is missing: lsctl --help lists them"},
    };
    for (const auto &[line, sentence] : rows)
        expect_outcome(line, 2, "", sentence);
    const std::string behind = "'--json' goes behind the command: lsctl power --json";
    expect_outcome("--json power", 2, R"({"error":"usage","text":")" + behind + "\"}\n", behind);
    EXPECT_TRUE(fake.sent.empty());
}

TEST_F(lsctl_command_line, records_as_they_come_over_the_bus) {
    // Three in view, two used: PRN 7, and 31, which is not in the list.
    const bytes sky = padded({1, 0, 0, 0, 10, 51, 5, 0, 0, 0, 5, 2, 0xE3, 7, 3, 2, 7, 9, 12, 30},
                             52, {44, 0, 1, 50}, 28);
    const bytes heard = padded(sky, 52, {0, 7, 31}, 40);
    fake.service = always(heard);
    expect_outcome(
        "satellites --json", 0,
        R"({"time_utc":"2019-02-05T10:51:05Z","satellites_in_view":3,"satellites_used":2,)"
        R"("satellites":[{"prn":7,"cn0_dbhz":44,"used":true},{"prn":9,"cn0_dbhz":null,"used":false},)"
        R"({"prn":12,"cn0_dbhz":1,"used":false},{"prn":31,"cn0_dbhz":null,"used":true}]})"
        "\n");
    fake.service = always(padded({1}, 20, {5}, 16));
    expect_outcome("time --json", 0,
                   "{\"time_utc\":null,\"time_of_week_s\":5,\"clock_ahead_s\":null,"
                   "\"clock_uncertainty_s\":null}\n");
    fake.service = always(padded(heard, 52, {13}, 14)); // in view, of 12 that have a place
    EXPECT_TRUE(
        run("satellites").out.ends_with("13 in view, 2 used (the service lists the first 12)\n"));
    fake.service = [](const sent_message &) { fake_send(LS_MSG_REQUEST, 19, bytes(24)); };
    EXPECT_TRUE(run("lpp --json").out.starts_with("{\"error\":\"lpp_empty\""));
    fake.service =
        always(padded({1}, 284, {0xB5, 0x62, 6, 8, 6, 0, 100, 0, 1, 0, 1, 0, 0x7A, 0x12}, 84));
    EXPECT_NE(run("ubx cfg-rate").out.find("  measurement period         100 ms\n"),
              std::string::npos);
}

TEST_F(lsctl_command_line, a_speed_is_the_receivers_own_or_one_of_several) {
    std::string vtg = nmea("GPVTG,90.00,T,,M,161.867,N,299.777,K,A");
    // The record's whole number is 299 modulo 256, its digits are 777.
    fake.service = [&vtg](const sent_message &m) {
        if (m.hdr.msg_id == LS_REQUEST_GET_SPEED)
            fake_reply(m.hdr, padded({1}, sizeof(ls_speed_reply), {43, 9}, 14));
        else
            always(padded({1}, 284, {vtg.begin(), vtg.end()}, 84))(m);
    };
    expect_outcome("speed", 0,
                   "Time   unknown\nSpeed  299.8 km/h  (83.3 m/s, 161.9 knots)\n"
                   "Course 90.0 deg from north\n");
    vtg[vtg.size() - 3] ^= 1; // its checksum
    const outcome got = run("speed --json");
    EXPECT_EQ(got.status, 1);
    EXPECT_NE(got.out.find("\"candidates_kmh\":[43.009,"), std::string::npos) << got.out;
    EXPECT_NE(got.out.find(",299.777,"), std::string::npos) << got.out;
}

TEST_F(lsctl_command_line, watch_replaces_what_was_left_behind_and_tells_why_there_is_no_position) {
    fake.service = [](const sent_message &m) {
        const bool cleared = !fake_sent(LS_REQUEST_UNREGISTER_PERIODIC_UPDATE).empty();
        if (m.hdr.msg_id == LS_REQUEST_REGISTER_PERIODIC_UPDATE)
            for (const uint8_t status : cleared ? bytes{0, 2} : bytes{1}) // 1: still of the old one
                fake_send(LS_MSG_NOTIFICATION, LS_NOTIFY_PERIODIC_UPDATE, padded({status}, 80));
        fake_reply(m.hdr, {cleared, 0, 0, 0});
    };
    expect_outcome("watch -n 2 -i 4", 1,
                   "no position: the receiver has no fix, or its answer was not valid\n"
                   "no position: the receiver did not answer in time\n",
                   "replaced a registration left behind as service 32");
    EXPECT_EQ(fake_sent(1007).at(1).payload, (bytes{2, 0, 0, 0, 4, 0, 0, 0}));
}

TEST_F(lsctl_command_line, a_signal_ends_a_request_and_a_watch_which_unregisters) {
    // The second one, as timeout(1) sends it, does not cut the clean-up short.
    std::thread late;
    fake.service = [&late](const sent_message &m) {
        if (m.hdr.msg_id == LS_REQUEST_REGISTER_PERIODIC_UPDATE) {
            fake_reply(m.hdr, {1, 0, 0, 0});
            kill(getpid(), SIGHUP);
            return;
        }
        kill(getpid(), SIGTERM);
        late = std::thread([hdr = m.hdr] {
            while (lsctl_signals_last() != SIGTERM)
                std::this_thread::yield();
            fake_reply(hdr, {1, 0, 0, 0});
        });
    };
    expect_outcome("watch", 3, "");
    late.join();
    EXPECT_EQ(fake_sent(1009).size(), 1U);
    fake.service = [](const sent_message &) { kill(getpid(), SIGTERM); };
    expect_outcome("position", 128 + SIGTERM, "");
}

TEST_F(lsctl_command_line, exported_lines_are_printed_and_damaged_ones_counted) {
    expect_outcome("history", 0, LINES);
    EXPECT_EQ(fake_sent(1013).size(), 1U);
    exporting(255); // not all of it could be written
    expect_outcome("history", 1, LINES, "the location service could not write all of its export");
    EXPECT_EQ(lsctl_json::parse(run("history --json").out)["error"], "incomplete");
    exporting(0xFF, 0xFF); // nothing; what is there is an older one
    EXPECT_EQ(run("history").out, "");
    exporting(0);
    expect_outcome("history --since 2019-02-05T10:52:05", 0, SECOND);
    expect_outcome("history --until 2019-02-05T10:51:05", 0, FIRST);
    const std::string nowhere = "2019-02-05 10:53:05,ER,0.000000X,0.000000Y,+2.25m,08\n";
    scratch_dir::write("elsewhere" + std::string(EXPORT + 1),
                       "16667E,+2.25m,08\n" + FIRST + "\n" + nowhere + SECOND + "2019-02-05 10");
    expect_outcome("history --root elsewhere", 0, FIRST + nowhere + SECOND,
                   "3 lines skipped: cut or damaged");
    // Other programs read the other formats in the system tests.
    EXPECT_TRUE(
        run("history --root elsewhere --format csv")
            .out.ends_with(
                "\n2019-02-05T10:53:05Z,2019-02-05 10:53:05,none,,,2.25,8\n"
                "2019-02-05T10:52:05Z,2019-02-05 10:52:05,2D,-70.132400,-11.516700,2.25,8\n"));
}

TEST_F(lsctl_command_line, a_history_without_lines_says_why) {
    scratch_dir::write("notes", "shopping\n");
    expect_outcome("history --input notes", 1, "", "notes is no exported location history");
    expect_outcome("history --since 2030-01-01T00:00:00Z", 0, "",
                   "none of the 2 recorded positions is between --since and --until");
    scratch_dir::write(EXPORT, "");
    expect_outcome("history", 0, "", "nothing is recorded: the history is off");
    EXPECT_EQ(run("settings --history on").status, 0);
    EXPECT_NE(run("history").err.find("location_history has no header"), std::string::npos);
}

TEST_F(lsctl_command_line, following_prints_each_line_once_also_from_a_new_ring) {
    EXPECT_EQ(run("settings --interval 2").status, 0);
    const std::string third = "2019-02-05 10:53:05,2D,70.132400S,11.516700W,+2.25m,08\n";
    int exports = 0;
    const play export_now = fake.service;
    fake.service = [&](const sent_message &m) {
        if (++exports == 2)
            scratch_dir::write(EXPORT, SECOND + third);
        if (exports == 3)
            kill(getpid(), SIGTERM);
        export_now(m);
    };
    expect_outcome("history --follow", 0, LINES + third);
}

TEST_F(lsctl_command_line, an_output_file_is_whole_or_as_it_was) {
    expect_outcome("history -o out.txt", 0, "");
    EXPECT_EQ(scratch_dir::read("out.txt"), LINES);
    expect_outcome("history -o /dev/full", 1, "",
                   "cannot write /dev/full: No space left on device");
    const history_error failed = history_write("out.txt", [](FILE *out) {
        std::fputs("half", out);
        dup2(open("/dev/full", O_WRONLY | O_CLOEXEC), fileno(out));
    });
    EXPECT_EQ(failed.text, "out.txt: No space left on device");
    EXPECT_EQ(scratch_dir::read("out.txt"), LINES);
    const std::filesystem::directory_iterator here(".");
    EXPECT_EQ(std::distance(begin(here), end(here)), 2) << "it and the terminal";
}

TEST_F(lsctl_command_line, the_static_location_goes_where_the_service_reads_it) {
    scratch_dir::write("t/user/stub_location/stub_loc.gps", "");
    EXPECT_EQ(run("static on -33.5 8.25w").status, 0);
    EXPECT_EQ(scratch_dir::read("t/user/stub_location/stub_loc.gps"),
              "STATIC_LOCATION = ON\n3330.000,S,00815.000,W\n");
    EXPECT_EQ(lsctl_json::parse(run("static --json").out)["longitude_deg"], -8.25);
}

TEST_F(lsctl_command_line, settings_are_shown_and_stored) {
    EXPECT_EQ(run("settings --history on --interval 30").status, 0);
    const msg_hdr told = fake_sent(808).at(0).hdr;
    EXPECT_TRUE(told.msg_type == 2 && told.src_serv_id == 6 && told.dst_serv_id == 8);

    EXPECT_EQ(run("settings --history off").status, 0); // the interval stays
    expect_outcome("settings --antenna 4 --power-status on", 0,
                   "History         off, every 30 s\n"
                   "Antenna type    4 (GNSS)\n"
                   "Receiver        on (power mode 2)\n",
                   "antenna type and receiver at start: taken up at the next start");
    EXPECT_EQ(fake_sent(808).size(), 2U); // neither showing nor the other settings
}

TEST_F(lsctl_command_line, settings_without_a_service_or_beside_ws) {
    fake.send_errno = ENOENT;
    EXPECT_EQ(run("settings --interval 7").status, 0);
    fake.send_errno = EAGAIN; // stored, but it could not be told
    EXPECT_EQ(run("settings --interval 8").status, 3);
    fake_reset();
    fake.init_errno = {{6, EADDRINUSE}, {-1, 0}}; // WS is running
    EXPECT_EQ(run("settings --history on --power-status off").status, 0);
    EXPECT_EQ(fake_sent(808).at(0).hdr.src_serv_id, 32);
    setenv("DBHANDLER_FILE", "missing/settings.db", 1);
    const outcome shown = run("settings --json");
    EXPECT_TRUE(shown.status == 0 && shown.out.ends_with("\"settings_file_exists\":false}\n"));
    EXPECT_FALSE(std::filesystem::exists("missing"));
    scratch_dir::write("notes", "interval = 60\n");
    setenv("DBHANDLER_FILE", "notes", 1);
    for (const char *line : {"settings", "settings --power-status on", "settings --interval 5"})
        expect_outcome(line, 1, "", "notes is not a settings database; it is left as it is");
    EXPECT_EQ(scratch_dir::read("notes"), "interval = 60\n");
}

} // namespace
