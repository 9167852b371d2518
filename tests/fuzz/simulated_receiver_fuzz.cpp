// The simulated receiver's ear and all behind it: any bytes in, in pieces. What it says must be
// whole sentences or frames.
//
// Byte 0: bytes per piece; the rest goes in.
#include "fuzz_target.h"

#include "receiver.h"

#include <span>

namespace {

constexpr double step_s = 0.05;
constexpr double wall_clock_s = 1704110400; // 2024-01-01 12:00:00 UTC

// Sentences and frames, whole, and nothing between them; the unit tests hold their checksums.
void expect_whole(std::span<const uint8_t> rest) {
    while (!rest.empty()) {
        const std::string_view text(reinterpret_cast<const char *>(rest.data()), rest.size());
        size_t size = 0;
        if (text.starts_with("\xB5\x62") && text.size() >= 6) {
            size = size_t{8} + rest[4] + size_t{rest[5]} * 256;
            fuzz_expect(size <= rest.size(), "a frame is whole");
        } else {
            size = text.find("\r\n") + 2;
            fuzz_expect(text.starts_with('$') && text.find('*') + 5 == size, "a sentence is whole");
        }
        rest = rest.subspan(size);
    }
}

} // namespace

void fuzz(fuzz_input input) {
    const auto clock = [] { return wall_clock_s; };
    sim::receiver_options options;
    options.truth = sim::make_fixed_place(51.5, -0.125, 35.9, clock);
    options.instant_fix = true;
    options.wall_clock = clock;
    sim::receiver receiver(std::move(options));
    double now = 0;
    receiver.set_power(true, true, now);
    const size_t size = std::max<size_t>(input.number<uint8_t>(), 1);
    while (!input.rest.empty()) {
        const std::string_view piece = input.take(size);
        now += step_s;
        receiver.input({reinterpret_cast<const uint8_t *>(piece.data()), piece.size()}, now);
        for (const std::vector<uint8_t> &message : receiver.take_output(now))
            expect_whole(message);
    }
    for (const std::vector<uint8_t> &message : receiver.take_output(now + 2.0)) // an epoch later
        expect_whole(message);
}
