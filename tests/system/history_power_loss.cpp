// Power loss: a writer of the location history is killed again and again at random moments, before
// and after the file has wrapped, and what is left is read by this program's own arithmetic.
//
// usage: history_power_loss [KILLS [SEED]]
//
// The writer is a child: the daemon's own modules. It counts in shared memory how many lines it has
// begun and how many of these calls have returned. Each line carries its number in its place
// field, and lines differ in length, as real ones do.
#include "fake_platform.h"
#include "gps_history.h"
#include "ls_paths.h"
#include "scratch_dir.h"

#include <array>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <random>
#include <set>
#include <sstream>
#include <thread>

#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr uint32_t HEADER_SIZE = 8;
constexpr std::chrono::seconds PATIENCE{30};

struct counters {
    std::atomic<uint32_t> begun;    // number of the last line handed to the daemon's code
    std::atomic<uint32_t> returned; // number of the last line whose write returned success
    std::atomic<uint32_t> failed;   // writes that returned failure
};

counters *shared = nullptr;
std::set<uint32_t> unsure; // lines whose write had not returned when the writer was killed
int faults = 0;

void fault(const std::string &what) {
    std::fprintf(stderr, "FAULT: %s\n", what.c_str());
    ++faults;
}

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
    unsigned whole = 0;
    unsigned part = 0;
    std::sscanf(line.c_str(), "2019-02-05 %*2u:%*2u:%*2u,2D,%2u.%6uN,", &whole, &part);
    const uint32_t number = whole * 1'000'000 + part;
    return line + "\n" == line_of(number) ? number : 0;
}

[[noreturn]] void write_until_killed() {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    // What start-up does: a file without a good header gets one.
    shared->failed += ls_hal_init_gps_history() != 0 ? 1 : 0;
    for (uint32_t number = shared->begun + 1;; ++number) {
        shared->begun = number;
        std::unique_lock guard(ls_history_file_lock);
        const bool written = ls_write_to_file(line_of(number).c_str()) == 0;
        guard.unlock();
        if (written) {
            shared->returned = number;
        } else {
            ++shared->failed;
        }
        if (number % 256 == 0)
            fake::reset_log();
    }
}

// Starts a writer, kills it `pause` after its first returned line.
void run_writer(std::chrono::microseconds pause) {
    const uint32_t before = shared->returned;
    const pid_t child = fork();
    if (child == 0)
        write_until_killed();
    const auto deadline = std::chrono::steady_clock::now() + PATIENCE;
    while (shared->returned == before && std::chrono::steady_clock::now() < deadline)
        std::this_thread::yield();
    std::this_thread::sleep_for(pause);
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
}

// A file with this header, and the header of a file.
std::string with_header(size_t wrap, size_t write, const std::string &lines) {
    const std::array<uint32_t, 2> offsets = {static_cast<uint32_t>(wrap),
                                             static_cast<uint32_t>(write)};
    return std::string(reinterpret_cast<const char *>(offsets.data()), HEADER_SIZE) + lines;
}

std::array<uint32_t, 2> header() {
    std::array<uint32_t, 2> offsets = {};
    scratch_dir::read(LS_PATH_HISTORY)
        .copy(reinterpret_cast<char *>(offsets.data()), sizeof offsets);
    return offsets;
}

// Everything the history must still be, `round` kills after its beginning.
void check(uint32_t round) {
    const std::string at = "after kill " + std::to_string(round) + ": ";
    const auto [wrap, write] = header();
    const auto size = std::filesystem::file_size(LS_PATH_HISTORY);
    const bool wrapped = wrap != HEADER_SIZE;
    if (write < HEADER_SIZE || write > size || size > LS_HISTORY_FILE_SIZE ||
        (wrapped && wrap != write)) {
        fault(at + "header " + std::to_string(wrap) + " " + std::to_string(write));
    }
    fake::reset_log();
    if (ls_hal_read_history_data() != 0)
        fault(at + "the file does not open again");
    const uint32_t returned = shared->returned;
    const uint32_t begun = shared->begun;
    if (begun != returned)
        unsure.insert(begun);
    std::istringstream text(scratch_dir::read(LS_PATH_HISTORY_EXPORT));
    uint32_t previous = 0;
    size_t count = 0;
    bool begun_seen = false;
    for (std::string line; std::getline(text, line); ++count) {
        const uint32_t number = number_of(line);
        if (number == 0) {
            // The oldest line may be what a newer one has left of it, also a newer one that the
            // header does not know yet and that therefore comes before it.
            if (begun_seen ? count != 1 : !wrapped || count != 0)
                fault(at + "line " + std::to_string(count) + " is not whole: " + line);
            continue;
        }
        if (number == begun && begun != returned) {
            begun_seen = true; // in its place, or over the oldest
            continue;
        }
        const bool complete = !wrapped && !begun_seen; // from line 1 on
        for (uint32_t lost = previous + 1; (previous != 0 || complete) && lost < number; ++lost) {
            if (!unsure.contains(lost))
                fault(at + "line " + std::to_string(lost) + " is lost");
        }
        if (number <= previous)
            fault(at + "line " + std::to_string(number) + " follows " + std::to_string(previous));
        previous = number;
    }
    if (previous != returned) {
        fault(at + "the last line is " + std::to_string(previous) + ", " +
              std::to_string(returned) + " had returned");
    }
}

// Lines up to a kibibyte before the end of the file: the next few wrap.
void fill_to_the_end() {
    std::string lines;
    uint32_t number = 0;
    while (lines.size() < LS_HISTORY_FILE_SIZE - 1024)
        lines += line_of(++number);
    scratch_dir::write(LS_PATH_HISTORY,
                       with_header(HEADER_SIZE, HEADER_SIZE + lines.size(), lines));
    shared->begun = shared->returned = number;
    unsure.clear();
}

} // namespace

int main(int argc, char **argv) {
    const auto number = [&](int at, uint32_t otherwise) {
        return argc > at ? static_cast<uint32_t>(std::stoul(argv[at])) : otherwise;
    };
    const uint32_t kills = number(1, 40);
    const uint32_t seed = number(2, std::random_device()());
    std::printf("%u kills, seed %u\n", kills, seed);
    std::mt19937 random(seed);
    const scratch_dir dir;
    std::filesystem::create_directories("user/location");
    void *const memory =
        mmap(nullptr, sizeof(counters), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED)
        std::abort();
    shared = static_cast<counters *>(memory);
    fake::reset();
    for (uint32_t i = 0; i < kills && faults == 0; ++i) {
        if (i == kills / 2)
            fill_to_the_end();
        // Some right after the first line, most within some hundred of them.
        run_writer(std::chrono::microseconds(random() % 4 == 0 ? 0 : random() % 20'000));
        check(i + 1);
    }
    if (header()[0] == HEADER_SIZE)
        fault("the file never wrapped");
    if (shared->failed != 0)
        fault(std::to_string(shared->failed.load()) + " writes failed");
    std::printf("%u lines, %d faults\n", shared->returned.load(), faults);
    return faults == 0 ? 0 : 1;
}
