#include "spoil.h"

#include <cctype>
#include <cstddef>

namespace sim {
namespace {

constexpr size_t UBX_HEADER = 6; // sync, class, id, length
constexpr size_t UBX_CHECKSUM = 2;

// The next hexadecimal digit keeps the sentence well-formed: only its value is wrong.
uint8_t next_hex_digit(uint8_t digit) {
    switch (digit) {
    case '9':
        return 'A';
    case 'F':
    case 'f':
        return '0';
    default:
        return static_cast<uint8_t>(digit + 1);
    }
}

// An answer may hold several sentences (GSV) or frames; every one of them gets a wrong checksum.
void spoil_checksums(std::span<uint8_t> bytes) {
    size_t at = 0;
    while (at < bytes.size()) {
        if (bytes[at] == 0xB5 && at + UBX_HEADER + UBX_CHECKSUM <= bytes.size()) {
            const size_t length = bytes[at + 4] | static_cast<size_t>(bytes[at + 5]) << 8;
            const size_t end = at + UBX_HEADER + length + UBX_CHECKSUM;
            if (end > bytes.size())
                return;
            bytes[end - 1] ^= 0xFF;
            at = end;
            continue;
        }
        if (bytes[at] == '*' && at + 2 < bytes.size() && std::isxdigit(bytes[at + 2]) != 0)
            bytes[at + 2] = next_hex_digit(bytes[at + 2]);
        at++;
    }
}

std::vector<uint8_t> garbage(unsigned count, std::mt19937 &random) {
    std::vector<uint8_t> bytes(count);
    for (uint8_t &byte : bytes)
        byte = static_cast<uint8_t>(random() & 0xFFU);
    return bytes;
}

} // namespace

void line_add_noise(std::span<uint8_t> bytes, unsigned per_thousand, std::mt19937 &random) {
    if (per_thousand == 0)
        return;
    for (uint8_t &byte : bytes)
        if (random() % 1000U < per_thousand)
            byte ^= static_cast<uint8_t>(1U << (random() % 8U));
}

std::vector<uint8_t> line_spoil(std::vector<uint8_t> answer, const line_faults &faults,
                                std::mt19937 &random) {
    if (faults.checksum)
        spoil_checksums(answer);
    if (faults.cut) {
        const size_t kept = faults.cut_bytes == 0 ? answer.size() / 2 : faults.cut_bytes;
        if (kept < answer.size())
            answer.resize(kept);
    }
    line_add_noise(answer, faults.noise, random);
    if (faults.garbage_before != 0) {
        const std::vector<uint8_t> front = garbage(faults.garbage_before, random);
        answer.insert(answer.begin(), front.begin(), front.end());
    }
    if (faults.garbage_after != 0) {
        const std::vector<uint8_t> back = garbage(faults.garbage_after, random);
        answer.insert(answer.end(), back.begin(), back.end());
    }
    return answer;
}

} // namespace sim
