// The simulated receiver's ear and all behind it: any bytes in, in pieces. What it says must be
// whole sentences or frames.
//
// Byte 0: bytes per piece; the rest goes in.
#include "fuzz_target.h"

#include "receiver.h"

namespace {

// Sentences and frames, whole, and nothing between them; the unit tests hold their checksums.
void expect_whole(std::string_view rest) {
    while (!rest.empty()) {
        const bool frame = rest.starts_with("\xB5\x62") && rest.size() >= 6;
        const size_t size = frame ? fuzz_input{rest.substr(4)}.number<uint16_t>() + size_t{8}
                                  : rest.find("\r\n") + 2;
        fuzz_expect(size <= rest.size(), "a frame is whole");
        fuzz_expect(frame || (rest[0] == '$' && rest.find('*') + 5 == size), "a sentence is whole");
        rest.remove_prefix(size);
    }
}

} // namespace

void fuzz(fuzz_input input) {
    const auto clock = [] { return 1704110400.0; }; // 2024-01-01 12:00:00 UTC
    sim::receiver_options options;
    options.truth = sim::make_fixed_place(51.5, -0.125, 35.9, clock);
    options.instant_fix = true;
    options.wall_clock = clock;
    sim::receiver receiver(std::move(options));
    const auto hear = [&receiver](double now) {
        for (const std::vector<uint8_t> &one : receiver.take_output(now))
            expect_whole({reinterpret_cast<const char *>(one.data()), one.size()});
    };
    double now = 0;
    receiver.set_power(true, true, now);
    const size_t size = std::max<size_t>(input.number<uint8_t>(), 1);
    while (!input.rest.empty()) {
        const std::string_view piece = input.take(size);
        now += 0.05;
        receiver.input({reinterpret_cast<const uint8_t *>(piece.data()), piece.size()}, now);
        hear(now);
    }
    hear(now + 2.0); // an epoch later
}
