// The sentence codec. Byte 0: bit 0 = static location on; the rest is what a read brought.
#include "fuzz_target.h"

#include "fake_platform.h"
#include "gps_nmea_parser.h"
#include "ls_state.h"

#include <algorithm>
#include <memory>

namespace {

constexpr int32_t most_fields = 24;

// A heap block of exactly the size that the callee may use.
std::unique_ptr<char[]> block(size_t size) {
    return std::make_unique<char[]>(size);
}

} // namespace

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    fake::reset_log();
    stub_location_on_g = size != 0 ? data[0] & 1 : 0;
    const auto answer = block(NMEA_BUFFER_SIZE);
    if (size > 1)
        memcpy(answer.get(), data + 1, std::min(size - 1, NMEA_BUFFER_SIZE - 1));

    const auto body = block(NMEA_BUFFER_SIZE);
    if (ls_hal_extract_nmea_msg(answer.get(), body.get()) != 0) {
        fuzz_expect(fake::count_logged(3, "") == 1, "a refused sentence is logged once");
        return 0;
    }
    const size_t body_size = strnlen(body.get(), NMEA_BUFFER_SIZE);
    fuzz_expect(body_size > 0 && body_size < NMEA_BUFFER_SIZE, "size of a body");
    for (int32_t n = 0; n < most_fields; ++n) {
        const auto token = block(NMEA_TOKEN_SIZE);
        const uint32_t result = ls_hal_get_token(body.get(), token.get(), n);
        const size_t token_size = strnlen(token.get(), NMEA_TOKEN_SIZE);
        fuzz_expect(token_size < NMEA_TOKEN_SIZE, "a field is a string");
        fuzz_expect((result == 0) == (token_size > 0), "an empty field is a failure");
        fuzz_expect(strchr(token.get(), ',') == nullptr, "a comma ends a field");
    }

    const auto sentence = block(NMEA_BUFFER_SIZE);
    const uint32_t created = ls_hal_create_nmea_sentence(body.get(), sentence.get());
    fuzz_expect((created == 0) == (body_size + sizeof("$*hh\r\n") <= NMEA_BUFFER_SIZE),
                "a sentence is built when it fits");
    if (created == 0) {
        const auto again = block(NMEA_BUFFER_SIZE);
        stub_location_on_g = 0;
        fuzz_expect(ls_hal_extract_nmea_msg(sentence.get(), again.get()) == 0,
                    "an own sentence is accepted");
        fuzz_expect(strcmp(body.get(), again.get()) == 0, "the body survives");
    }
    return 0;
}
