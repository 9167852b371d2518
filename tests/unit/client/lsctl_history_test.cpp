// lsctl history and lsctl settings: what they ask, read, write and say.
#include "lsctl_history_file.h"
#include "lsctl_rig.h"
#include "scratch_dir.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>

#include <fcntl.h>
#include <unistd.h>

namespace {

constexpr char EXPORT[] = "t/user/location/location_history.txt";
const std::string FIRST = "2019-02-05 10:51:05,2D,70.132317N,11.516667E,+2.25m,08\n";
const std::string SECOND = "2019-02-05 10:52:05,2D,70.132400S,11.516700W,+2.25m,08\n";
const std::string LINES = FIRST + SECOND;

struct lsctl_files : testing::Test {
    scratch_dir dir;

    void SetUp() override {
        setenv("TZ", "UTC0", 1);
        setenv("LOCATION_TERMINAL_ROOT", "t", 1);
        setenv("DBHANDLER_FILE", "settings.db", 1);
        fake_reset();
        exporting(0);
        scratch_dir::write(EXPORT, LINES);
    }
    void TearDown() override {
        for (const char *name : {"TZ", "LOCATION_TERMINAL_ROOT", "DBHANDLER_FILE"})
            unsetenv(name);
    }
    static void exporting(uint8_t status, uint8_t rest = 0) {
        const std::string path = "/user/location/location_history.txt";
        fake.service =
            always(padded({status, rest, rest, rest}, 104, {path.begin(), path.end()}, 4));
    }
};

TEST_F(lsctl_files, exported_lines_are_printed_and_damaged_ones_counted) {
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

TEST_F(lsctl_files, a_history_without_lines_says_why) {
    scratch_dir::write("notes", "shopping\n");
    expect_outcome("history --input notes", 1, "", "notes is no exported location history");
    expect_outcome("history --since 2030-01-01T00:00:00Z", 0, "",
                   "none of the 2 recorded positions is between --since and --until");
    scratch_dir::write(EXPORT, "");
    expect_outcome("history", 0, "", "nothing is recorded: the history is off");
    EXPECT_EQ(run("settings --history on").status, 0);
    EXPECT_NE(run("history").err.find("location_history has no header"), std::string::npos);
}

TEST_F(lsctl_files, following_prints_each_line_once_also_from_a_new_ring) {
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

TEST_F(lsctl_files, an_output_file_is_whole_or_as_it_was) {
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

TEST_F(lsctl_files, the_static_location_goes_where_the_service_reads_it) {
    scratch_dir::write("t/user/stub_location/stub_loc.gps", "");
    EXPECT_EQ(run("static on -33.5 8.25w").status, 0);
    EXPECT_EQ(scratch_dir::read("t/user/stub_location/stub_loc.gps"),
              "STATIC_LOCATION = ON\n3330.000,S,00815.000,W\n");
}

TEST_F(lsctl_files, settings_are_shown_and_stored) {
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

TEST_F(lsctl_files, settings_without_a_service_or_beside_ws) {
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
