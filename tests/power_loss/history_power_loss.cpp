// The history's ring after a power loss, as the daemon and lsctl history open it.
//
// What must not happen: that a line is lost whose writing has returned, other than to newer ones in
// a full ring; that recording does not go on at the next start. What a power loss may leave until
// the next line is written over it: the line that was being written, whole or cut, behind the
// newest line of a file that has not been full, or in front of the oldest ones of a full one.
#include "fake_platform.h"
#include "gps_history.h"
#include "ls_paths.h"
#include "lsctl_history_file.h"
#include "power_loss.h"
#include "track.h"

#include <fcntl.h>

namespace {

constexpr size_t LONGEST = LS_HISTORY_LINE_SIZE - 1;
constexpr size_t OLD_SIZE = 55; // bytes of each line that was there before

// The lines in their order, and for each number of new ones: where the last of them ends there, and
// where the oldest begins that the ring still has to hold.
std::string lines;
std::vector<size_t> ends, oldest;

// With a number of its own, and of one of three lengths.
std::string line_of(const char *year, size_t number, size_t kind) {
    const char *longitude[] = {"1", "11", "111"};
    return year +
           ("-02-05 10:51:05,2D," + std::to_string(10.0 + static_cast<double>(number) / 1e6)) +
           "N," + longitude[kind] + ".516667E,+2.25m,08\n";
}

// What lsctl reads of an export that is made now.
std::string exported() {
    EXPECT_EQ(ls_hal_read_history_data(), 0);
    const timespec long_ago[] = {{1, 0}, {1, 0}}; // nobody writes it any more
    utimensat(AT_FDCWD, LS_PATH_HISTORY_EXPORT, long_ago, 0);
    std::string text;
    history_read(
        LS_PATH_HISTORY_EXPORT, std::chrono::seconds(60), [] { return false; }, &text);
    return text;
}

void check(const power_loss::state &state) {
    fake::reset();
    // The unit makes a ring where there is none. The history is off until the first one is made.
    if (state.begun > 0)
        ASSERT_EQ(system(HISTORY_RING " " LS_PATH_HISTORY_DIR), 0);
    fake::database().history = {static_cast<uint8_t>(state.begun > 0 && state.number % 2 == 0), 1};
    ASSERT_EQ(ls_hal_init_gps_history(), 0);
    const bool full = oldest.back() != 0;
    size_t from = oldest[state.begun];
    const auto look = [&](const std::string &text, size_t spare, std::string &rest) {
        const std::string safe = lines.substr(from, ends[state.acknowledged] - from);
        const size_t at = text.find(safe);
        EXPECT_LE(at, full ? spare : 0) << "lines are lost";
        rest = text.substr(std::min(text.size(), at + safe.size()), 4 * LONGEST);
        return at;
    };
    std::string rest;
    look(exported(), 3 * LONGEST, rest);
    EXPECT_LE(rest.size(), state.begun > state.acknowledged ? LONGEST : 0) << rest;

    const std::string next = line_of("2030", 1, state.number % 3);
    ASSERT_EQ(ls_write_to_file(next.c_str()), 0);
    from += full ? 2 * OLD_SIZE : 0;
    const std::string text = exported();
    const size_t at = look(text, 5 * LONGEST, rest);
    const std::string under_way =
        lines.substr(ends[state.acknowledged], ends[state.begun] - ends[state.acknowledged]);
    EXPECT_TRUE(rest == next || rest == under_way + next) << rest;
    // What is in front is older, and nothing that looks like a line is none.
    const std::string head = full ? text.substr(0, at) : text, known = lines + next;
    const track read = track_parse(head, {}, [](double) {});
    EXPECT_LE(read.bad_lines, full ? 1U : 0U);
    for (const track_point &point : read.points)
        EXPECT_NE(known.find(point.line), std::string::npos) << point.line;
    ls_hal_deinit_gps_history();
}

// `place`: where in the file the first of them goes.
void write_lines(size_t count, size_t place) {
    size_t laps = 0;
    for (size_t number = 1; number <= count; ++number) {
        const std::string line = line_of("2026", number, number % 3);
        if (place + line.size() > LS_HISTORY_FILE_SIZE) {
            place = 8;
            ++laps;
        }
        place += line.size();
        lines += line;
        ends.push_back(lines.size());
        oldest.push_back(laps == 0 ? 0 : (place - 8 + OLD_SIZE - 1) / OLD_SIZE * OLD_SIZE);
        power_loss::acknowledged([&] { return ls_write_to_file(line.c_str()) == 0; });
    }
}

TEST(power_loss, new_ring) {
    const scratch_dir dir;
    lines.clear();
    ends = oldest = {0};
    std::filesystem::create_directories(LS_PATH_HISTORY_DIR);
    power_loss::test(
        "new ring", LS_PATH_HISTORY_DIR,
        [] {
            ASSERT_EQ(ls_hal_init_gps_history(), 0);
            write_lines(30, 8);
            ASSERT_EQ(ls_hal_read_history_data(), 0);
        },
        check);
}

TEST(power_loss, ring_that_wraps) {
    const scratch_dir dir;
    lines.clear();
    for (size_t number = 0; lines.size() < LS_HISTORY_FILE_SIZE - 5 * LONGEST; ++number)
        lines += line_of("2019", number, 1);
    ends = {lines.size()};
    oldest = {0};
    const uint32_t header[] = {8, static_cast<uint32_t>(8 + lines.size())};
    scratch_dir::write(LS_PATH_HISTORY,
                       std::string(reinterpret_cast<const char *>(header), 8) + lines);
    power_loss::test(
        "ring that wraps", LS_PATH_HISTORY_DIR, [&] { write_lines(18, header[1]); }, check);
}

} // namespace
