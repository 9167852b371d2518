// The bench with the receiver on its serial line: board type 1.
#ifndef LINE_BENCH_H
#define LINE_BENCH_H

#include "bench.h"
#include "line_peer.h"

#include <sys/ioctl.h>

class line : public bench {
  protected:
    line() {
        state->board = 1;
        peer.emplace([this](const std::string &received) { return answer_to(received); });
    }

    // A frame is acknowledged, SILENT and what sets rates and protocols is not answered, LONG is
    // with more than a buffer holds.
    std::string answer_to(const std::string &received) const {
        if (static_cast<uint8_t>(received[0]) == 0xB5)
            return mute ? "" : acknowledge(received[2], received[3], received[3] != refused_id);
        if (received.find("SILENT") != std::string::npos || received.find("PUBX,4") == 1)
            return "";
        return received.find("LONG") != std::string::npos ? std::string(300, 'L') : received;
    }
    static std::string acknowledge(char ubx_class, char id, bool positive) {
        std::string frame = {'\xB5', 'b', 5, static_cast<char>(positive), 2, 0, ubx_class, id};
        uint8_t a = 0, b = 0;
        for (size_t i = 2; i < frame.size(); ++i) {
            a = static_cast<uint8_t>(a + static_cast<uint8_t>(frame[i]));
            b = static_cast<uint8_t>(b + a);
        }
        return frame + static_cast<char>(a) + static_cast<char>(b);
    }
    // Sends unasked; returns when it lies on the line before the daemon.
    void send_unasked(const std::string &text) {
        peer->send(text);
        EXPECT_TRUE(wait_until([&] { return on_the_line() >= static_cast<int>(text.size()); }));
    }
    static int on_the_line() {
        const int fd = open("dev/ttymxc2", O_RDWR | O_NOCTTY | O_CLOEXEC);
        int count = -1;
        ioctl(fd, FIONREAD, &count);
        close(fd);
        return count;
    }
    int alarms() {
        return count(
            [](const auto &e) { return e.is_send(LS_MSG_NOTIFICATION, WS_NOTIFY_ALARM_UPDATE); });
    }

    std::atomic<bool> mute = false;
    std::atomic<char> refused_id = 0; // of a frame
    std::optional<line_peer> peer;
};

#endif
