// A receiver on a pty that answers each poll body with what the test set for it.
#ifndef RECEIVER_FIXTURE_H
#define RECEIVER_FIXTURE_H

#include "fake_platform.h"
#include "gps_uart.h"
#include "line_peer.h"
#include "ls_state.h"
#include "scratch_dir.h"

#include <gtest/gtest.h>
#include <map>
#include <memory>

class receiver_fixture : public testing::Test {
  protected:
    void SetUp() override {
        fake::reset();
        peer = std::make_unique<line_peer>([this](const std::string &command) {
            const std::string body =
                command[0] == '$' ? command.substr(1, command.find('*') - 1) : command;
            const std::lock_guard guard(answers_lock);
            const auto found = answers.find(body);
            return found == answers.end() ? std::string() : found->second;
        });
        ASSERT_EQ(ls_hal_uart_init(), 0);
    }
    void TearDown() override { ls_hal_uart_close(); }

    // Sets the answer to a poll, as a sentence with its checksum.
    void answer(const std::string &poll, const std::string &body) { answer_raw(poll, nmea(body)); }

    // The same by the poll's body, or by the bytes of a frame, as it stands.
    void answer_raw(const std::string &poll, const std::string &bytes) {
        const std::lock_guard guard(answers_lock);
        answers[poll] = bytes;
    }

    static void static_location_on() {
        stub_location_on_g = 1;
        const std::string place = "5130.000,N,00007.500,W\n";
        for (size_t i = 0; i < place.size(); ++i)
            ls_stub_location_buf[i] = place[i];
    }

    scratch_dir dir;

  private:
    std::mutex answers_lock;
    std::map<std::string, std::string> answers; // under answers_lock; read by the peer's thread

  protected:
    std::unique_ptr<line_peer> peer; // last: it goes first
};

#endif
