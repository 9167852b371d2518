// What the daemon's unit tests start from: a platform that is reset, a directory of their own with
// the files of a terminal, and for some a receiver on a pty that answers each poll body with what
// the test set for it.
#ifndef DAEMON_FIXTURE_H
#define DAEMON_FIXTURE_H

#include "fake_platform.h"
#include "gps_message_handler.h"
#include "gps_uart.h"
#include "line_peer.h"
#include "ls_state.h"
#include "scratch_dir.h"

#include <gtest/gtest.h>
#include <iomanip>
#include <map>
#include <memory>
#include <span>
#include <sstream>
#include <tuple>

using fake::bytes;
using namespace std::string_literals; // for bytes with NUL among them

// Error lines that contain `part`.
inline size_t errors(std::string_view part) {
    return fake::count_logged(3, part);
}

inline std::string hex(const void *data, size_t size) {
    std::ostringstream text;
    for (const uint8_t byte : std::span(static_cast<const uint8_t *>(data), size))
        text << std::hex << std::setw(2) << std::setfill('0') << int{byte};
    return text.str();
}

// The bytes of hexadecimal words; "00*72" is 72 times 00.
template <typename Bytes>
Bytes from_hex(const std::string &text) {
    Bytes out;
    std::istringstream words(text);
    for (std::string word; words >> word;) {
        const size_t star = word.find('*');
        const size_t count = star == std::string::npos ? 1 : std::stoul(word.substr(star + 1));
        out.insert(out.end(), count,
                   static_cast<typename Bytes::value_type>(std::stoul(word, nullptr, 16)));
    }
    return out;
}

// What was sent, message by message: "TYPE ID>TO PAYLOAD", of a long payload its length.
inline std::string told(const std::vector<fake::sent_message> &sent) {
    std::ostringstream text;
    for (const char *between = ""; const auto &[hdr, payload] : sent) {
        text << between << int{hdr.msg_type} << ' ' << hdr.msg_id << '>' << int{hdr.dst_serv_id};
        if (payload.size() > 8)
            text << ' ' << payload.size() << " bytes";
        else
            text << ' ' << hex(payload.data(), payload.size());
        between = ", ";
    }
    return text.str();
}

class daemon_fixture : public testing::Test {
  protected:
    // The files of the receiver's power lines are all empty.
    void SetUp() override {
        fake::reset();
        std::filesystem::create_directories("user/location");
        for (const char *file : {"export", "unexport", "gpio102/direction", "gpio102/value",
                                 "gpio37/direction", "gpio37/value"})
            scratch_dir::write("sys/class/gpio/"s + file, "");
    }
    void TearDown() override {
        for (int client = 0; client < 256; ++client)
            ls_delete_periodic_request(static_cast<uint8_t>(client));
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
        const auto sent = fake::sent();
        return {sent.begin() + before, sent.end()};
    }

    // What is in a file of the power lines.
    static std::string gpio(const std::string &file) {
        return scratch_dir::read("sys/class/gpio/" + file);
    }

    scratch_dir dir;
};

// Answers by the poll's body, or by the bytes of a frame.
using receiver_answers = std::map<std::string, std::string>;

inline const std::string ecef_poll = "\xB5\x62\x01\x01\x00\x00\x02\x07"s;
// Of a receiver that knows its place.
inline const receiver_answers usual_answers = {
    {"GPGPQ,GGA", nmea("GPGGA,123318.00,5130.000,N,00007.500,W,1,08,0.9,545.4,M,46.9,M,,")},
    {"GPGPQ,GSA", nmea("GPGSA,A,3,04,05,,09,12,,,24,,,,,2.5,1.3,2.1")},
    {"GPGPQ,GSV", nmea("GPGSV,1,1,04,04,40,120,38,09,25,210,31,12,60,300,44,24,05,045,")},
    {"GPGPQ,VTG", nmea("GPVTG,77.52,T,,M,0.004,N,36.42,K,A")},
    {"GPGPQ,ZDA", nmea("GPZDA,082710.00,16,09,2002,00,00")},
    {"PUBX,00", nmea("PUBX,00,081350.00,4717.1,N,00833.9,E,546.589,G3,2.1,65538.9,0.007")},
    {"PUBX,04", nmea("PUBX,04,073731.00,091202,113851.00,1196,15D,1930035,-2660.664,43")},
    {ecef_poll, from_hex<std::string>("B5 62 01 01 14 00*5 01 00*3 02 00*3 03 00*9")},
};

class receiver_fixture : public daemon_fixture {
  protected:
    void SetUp() override {
        daemon_fixture::SetUp();
        peer.reset(); // it reads the answers
        answers = usual_answers;
        peer = std::make_unique<line_peer>([this](const std::string &command) {
            const std::lock_guard guard(answers_lock);
            const std::string poll =
                is_frame(command) ? command : command.substr(1, command.find('*') - 1);
            std::string now = answers[poll];
            if (const auto next = later.extract(poll))
                answers[poll] = next.mapped();
            return now;
        });
        ASSERT_EQ(ls_hal_uart_init(), 0);
    }

    // Sets the answer to a poll, as a sentence with its checksum.
    void answer(const std::string &poll, const std::string &body) { answer_raw(poll, nmea(body)); }
    // The same by the poll's body, or by the bytes of a frame, as it stands; `then` from the second
    // time on.
    void answer_raw(const std::string &poll, const std::string &text,
                    const std::string &then = "") {
        const std::lock_guard guard(answers_lock);
        answers[poll] = text;
        if (!then.empty())
            later[poll] = then;
    }

    std::mutex answers_lock;
    receiver_answers answers, later; // under answers_lock; read by the peer's thread
    std::unique_ptr<line_peer> peer; // last: it goes first
};

#endif
