// Request 1013 served to four clients at once while lines are written as fast as they can be: every
// export that a client reads is complete and in order.
#include "fake_platform.h"
#include "gps_history.h"
#include "gps_message_handler.h"
#include "ls_messages.h"
#include "ls_paths.h"
#include "lsctl_history_file.h"
#include "scratch_dir.h"

#include <atomic>
#include <sstream>
#include <thread>

#include <gtest/gtest.h>

namespace {

constexpr uint8_t CLIENTS = 4;
constexpr size_t ROUNDS = 5;
constexpr std::chrono::seconds PATIENCE{30};

std::atomic<uint32_t> written; // number of the last line whose write has returned

std::string line_of(uint32_t number) {
    return "2019-02-05 10:51:05,2D,70." + std::to_string(100'000 + number) +
           "N,11.516667E,+2.25m,08";
}

// One client's request, its reply and its reading of the file. Empty = all is well.
std::string read_export(uint8_t client) {
    const uint32_t before = written;
    fake::bytes none;
    const bus_msg request = fake::make_message(LS_MSG_REQUEST, 1013, client, none);
    ls_hal_get_history_file_path(fake::connection(), &request);
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
    std::atomic<int> reading = CLIENTS;
    std::vector<std::jthread> clients;
    for (uint8_t client = 0; client < CLIENTS; ++client)
        clients.emplace_back([&, client] {
            for (size_t round = 0; round < ROUNDS; ++round)
                EXPECT_EQ(read_export(client), "")
                    << "client " << int{client} << " round " << round;
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
    EXPECT_GT(written, 20U);
    for (const fake::sent_message &message : fake::wait_for_sent(CLIENTS * ROUNDS))
        EXPECT_EQ(message.as<ls_history_path_reply>().status, 0U);
    EXPECT_EQ(fake::sent().size(), CLIENTS * ROUNDS);
}
