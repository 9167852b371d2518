// What the daemon's unit tests start from: a platform that is reset, a directory of their own, and
// for some a receiver on a pty that answers each poll body with what the test set for it.
#ifndef DAEMON_FIXTURE_H
#define DAEMON_FIXTURE_H

#include "fake_platform.h"
#include "gps_uart.h"
#include "line_peer.h"
#include "ls_state.h"
#include "scratch_dir.h"

#include <gtest/gtest.h>
#include <map>
#include <memory>

using fake::bytes;
using namespace std::string_literals; // for bytes with NUL among them

// Error lines that contain `part`.
inline size_t errors(std::string_view part) {
    return fake::count_logged(3, part);
}

inline void expect_message(const fake::sent_message &message, uint8_t type, uint32_t id, uint8_t to,
                           const bytes &payload) {
    EXPECT_EQ(message.hdr.msg_type, type);
    EXPECT_EQ(message.hdr.msg_id, id);
    EXPECT_EQ(message.hdr.dst_serv_id, to);
    EXPECT_EQ(message.payload, payload);
}

class daemon_fixture : public testing::Test {
  protected:
    void SetUp() override { fake::reset(); }
    void TearDown() override {
        ls_hal_uart_close();
        fake::reset();
    }

    // A position without a receiver.
    static void static_location_on() {
        stub_location_on_g = 1;
        for (size_t i = 0; const char c : std::string_view("5130.000,N,00007.500,W\n"))
            ls_stub_location_buf[i++] = c;
    }

    // Serves a request to its end, its vote returned; what was sent meanwhile.
    static std::vector<fake::sent_message> serve(uint32_t id, uint8_t from = 40,
                                                 bytes payload = {}) {
        const auto before = static_cast<std::ptrdiff_t>(fake::sent().size());
        EXPECT_EQ(fake::deliver(0, id, from, std::move(payload)), 0) << id;
        EXPECT_TRUE(fake::wait_for_votes_returned()) << id;
        auto sent = fake::sent();
        sent.erase(sent.begin(), sent.begin() + before);
        return sent;
    }

    // The files of the receiver's power lines, all empty; what is in one of them.
    static void make_gpio_files() {
        for (const char *file : {"export", "unexport", "gpio102/direction", "gpio102/value",
                                 "gpio37/direction", "gpio37/value"})
            scratch_dir::write("sys/class/gpio/"s + file, "");
    }
    static std::string gpio(const std::string &file) {
        return scratch_dir::read("sys/class/gpio/" + file);
    }

    scratch_dir dir;
};

class receiver_fixture : public daemon_fixture {
  protected:
    void SetUp() override {
        fake::reset();
        peer = std::make_unique<line_peer>([this](const std::string &command) {
            const bool text = command[0] == '$';
            const std::lock_guard guard(answers_lock);
            return answers[text ? command.substr(1, command.find('*') - 1) : command];
        });
        ASSERT_EQ(ls_hal_uart_init(), 0);
    }

    // Sets the answer to a poll, as a sentence with its checksum.
    void answer(const std::string &poll, const std::string &body) { answer_raw(poll, nmea(body)); }
    // The same by the poll's body, or by the bytes of a frame, as it stands.
    void answer_raw(const std::string &poll, const std::string &text) {
        const std::lock_guard guard(answers_lock);
        answers[poll] = text;
    }

    std::mutex answers_lock;
    std::map<std::string, std::string> answers; // under answers_lock; read by the peer's thread
    std::unique_ptr<line_peer> peer;            // last: it goes first
};

#endif
