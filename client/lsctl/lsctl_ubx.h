// lsctl: UBX frames on the command line and in answers. Pure functions.
#ifndef LSCTL_UBX_H
#define LSCTL_UBX_H

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "lsctl_sentence.h"

constexpr uint8_t UBX_SYNC_1 = 0xB5;
constexpr uint8_t UBX_SYNC_2 = 0x62;
constexpr size_t UBX_HEADER = 6;   // sync, class, id, payload length
constexpr size_t UBX_OVERHEAD = 8; // header and checksum

// --- lsctl_ubx_names.cpp ---

struct ubx_message {
    uint8_t msg_class;
    uint8_t id;
};
// The message of a name like "CFG-RATE", in whatever case; none for an unknown one.
std::optional<ubx_message> ubx_named(const std::string &name);

// "CFG-RATE (06 08)", or "06 99" for one without a known name.
std::string ubx_name(uint8_t msg_class, uint8_t id);

// False for a command that a receiver obeys without a word.
bool ubx_expects_answer(uint8_t msg_class, uint8_t id);

// --- lsctl_ubx.cpp ---

// CK_A in the low byte, CK_B in the high one; over class, id, length and payload.
uint16_t ubx_checksum(std::span<const uint8_t> covered);

// Turns what was typed into a whole frame with a good checksum. Typed are hexadecimal bytes between
// blanks or commas, or run together; either a frame that begins with B5 62, with its checksum, with
// 00 00 in its place or without, or class, id and payload alone. A name may stand for class and id.
// Returns what is wrong, or "".
std::string ubx_parse(std::span<const std::string> words, std::vector<uint8_t> &frame);

// One piece of an answer: a frame, or the bytes between frames.
struct ubx_piece {
    bool is_frame = false;
    bool complete = false;    // false: the answer ends before the frame does
    bool cut_by_room = false; // and it ends where the service's room for an answer does
    bool checksum_ok = false; // of a complete frame
    uint8_t msg_class = 0;
    uint8_t id = 0;
    std::span<const uint8_t> bytes; // the payload as far as it is there, or all bytes
};

// The answer is zero-filled: zeros behind the last piece are no part of it.
std::vector<ubx_piece> ubx_split(std::span<const uint8_t> answer);

bool ubx_is_nak(const ubx_piece &piece, uint8_t msg_class, uint8_t id);

// What a whole answer to this message is worth.
struct ubx_judgement {
    lsctl_verdict verdict = lsctl_verdict::nothing; // good: the message itself, or its acknowledge
    bool is_refused = false;                        // good or other, and a negative acknowledge
    bool cut_by_room = false;                       // the last frame does not fit into the answer
    std::optional<bool> checksum_good;              // of all whole frames; none without one
};
ubx_judgement ubx_judge(std::span<const ubx_piece> pieces, uint8_t msg_class, uint8_t id);

// "E8 03 01".
std::string hex_text(std::span<const uint8_t> bytes);
// Lines of 16 bytes with offset and printable characters.
std::string hex_dump(std::span<const uint8_t> bytes);

// --- lsctl_ubx_decode.cpp ---

// What the payload of a configuration message that the service uses, of NAV-POSECEF, MON-VER or an
// acknowledge says, with a key and unit for each value as docs/json.md lists them; null for another
// message, and for a payload that is too short. Texts may be cut where the payload is.
lsctl_json ubx_decoded(uint8_t msg_class, uint8_t id, std::span<const uint8_t> payload);
// The same as indented lines; "" for null.
std::string ubx_decoded_text(const lsctl_json &decoded);

#endif
