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

// Sentences and frames, whole, and nothing between them.
void expect_whole(std::span<const uint8_t> rest) {
    while (!rest.empty()) {
        const std::string_view text(reinterpret_cast<const char *>(rest.data()), rest.size());
        size_t size = 0;
        if (text.starts_with("\xB5\x62") && text.size() >= 6) {
            size = size_t{8} + rest[4] + size_t{rest[5]} * 256;
            fuzz_expect(size <= rest.size(), "a frame is whole");
            const auto body = rest.subspan(2, size - 4);
            uint8_t a = 0, b = 0;
            for (const uint8_t byte : body) {
                a = static_cast<uint8_t>(a + byte);
                b = static_cast<uint8_t>(b + a);
            }
            fuzz_expect(rest[size - 2] == a && rest[size - 1] == b, "checksum of a frame");
        } else {
            size = text.find("\r\n") + 2;
            fuzz_expect(text.starts_with('$') && text.find('*') + 5 == size, "a sentence is whole");
            unsigned sum = 0;
            for (const char c : text.substr(1, size - 6))
                sum ^= static_cast<unsigned char>(c);
            fuzz_expect(std::stoul(std::string(text.substr(size - 4, 2)), nullptr, 16) == sum,
                        "checksum of a sentence");
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
