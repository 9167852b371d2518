// The history: lines, ring, export, damaged files, settings and acquisition.
#include "daemon_fixture.h"
#include "gps_history.h"
#include "gps_service.h"

#include <sys/stat.h>

namespace {

// One call of the daemon's modules that fails, once, after `skip` that do not.
struct {
    std::string call;
    int error = 0;
    int skip = 0;
} failing;

bool fails(const char *call) {
    if (failing.call != call || failing.skip-- > 0)
        return false;
    failing.call.clear();
    errno = failing.error;
    return true;
}

} // namespace

// The linker's --wrap sends these calls here; open64 is open where files are large by default.
#define WRAP(name, result, parameters, ...)                                                        \
    extern "C" result __real_##name parameters;                                                    \
    extern "C" result __wrap_##name parameters;                                                    \
    result __wrap_##name parameters {                                                              \
        return fails(#name) ? -1 : __real_##name(__VA_ARGS__);                                     \
    }
WRAP(open, int, (const char *path, int flags, mode_t mode), path, flags, mode)
WRAP(open64, int, (const char *path, int flags, mode_t mode), path, flags, mode)
WRAP(read, ssize_t, (int fd, void *buffer, size_t size), fd, buffer, size)
WRAP(fsync, int, (int fd), fd)
WRAP(fdatasync, int, (int fd), fd)

namespace {

constexpr char ring[] = "user/location/location_history";
constexpr char text[] = "user/location/location_history.txt";

std::string header(uint32_t wrap, uint32_t write) {
    const uint32_t offsets[] = {wrap, write};
    return {reinterpret_cast<const char *>(offsets), sizeof(offsets)};
}

class history : public daemon_fixture {
  protected:
    void SetUp() override {
        daemon_fixture::SetUp();
        scratch_dir::write(ring, header(8, 8));
    }
    void TearDown() override {
        ls_hal_deinit_gps_history();
        ls_history_file_close();
    }

