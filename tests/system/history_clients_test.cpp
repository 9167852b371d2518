// Request 1013 from four clients at once while lines are written as fast as they can be: every
// export that a client reads is complete and in order.
#include "fake_platform.h"
#include "gps_history.h"
#include "ls_messages.h"
#include "ls_paths.h"
#include "lsctl_history_file.h"
#include "scratch_dir.h"

#include <array>
#include <atomic>
#include <semaphore>
#include <sstream>
#include <thread>

#include <gtest/gtest.h>

namespace {

constexpr int ROUNDS = 5;
constexpr std::chrono::seconds PATIENCE{30};

std::atomic<uint32_t> written; // number of the last line whose write has returned
std::array<std::binary_semaphore, 4> replied = {std::binary_semaphore(0), std::binary_semaphore(0),
                                                std::binary_semaphore(0), std::binary_semaphore(0)};

std::string line_of(uint32_t number) {
    char line[LS_HISTORY_LINE_SIZE];
    std::snprintf(line, sizeof line, "2019-02-05 10:51:05,2D,70.%06uN,11.516667E,+2.25m,08",
                  number);
    return line;
}

// One client's request, its reply and its reading of the file. Empty = all is well.
std::string read_export(size_t client) {
    const uint32_t before = written;
    fake::deliver(LS_MSG_REQUEST, LS_REQUEST_GET_HISTORY_FILE_PATH,
                  static_cast<uint8_t>(40 + client));
    if (!replied.at(client).try_acquire_for(PATIENCE))
        return "no reply";
    std::string text;
    const history_error error = history_read(
        LS_PATH_HISTORY_EXPORT, PATIENCE, [] { return false; }, &text);
    std::istringstream lines(text);
    uint32_t number = 0;
    for (std::string line; std::getline(lines, line);)
        if (line != line_of(++number))
            return "line " + std::to_string(number) + " is " + line;
    return number >= before ? error.text : error.text + "ends with line " + std::to_string(number);
}

} // namespace

TEST(history_clients, four_read_whole_exports_while_lines_are_written) {
    const scratch_dir dir;
    std::filesystem::create_directories("user/location");
    fake::reset();
    ASSERT_EQ(ls_hal_init_gps_history(), 0);
    fake::on_send([](const fake::sent_message &message) {
        EXPECT_EQ(message.as<ls_history_path_reply>().status, 0U);
        replied.at(message.hdr.dst_serv_id - 40U).release();
    });
    std::atomic<size_t> reading = replied.size();
    std::vector<std::jthread> clients;
    for (size_t client = 0; client < replied.size(); ++client)
        clients.emplace_back([&, client] {
            for (int round = 0; round < ROUNDS; ++round)
                EXPECT_EQ(read_export(client), "") << "client " << client << " round " << round;
            --reading;
        });
    while (reading > 0) {
        const std::string line = line_of(written + 1) + "\n";
        std::unique_lock guard(ls_history_file_lock);
        ASSERT_EQ(ls_write_to_file(line.c_str()), 0);
        guard.unlock();
        ++written;
        fake::reset_log();
    }
    EXPECT_TRUE(fake::wait_for_votes_returned());
    EXPECT_GT(written, 20U);
    fake::on_send(nullptr);
}
