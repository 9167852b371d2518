// The simulated receiver's ear and all behind it: any bytes in, in pieces. What it says must be
// whole: sentences with their checksum, or frames with theirs.
//
// Byte 0: bytes per piece; the rest goes in.
#include "fuzz_target.h"

#include "receiver.h"

#include <algorithm>
#include <span>
#include <string_view>

namespace {

constexpr double step_s = 0.05;
constexpr double wall_clock_s = 1704110400; // 2024-01-01 12:00:00 UTC

bool is_sentence(std::string_view text) {
    const size_t star = text.find('*');
    if (!text.starts_with('$') || star == std::string_view::npos || text.size() != star + 5)
        return false;
    unsigned sum = 0;
    for (const char c : text.substr(1, star - 1))
        sum ^= static_cast<unsigned char>(c);
    char tail[8];
    snprintf(tail, sizeof tail, "*%02X\r\n", sum);
    return text.substr(star) == tail;
}

bool is_frame(std::span<const uint8_t> bytes) {
    constexpr size_t overhead = 8;
    if (bytes.size() < overhead || bytes[0] != 0xB5 || bytes[1] != 0x62 ||
        bytes.size() != overhead + bytes[4] + size_t{bytes[5]} * 256)
        return false;
    uint8_t a = 0;
    uint8_t b = 0;
    for (size_t i = 2; i < bytes.size() - 2; ++i) {
        a = static_cast<uint8_t>(a + bytes[i]);
        b = static_cast<uint8_t>(b + a);
    }
    return bytes[bytes.size() - 2] == a && bytes[bytes.size() - 1] == b;
}

// Sentences and frames, whole, and nothing between them.
void expect_whole(std::span<const uint8_t> rest) {
    constexpr size_t overhead = 8;
    fuzz_expect(!rest.empty(), "a message has bytes");
    while (!rest.empty()) {
        const std::string_view text(reinterpret_cast<const char *>(rest.data()), rest.size());
        size_t size = std::min(text.find('\n'), text.size() - 1) + 1;
        if (rest[0] == 0xB5 && rest.size() >= overhead) {
            size = std::min(overhead + rest[4] + size_t{rest[5]} * 256, rest.size());
            fuzz_expect(is_frame(rest.first(size)), "a frame is whole");
        } else {
            fuzz_expect(is_sentence(text.substr(0, size)), "a sentence is whole");
        }
        rest = rest.subspan(size);
    }
}

} // namespace

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size == 0)
        return 0;
    const auto clock = [] { return wall_clock_s; };
    sim::receiver_options options;
    options.truth = sim::make_fixed_place(51.5, -0.125, 35.9, clock);
    options.instant_fix = true;
    options.wall_clock = clock;
    sim::receiver receiver(std::move(options));
    double now = 0;
    receiver.set_power(true, true, now);
    const size_t piece = std::max<size_t>(data[0], 1);
    for (size_t at = 1; at < size; at += piece) {
        now += step_s;
        receiver.input({data + at, std::min(piece, size - at)}, now);
        for (const std::vector<uint8_t> &message : receiver.take_output(now))
            expect_whole(message);
    }
    now += 2.0; // an epoch later
    for (const std::vector<uint8_t> &message : receiver.take_output(now))
        expect_whole(message);
    fuzz_expect(!receiver.describe(now).empty(), "it can be described");
    return 0;
}
