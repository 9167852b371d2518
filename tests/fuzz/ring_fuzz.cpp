// The history's ring file, whatever is in it: opened, exported, written to and exported again.
//
// The header (8 bytes), where in the file the text begins (4 bytes), how long the file is (4
// bytes), and the text. Between them the file has a hole.
#include "fuzz_target.h"

#include "fake_platform.h"
#include "gps_history.h"
#include "ls_paths.h"

#include <fcntl.h>
#include <unistd.h>

void fuzz(fuzz_input input) {
    std::filesystem::create_directories(LS_PATH_HISTORY_DIR);
    const std::string_view header = input.take(8);
    const off_t at = 8 + input.number<uint32_t>() % LS_HISTORY_FILE_SIZE;
    const off_t length = input.number<uint32_t>() % (2 * LS_HISTORY_FILE_SIZE);
    const int fd = open(LS_PATH_HISTORY, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    fuzz_expect(ftruncate(fd, length) == 0 && pwrite(fd, header.data(), header.size(), 0) >= 0 &&
                    pwrite(fd, input.rest.data(), input.rest.size(), at) >= 0,
                "the file is made");
    close(fd);
    const auto before = std::filesystem::file_size(LS_PATH_HISTORY);

    fake::reset();
    fuzz_expect(ls_hal_init_gps_history() == 0, "a file without a good header gets one");
    fuzz_expect(ls_hal_read_history_data() == 0, "it can be exported");
    constexpr std::string_view line = "2024-01-01 12:00:00,2D,51.500000N,0.125000W,+2.50m,08\n";
    fuzz_expect(ls_write_to_file(line.data()) == 0, "it can be written to");
    fuzz_expect(ls_hal_read_history_data() == 0, "it can be exported still");
    const std::string exported = scratch_dir::read(LS_PATH_HISTORY_EXPORT);
    fuzz_expect(exported.find(line) != std::string::npos, "the new line is in it");
    fuzz_expect(exported.find('\0') == std::string::npos, "what nobody wrote is not");
    fuzz_expect(std::filesystem::file_size(LS_PATH_HISTORY) <=
                    std::max<uintmax_t>(before, LS_HISTORY_FILE_SIZE),
                "the ring stays a ring");
}
