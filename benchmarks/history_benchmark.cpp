// The location history on a file: appending one line, and exporting a full ring.
//
// Append: ls_write_to_file beside the same system calls made by hand, in turns; reach of the ratio:
// 1.2. Export: all of a 2 MiB ring that has wrapped, beside `cp` of the same file, in turns; reach:
// 3. The files lie in a directory under TMPDIR; what a line costs is mostly that file system's
// fdatasync.
#include "bench_log.h"
#include "bench_sides.h"
#include "gps_history.h"
#include "ls_paths.h"

#include <array>
#include <benchmark/benchmark.h>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <spawn.h>
#include <string>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr char line[] = "2019-02-05 10:51:05,2D,70.132317N,11.516667E,+2.25m,08\n";
constexpr uint32_t line_size = sizeof(line) - 1;
constexpr uint32_t header_size = 8;

// What appending takes of the system: read the header, write the line, make it last, and the same
// with the header.
bool append_by_hand(const char *path) {
    std::array<uint32_t, 2> header = {};
    struct stat status {};
    int fd = open(path, O_RDWR | O_CLOEXEC);
    bool good = read(fd, header.data(), sizeof header) == sizeof header && fstat(fd, &status) == 0;
    close(fd);

    fd = open(path, O_RDWR | O_CLOEXEC);
    lseek(fd, header[1], SEEK_SET);
    good = write(fd, line, line_size) == line_size && good;
    header[1] = static_cast<uint32_t>(lseek(fd, 0, SEEK_CUR));
    fdatasync(fd);
    close(fd);

    fd = open(path, O_RDWR | O_CLOEXEC);
    lseek(fd, 0, SEEK_SET);
    good = write(fd, header.data(), sizeof header) == sizeof header && good;
    fdatasync(fd);
    close(fd);
    return good;
}

// A ring of whole lines that has wrapped in its middle.
void write_full_ring(const char *path) {
    std::string text;
    while (text.size() + line_size <= LS_HISTORY_FILE_SIZE - header_size)
        text += line;
    text.resize(LS_HISTORY_FILE_SIZE - header_size, '\n');
    const uint32_t wrapped = header_size + line_size * 18000;
    const std::array<uint32_t, 2> header = {wrapped, wrapped};
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    file.write(reinterpret_cast<const char *>(header.data()), header_size);
    file << text;
}

void write_empty_ring(const char *path) {
    const std::array<uint32_t, 2> header = {header_size, header_size};
    std::ofstream(path, std::ios::binary | std::ios::trunc)
        .write(reinterpret_cast<const char *>(header.data()), header_size);
}

void append_line(benchmark::State &state) {
    constexpr char by_hand[] = LS_PATH_HISTORY ".by_hand";
    write_empty_ring(LS_PATH_HISTORY);
    write_empty_ring(by_hand);
    bench_sides times;
    for ([[maybe_unused]] auto _ : state) {
        bool good = true;
        times.reference.push_back(bench_seconds([&] { good = append_by_hand(by_hand); }));
        times.own.push_back(bench_seconds([&] { good = ls_write_to_file(line) == 0 && good; }));
        state.SetIterationTime(times.own.back());
        if (!good)
            state.SkipWithError("a line could not be written");
    }
    times.report(state);
}
BENCHMARK(append_line)->UseManualTime()->Unit(benchmark::kMicrosecond);

bool copy_with_cp(const char *from, const char *to) {
    std::array<std::string, 3> words = {"cp", from, to};
    std::array<char *, 4> arguments = {words[0].data(), words[1].data(), words[2].data(), nullptr};
    pid_t child = 0;
    int status = -1;
    return posix_spawnp(&child, "cp", nullptr, nullptr, arguments.data(), environ) == 0 &&
           waitpid(child, &status, 0) == child && status == 0;
}

void export_full_ring(benchmark::State &state) {
    constexpr char copy[] = LS_PATH_HISTORY ".copy";
    write_full_ring(LS_PATH_HISTORY);
    bench_sides times;
    for ([[maybe_unused]] auto _ : state) {
        bool good = true;
        times.reference.push_back(
            bench_seconds([&] { good = copy_with_cp(LS_PATH_HISTORY, copy); }));
        times.own.push_back(bench_seconds([&] { good = ls_hal_read_history_data() == 0 && good; }));
        state.SetIterationTime(times.own.back());
        if (!good)
            state.SkipWithError("not exported");
    }
    std::error_code wrong;
    if (std::filesystem::file_size(LS_PATH_HISTORY_EXPORT, wrong) !=
        LS_HISTORY_FILE_SIZE - header_size)
        state.SkipWithError("the export is not whole");
    times.report(state);
}
BENCHMARK(export_full_ring)->UseManualTime()->Unit(benchmark::kMicrosecond);

} // namespace

int main(int argc, char **argv) {
    if (!bench_log_at_info())
        return 1;
    benchmark::Initialize(&argc, argv);
    std::string dir = (std::filesystem::temp_directory_path() / "ls-bench-XXXXXX").string();
    if (mkdtemp(dir.data()) == nullptr || chdir(dir.c_str()) != 0) {
        perror("scratch directory");
        return 1;
    }
    std::filesystem::create_directories("user/location");
    benchmark::RunSpecifiedBenchmarks();
    std::filesystem::remove_all(dir);
    return 0;
}
