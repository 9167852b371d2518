// Request 1013 from four clients at once while lines are written as fast as they can be: every
// export that a client reads is complete and in order.
#include "fake_platform.h"
#include "gps_history.h"
#include "gps_message_handler.h"
#include "ls_messages.h"
#include "ls_paths.h"
#include "lsctl_history_file.h"
#include "scratch_dir.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <future>
#include <sstream>
#include <thread>

#include <gtest/gtest.h>

namespace {

constexpr int ROUNDS = 5;
constexpr std::chrono::seconds PATIENCE{30};

std::atomic<uint32_t> written;            // number of the last line whose write has returned
std::array<std::atomic<bool>, 4> replied; // to each client

std::string line_of(uint32_t number) {
    char line[LS_HISTORY_LINE_SIZE];
    std::snprintf(line, sizeof line, "2019-02-05 10:51:05,2D,70.%06uN,11.516667E,+2.25m,08",
                  number);
    return line;
}

// One client's request, its reply and its reading of the file. Empty = all is well.
std::string read_export(size_t client) {
    const uint32_t before = written;
    replied.at(client) = false;
    std::vector<uint8_t> none;
    bus_msg msg = fake::make_message(LS_MSG_REQUEST, LS_REQUEST_GET_HISTORY_FILE_PATH,
                                     static_cast<uint8_t>(40 + client), none);
    ls_hal_process_message(fake::connection(), &msg);
    const auto deadline = std::chrono::steady_clock::now() + PATIENCE;
    while (!replied.at(client)) {
        if (std::chrono::steady_clock::now() > deadline)
            return "no reply";
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
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
        replied.at(message.hdr.dst_serv_id - 40U) = true;
    });
    std::vector<std::future<void>> clients;
    for (size_t client = 0; client < replied.size(); ++client)
        clients.push_back(std::async(
            std::launch::async,
            [client] {
                for (int round = 0; round < ROUNDS; ++round)
                    EXPECT_EQ(read_export(client), "") << "client " << client << " round " << round;
            }));
    const auto are_done = [&] {
        return std::all_of(clients.begin(), clients.end(), [](const std::future<void> &client) {
            return client.wait_for(std::chrono::seconds(0)) == std::future_status::ready;
        });
    };
    while (!are_done()) {
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
