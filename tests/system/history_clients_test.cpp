// The file of the location history from outside: read by four clients at once while lines are
// written as fast as they can be, and left behind by a writer that is killed.
#include "child.h"
#include "fake_platform.h"
#include "gps_history.h"
#include "gps_message_handler.h"
#include "ls_messages.h"
#include "ls_paths.h"
#include "lsctl_history_file.h"
#include "scratch_dir.h"

#include <array>
#include <atomic>
#include <chrono>
#include <random>
#include <set>
#include <sstream>
#include <thread>

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/prctl.h>

namespace {

constexpr size_t CLIENTS = 4;
constexpr int ROUNDS = 5;
constexpr uint32_t KILLS = 40;
constexpr std::chrono::seconds PATIENCE{30};

// Numbers of lines, in memory that the writer's process shares.
struct counters {
    std::atomic<uint32_t> begun;    // the last handed to the daemon's code
    std::atomic<uint32_t> returned; // the last whose write returned success
};

struct history_file : testing::Test {
    const scratch_dir dir;
    counters &count = *static_cast<counters *>(
        mmap(nullptr, sizeof(counters), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    std::set<uint32_t> unsure; // lines whose write had not returned when the writer was killed

    history_file() {
        std::filesystem::create_directories("user/location");
        fake::reset();
    }
    ~history_file() override { munmap(&count, sizeof(counters)); }

    void write_lines(const std::atomic<bool> &stop);
    std::string read_export(uint8_t client, std::atomic<bool> &replied);
    void run_writer(std::chrono::microseconds pause);
    void check(bool wrapped);
    void fill_to_the_end();
};

// A line with its number as time of day and as latitude, and a length out of three.
std::string line_of(uint32_t number) {
    static constexpr std::array<const char *, 3> REST = {
        "1.516667E,+2.25m,08", "11.516667E,+2.25m,08", "111.516667E,+12.25m,08"};
    char line[LS_HISTORY_LINE_SIZE];
    std::snprintf(line, sizeof line, "2019-02-05 %02u:%02u:%02u,2D,%02u.%06uN,%s\n",
                  number / 3600 % 24, number / 60 % 60, number % 60, number / 1'000'000 % 90,
                  number % 1'000'000, REST.at(number * 2 % 3));
    return line;
}

// The number of a whole line; 0 = it is none.
uint32_t number_of(const std::string &line) {
    unsigned whole = 0, part = 0;
    std::sscanf(line.c_str(), "2019-02-05 %*2u:%*2u:%*2u,2D,%2u.%6uN,", &whole, &part);
    const uint32_t number = whole * 1'000'000 + part;
    return line + "\n" == line_of(number) ? number : 0;
}

void history_file::write_lines(const std::atomic<bool> &stop) {
    for (uint32_t number = count.begun + 1; !stop; ++number) {
        count.begun = number;
        const std::lock_guard guard(ls_history_file_lock);
        if (ls_write_to_file(line_of(number).c_str()) == 0)
            count.returned = number;
        fake::reset_log();
    }
}

// One client's request, its reply and its reading of the file. Empty = all is well.
std::string history_file::read_export(uint8_t client, std::atomic<bool> &replied) {
    const uint32_t before = count.returned;
    replied = false;
    std::vector<uint8_t> none;
    bus_msg msg =
        fake::make_message(LS_MSG_REQUEST, LS_REQUEST_GET_HISTORY_FILE_PATH, client, none);
    ls_hal_process_message(fake::connection(), &msg);
    const auto deadline = std::chrono::steady_clock::now() + PATIENCE;
    while (!replied) {
        if (std::chrono::steady_clock::now() > deadline)
            return "no reply";
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    std::string text;
    const std::string error = history_read(
        LS_PATH_HISTORY_EXPORT, PATIENCE, [] { return false; }, &text);
    std::istringstream lines(text);
    uint32_t number = 0;
    for (std::string line; std::getline(lines, line);)
        if (number_of(line) != ++number)
            return "line " + std::to_string(number) + " is " + line;
    return number >= before ? error : error + "ends with line " + std::to_string(number);
}

// Starts a writer, kills it `pause` after its first returned line.
void history_file::run_writer(std::chrono::microseconds pause) {
    const uint32_t before = count.returned;
    const pid_t child = start_child([this] {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (ls_hal_init_gps_history() == 0) // a file without a good header gets one
            write_lines(false);
        return 1;
    });
    const auto deadline = std::chrono::steady_clock::now() + PATIENCE;
    while (count.returned == before && std::chrono::steady_clock::now() < deadline)
        std::this_thread::yield();
    std::this_thread::sleep_for(pause);
    kill(child, SIGKILL);
    EXPECT_EQ(end_of_child(child), -1) << "it ended by itself";
}

// Everything the history must still be behind a kill.
void history_file::check(bool wrapped) {
    fake::reset_log();
    ASSERT_EQ(ls_hal_read_history_data(), 0);
    EXPECT_LE(std::filesystem::file_size(LS_PATH_HISTORY), LS_HISTORY_FILE_SIZE);
    const uint32_t begun = count.begun == count.returned ? 0 : count.begun.load();
    unsure.insert(begun);
    std::istringstream text(scratch_dir::read(LS_PATH_HISTORY_EXPORT));
    uint32_t previous = 0;
    size_t at = 0;
    bool begun_seen = false;
    for (std::string line; std::getline(text, line); ++at) {
        const uint32_t number = number_of(line);
        if (number == 0) {
            // The oldest line may be what a newer one has left of it, also a newer one that the
            // header does not know yet and that therefore comes before it.
            EXPECT_TRUE(wrapped && at == (begun_seen ? 1 : 0)) << "not whole: " << line;
        } else if (number == begun) {
            begun_seen = true; // in its place, or over the oldest
        } else {
            const uint32_t first = previous == 0 && wrapped ? number : previous + 1;
            for (uint32_t lost = first; lost < number; ++lost)
                EXPECT_TRUE(unsure.contains(lost)) << "lost: " << lost;
            EXPECT_GT(number, previous);
            previous = number;
        }
    }
    EXPECT_EQ(previous, count.returned);
}

// Lines up to a kibibyte before the end of the file: the next few wrap.
void history_file::fill_to_the_end() {
    std::string lines;
    uint32_t number = 0;
    while (lines.size() < LS_HISTORY_FILE_SIZE - 1024)
        lines += line_of(++number);
    const std::array<uint32_t, 2> header = {8, static_cast<uint32_t>(8 + lines.size())};
    scratch_dir::write(LS_PATH_HISTORY,
                       std::string(reinterpret_cast<const char *>(header.data()), 8) + lines);
    count.begun = count.returned = number;
}

} // namespace

TEST_F(history_file, four_read_whole_exports_while_lines_are_written) {
    ASSERT_EQ(ls_hal_init_gps_history(), 0);
    std::array<std::atomic<bool>, CLIENTS> replied = {};
    fake::on_send([&](const fake::sent_message &message) {
        EXPECT_EQ(message.as<ls_history_path_reply>().status, 0U);
        replied.at(message.hdr.dst_serv_id - 40U) = true;
    });
    std::atomic<bool> stop = false;
    std::thread writer([&] { write_lines(stop); });
    std::vector<std::thread> clients;
    for (uint8_t client = 0; client < CLIENTS; ++client)
        clients.emplace_back([&, client] {
            for (int round = 0; round < ROUNDS; ++round)
                EXPECT_EQ(read_export(40 + client, replied.at(client)), "") << int{client};
        });
    for (std::thread &client : clients)
        client.join();
    stop = true;
    writer.join();
    EXPECT_TRUE(fake::wait_for_votes_returned());
    EXPECT_GT(count.returned, CLIENTS * ROUNDS);
    fake::on_send(nullptr);
}

TEST_F(history_file, a_killed_writer_loses_no_line_that_was_written) {
    const uint32_t seed = std::random_device()();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    for (uint32_t kill = 0; kill < KILLS && !HasFailure(); ++kill) {
        if (kill == KILLS / 2)
            fill_to_the_end();
        // Some right after the first line, most within some hundred of them.
        run_writer(std::chrono::microseconds(random() % 4 == 0 ? 0 : random() % 20'000));
        const bool wrapped =
            scratch_dir::read(LS_PATH_HISTORY).substr(0, 4) != std::string("\x08\0\0\0", 4);
        check(wrapped);
        EXPECT_TRUE(wrapped || kill + 1 < KILLS) << "the file never wrapped";
    }
}