    static std::string exported() {
        EXPECT_EQ(ls_hal_read_history_data(), 0);
        return scratch_dir::read(text);
    }
};

TEST_F(history, lines) {
    const gps_pos_data no_fix = {{}, 70.132317, 0, 11.516667, 0, 2, -1.0F, 0, 0, 12};
    ls_history_line line = {};
    ls_position_to_string(&no_fix, &line);
    EXPECT_EQ(std::string(line.data(), 2), "20"); // of now
    EXPECT_STREQ(line.data() + 19, ",ER,70.132317X,11.516667Y,-1.00m,12\n");
    const gps_pos_data far = {{}, 1e300, 0, 1e300, 0, 0, 0, 0, 0, 0}; // cut, but a line
    ls_position_to_string(&far, &line);
    EXPECT_EQ(strlen(line.data()), LS_HISTORY_LINE_SIZE - 1);
    EXPECT_EQ(line[LS_HISTORY_LINE_SIZE - 2], '\n');
}

TEST_F(history, the_last_byte_is_used_and_one_more_wraps) {
    const std::string old(LS_HISTORY_FILE_SIZE - 8 - 4, 'o');
    scratch_dir::write(ring, header(8, LS_HISTORY_FILE_SIZE - 4) + old);
    EXPECT_EQ(ls_write_to_file("end\n"), 0);
    EXPECT_EQ(scratch_dir::read(ring), header(8, LS_HISTORY_FILE_SIZE) + old + "end\n");
    EXPECT_EQ(ls_write_to_file("first\n"), 0);
    EXPECT_EQ(ls_write_to_file("second\n"), 0);
    const std::string newer = "first\nsecond\n", older = old.substr(newer.size()) + "end\n";
    EXPECT_EQ(scratch_dir::read(ring), header(21, 21) + newer + older);
    EXPECT_EQ(exported(), older + newer);
}

TEST_F(history, files_from_elsewhere_are_refused_until_start_up_makes_them_usable) {
    const std::pair<const char *, std::string> rows[] = {
        {"seven bytes", "\x08\0\0\0\x08\0\0"s},
        {"zeros", std::string(4096, '\0')},
        {"writes outside", header(8, 13) + "one\n"},
        {"wraps outside", header(3'000'000, 8) + "one\n"},
        {"into the header", header(4, 8) + "one\n"},
    };
    for (const auto &[name, content] : rows) {
        scratch_dir::write(ring, content);
        EXPECT_EQ(ls_write_to_file("one\n"), -1) << name;
        EXPECT_EQ(ls_hal_read_history_data(), -1) << name;
        EXPECT_EQ(ls_hal_init_gps_history(), 0) << name;
        EXPECT_EQ(ls_write_to_file("new\n"), 0) << name;
        EXPECT_EQ(exported().substr(0, 4), "new\n") << name;
    }
    scratch_dir::write(ring, header(8, 12) + "one\n");
    EXPECT_EQ(ls_hal_init_gps_history(), 0); // a good one is left alone
    EXPECT_EQ(exported(), "one\n");
}

// A power loss between a line and its header leaves a line that no header counts; the next one
// takes its place, and what stays of it must not be read. The clock may have been set in between.
TEST_F(history, a_line_that_no_header_counts_is_replaced) {
    const auto line = [](const char *year, const char *degrees) {
        return year + "-02-05 10:51:05,2D,70.132317N,"s + degrees + ".516667E,+2.25m,08\n";
    };
    const std::string newest = line("2019", "11"), next = line("2019", "1");
    const std::string oldest = line("2018", "11"), rest = "667E,+2.25m,08\n";
    const std::string longer = line("2030", "111"), unknown = line("2000", "111");
    const std::string endless = longer.substr(0, 20) + std::string(80, 'x') + "\n";
    const auto end = static_cast<uint32_t>(8 + newest.size());
    const std::string open_end = header(8, end) + newest, wrapped = header(end, end) + newest;
    // The file, and what is exported of it before the two newest lines.
    const std::tuple<const char *, std::string, std::string> rows[] = {
        {"in the ring", wrapped + unknown + rest + oldest, rest + oldest},
        {"in the ring, one byte longer", wrapped + newest + rest + oldest, rest + oldest},
        {"none; clock set back", wrapped + longer + oldest, "8\n" + oldest},
        {"none; the last of the file", wrapped + longer, "8\n"},
        {"none; too long for a line", wrapped + endless + rest, endless.substr(54) + rest},
        {"none; without a time",
         wrapped + longer.substr(0, 11) + std::string(44, 'x') + "\n" + rest, "x\n" + rest},
        {"none; without a date", wrapped + std::string(19, 'x') + longer.substr(19) + rest,
         "8\n" + rest},
        {"at the end, half written", open_end + longer.substr(0, 56), ""},
    };
    for (const auto &[name, file, older] : rows) {
        scratch_dir::write(ring, file);
        EXPECT_EQ(ls_write_to_file(next.c_str()), 0) << name;
        EXPECT_EQ(exported(), older + newest + next) << name;
    }
    scratch_dir::write(ring, header(8, 8) + newest + oldest); // the header was made anew
    EXPECT_EQ(ls_write_to_file(next.c_str()), 0);
    EXPECT_EQ(exported(), next + "\n" + oldest);
}

TEST_F(history, a_new_file_is_synced_with_its_directory_and_the_group_may_write_it) {
    std::filesystem::remove(ring);
    failing = {"fsync", EIO, 0};
    const mode_t before = umask(0007);
    EXPECT_EQ(ls_hal_init_gps_history(), 0);
    EXPECT_EQ(errors("directory sync error: 5"), 1U);
    EXPECT_EQ(exported(), "");
    umask(before);
    for (const char *name : {ring, text})
        EXPECT_EQ(static_cast<int>(std::filesystem::status(name).permissions()), 0660) << name;
    failing = {"fdatasync", EIO, 0};
    EXPECT_EQ(ls_hal_write_metadata_to_file(), -1);
}

TEST_F(history, a_call_that_fails_once_costs_one_line_and_no_more) {
    const std::string open_call = sizeof(off_t) > sizeof(long) ? "open64" : "open";
    const std::string file = header(8, 12) + "one\n";
    for (const auto &failure :
         {decltype(failing){open_call, EMFILE, 0}, {open_call, EINTR, 1}, {"fdatasync", EIO, 0}}) {
        scratch_dir::write(ring, file);
        fake::reset_log();
        failing = failure;
        EXPECT_EQ(ls_write_to_file("two\n"), -1) << failure.call;
        EXPECT_EQ(scratch_dir::read(ring).substr(0, file.size()), file) << failure.call;
        EXPECT_EQ(errors("error: " + std::to_string(failure.error)), 1U) << failure.call;
        EXPECT_EQ(errors("error: "), 1U) << failure.call;
        EXPECT_EQ(ls_write_to_file("two\n"), 0) << failure.call;
        EXPECT_EQ(exported(), "one\ntwo\n") << failure.call;
    }
    scratch_dir::write(ring, header(12, 12) + "one\nold\n");
    for (const int skip : {1, 3}) { // behind the header; the newer lines
        failing = {"read", EIO, skip};
        EXPECT_EQ(ls_hal_read_history_data(), -1) << skip;
    }
    EXPECT_EQ(errors("LH: ls_hal_read_history_data, file read error: 5"), 2U);
    failing = {open_call, EMFILE, 1}; // behind the header
    EXPECT_EQ(ls_hal_read_history_data(), -1);
}

// Whoever may write in the directory can put something else under a name.
TEST_F(history, nothing_but_regular_files_is_touched) {
    const std::string file = header(8, 12) + "one\n", real = "user/location/elsewhere";
    // In its place: a FIFO, a symbolic link, a hard link.
    const std::pair<const char *, char> rows[] = {
        {ring, 'f'}, {ring, 's'}, {text, 'f'}, {text, 's'}, {text, 'h'}};
    for (const auto &[name, kind] : rows) {
        fake::reset_log();
        std::filesystem::remove_all("user/location");
        scratch_dir::write(real, file);
        EXPECT_EQ(name == text ? link(real.c_str(), ring) : 0, 0);
        EXPECT_EQ(kind == 'f'   ? mkfifo(name, 0660)
                  : kind == 's' ? symlink("elsewhere", name)
                                : link(real.c_str(), name),
                  0);
        EXPECT_EQ(ls_hal_read_history_data(), -1) << name;
        EXPECT_GE(errors("file open error: "), 1U) << name;
        EXPECT_EQ(ls_write_to_file("two\n"), name == ring ? -1 : 0) << name;
        EXPECT_EQ(scratch_dir::read(real), name == ring ? file : header(8, 16) + "one\ntwo\n");
        ls_history_file_close();
    }
}

TEST_F(history, settings_start_restart_and_stop_the_timer) {
    fake::database().history = {.status = 1, .interval = 30};
    gps_current_power_mode_g = 0;
    EXPECT_EQ(ls_hal_init_gps_history(), 0);
    EXPECT_TRUE(fake::timers.empty()); // the receiver is off
    gps_current_power_mode_g = 2;
    EXPECT_EQ(ls_hal_init_gps_history(), 0);
    EXPECT_EQ(fake::deliver(2, 808, 6), 0); // settings have changed
    EXPECT_EQ(fake::timers, (std::vector<uint32_t>{0, 30}));
    mt_gps_status = 0; // on in the settings, but the receiver is not to stay on
    EXPECT_EQ(ls_hal_history_config(), 0);
    EXPECT_EQ(fake::timers, (std::vector<uint32_t>{0, 0}));
    EXPECT_EQ(ls_hal_history_config(), 1); // nothing to stop
}

// In the order of a life: the boot offset counts until the first acquisition, then never again.
TEST_F(history, acquisition) {
    gps_board_type_g = 2;
    clock_gettime(CLOCK_MONOTONIC, &ls_start_time);
    EXPECT_EQ(ls_history_periodic_timer_handler(nullptr), 0); // too soon after the start
    EXPECT_EQ(exported(), "");
    loc_hist_offset_time = 0;
    static_location_on();
    EXPECT_EQ(ls_history_periodic_timer_handler(nullptr), 0);
    const std::string line = exported();
    EXPECT_EQ(line.substr(20), "2D,51.500000N,0.125000W,+3.25m,08\n");
    loc_hist_offset_time = 1e9;
    stub_location_on_g = 0;
    EXPECT_EQ(ls_history_periodic_timer_handler(nullptr), 0); // the young position again
    EXPECT_EQ(exported().size(), 2 * line.size());
    gps_get_pos(nullptr);
    EXPECT_EQ(ls_history_periodic_timer_handler(nullptr), 0); // a failure is no line
    EXPECT_EQ(exported().size(), 2 * line.size());
    EXPECT_EQ(pending_req_count, 0);
}

} // namespace
