// Sentences taken apart and put together. Pure functions.
#include "sentence.h"

#include <array>
#include <charconv>
#include <cstdint>
#include <cstdio>

namespace sim {

namespace {

uint8_t checksum_of(std::string_view body) {
    uint8_t sum = 0;
    for (const char one : body)
        sum = static_cast<uint8_t>(sum ^ static_cast<uint8_t>(one));
    return sum;
}

} // namespace

std::optional<std::string_view> verified_nmea_body(std::string_view line) {
    if (line.size() < 4 || line.front() != '$' || line[line.size() - 3] != '*')
        return std::nullopt;
    const std::string_view body = line.substr(1, line.size() - 4);
    unsigned told = 0;
    const char *end = line.data() + line.size();
    const auto [stop, failure] = std::from_chars(end - 2, end, told, 16);
    if (failure != std::errc{} || stop != end || told != checksum_of(body))
        return std::nullopt;
    return body;
}

std::vector<std::string_view> nmea_fields(std::string_view body) {
    std::vector<std::string_view> fields;
    while (true) {
        const size_t comma = body.find(',');
        fields.push_back(body.substr(0, comma));
        if (comma == std::string_view::npos)
            return fields;
        body.remove_prefix(comma + 1);
    }
}

std::string nmea_sentence(std::string_view body) {
    std::string sentence("$");
    sentence += body;
    std::array<char, 8> tail;
    std::snprintf(tail.data(), tail.size(), "*%02X\r\n", checksum_of(body));
    return sentence + tail.data();
}

} // namespace sim
