// lsctl: UBX frames on the command line and in answers.
#include "lsctl_ubx.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <charconv>

#include "lsctl_text.h"

namespace {

constexpr uint8_t CLASS_ACK = 0x05;
constexpr uint8_t ID_NAK = 0x00;
constexpr uint8_t ID_ACK = 0x01;

bool is_separator(char c) {
    return c == ',' || std::isspace(static_cast<unsigned char>(c)) != 0;
}

// One word without separators: one byte of one or two digits, or an even run of digits.
std::string parse_word(std::string_view word, std::vector<uint8_t> &bytes) {
    const std::string shown = "'" + std::string(word) + "'";
    if (word.substr(0, 2) == "0x" || word.substr(0, 2) == "0X")
        word.remove_prefix(2);
    if (word.empty() || !std::all_of(word.begin(), word.end(),
                                     [](unsigned char c) { return std::isxdigit(c) != 0; }))
        return shown + " is not hexadecimal";
    if (word.size() > 2 && word.size() % 2 != 0)
        return shown + " has an odd number of digits";
    for (size_t at = 0; at < word.size(); at += 2) {
        const std::string_view digits = word.substr(at, 2);
        uint8_t byte = 0;
        std::from_chars(digits.data(), digits.data() + digits.size(), byte, 16);
        bytes.push_back(byte);
    }
    return {};
}

std::string parse_bytes(std::span<const std::string> words, std::vector<uint8_t> &bytes) {
    for (const std::string &typed : words) {
        const std::string_view text = typed;
        size_t at = 0;
        while (at < text.size()) {
            if (is_separator(text[at])) {
                ++at;
                continue;
            }
            size_t end = at;
            while (end < text.size() && !is_separator(text[end]))
                ++end;
            std::string problem = parse_word(text.substr(at, end - at), bytes);
            if (!problem.empty())
                return problem;
            at = end;
        }
    }
    return {};
}

size_t payload_length(std::span<const uint8_t> frame) {
    return static_cast<size_t>(frame[4] | frame[5] << 8);
}

uint16_t frame_checksum(std::span<const uint8_t> frame, size_t payload) {
    return ubx_checksum(frame.subspan(2, UBX_HEADER - 2 + payload));
}

std::string complete_frame(std::vector<uint8_t> &frame) {
    if (frame.size() < UBX_HEADER)
        return "the frame ends before its payload length";
    const size_t payload = payload_length(frame);
    const size_t given = frame.size() - UBX_HEADER;
    if (given != payload && given != payload + 2) {
        return lsctl_format("the length field says %zu payload bytes and two of checksum may "
                            "follow, but %zu bytes follow",
                            payload, given);
    }
    const uint16_t right = frame_checksum(frame, payload);
    if (given == payload) {
        frame.resize(UBX_OVERHEAD + payload);
    } else {
        const auto typed = static_cast<uint16_t>(frame[frame.size() - 2] | frame.back() << 8);
        if (typed != 0 && typed != right) {
            return lsctl_format("the checksum of this frame is %02X %02X, not %02X %02X; 00 00 has "
                                "it filled in",
                                right & 0xFFU, static_cast<unsigned>(right >> 8), typed & 0xFFU,
                                static_cast<unsigned>(typed >> 8));
        }
    }
    frame[frame.size() - 2] = static_cast<uint8_t>(right & 0xFF);
    frame.back() = static_cast<uint8_t>(right >> 8);
    return {};
}

bool is_fill(std::span<const uint8_t> rest) {
    return std::all_of(
        rest.begin(), rest.end(), [](uint8_t byte) { return byte == 0; });
}

ubx_piece frame_piece(std::span<const uint8_t> rest, size_t &used) {
    ubx_piece piece;
    piece.is_frame = true;
    piece.msg_class = rest[2];
    piece.id = rest[3];
    const size_t payload = payload_length(rest);
    piece.complete = rest.size() >= UBX_OVERHEAD + payload;
    if (!piece.complete) {
        piece.cut_by_room = true;
        used = rest.size();
        piece.bytes = rest.subspan(UBX_HEADER);
        return piece;
    }
    used = UBX_OVERHEAD + payload;
    const uint16_t right = frame_checksum(rest, payload);
    piece.checksum_ok =
        rest[used - 2] == (right & 0xFF) && rest[used - 1] == static_cast<uint8_t>(right >> 8);
    piece.bytes = rest.subspan(UBX_HEADER, payload);
    // How long the answer was is not told: a damaged frame whose end is fill was cut on the line.
    if (!piece.checksum_ok && is_fill(rest.subspan(used - 1))) {
        piece.complete = false;
        while (!piece.bytes.empty() && piece.bytes.back() == 0)
            piece.bytes = piece.bytes.first(piece.bytes.size() - 1);
    }
    return piece;
}

bool is_acknowledge(const ubx_piece &piece, uint8_t kind, uint8_t msg_class, uint8_t id) {
    return piece.is_frame && piece.checksum_ok && piece.msg_class == CLASS_ACK &&
           piece.id == kind && piece.bytes.size() == 2 && piece.bytes[0] == msg_class &&
           piece.bytes[1] == id;
}

bool is_frame_start(std::span<const uint8_t> rest) {
    return rest.size() >= UBX_HEADER && rest[0] == UBX_SYNC_1 && rest[1] == UBX_SYNC_2;
}

} // namespace

uint16_t ubx_checksum(std::span<const uint8_t> covered) {
    unsigned a = 0;
    unsigned b = 0;
    for (const uint8_t byte : covered) {
        a = (a + byte) & 0xFF;
        b = (b + a) & 0xFF;
    }
    return static_cast<uint16_t>(a | b << 8);
}

std::string ubx_parse(std::span<const std::string> words, std::vector<uint8_t> &frame) {
    std::vector<uint8_t> typed;
    if (!words.empty() && words[0].find('-') != std::string::npos) {
        const auto named = ubx_named(words[0]);
        if (!named)
            return "'" + words[0] + "' is no message that lsctl knows; give its class and id";
        typed = {named->msg_class, named->id};
        words = words.subspan(1);
    }
    std::string problem = parse_bytes(words, typed);
    if (!problem.empty())
        return problem;
    if (typed.size() >= 2 && typed[0] == UBX_SYNC_1 && typed[1] == UBX_SYNC_2) {
        frame = std::move(typed);
    } else if (typed.size() < 2) {
        return "class and id are needed";
    } else {
        const size_t payload = typed.size() - 2;
        frame = {UBX_SYNC_1,
                 UBX_SYNC_2,
                 typed[0],
                 typed[1],
                 static_cast<uint8_t>(payload & 0xFF),
                 static_cast<uint8_t>(payload >> 8)};
        frame.insert(frame.end(), typed.begin() + 2, typed.end());
    }
    problem = complete_frame(frame);
    if (!problem.empty())
        return problem;
    std::array<char, LS_ENGG_CMD_SIZE> text{};
    if (location_client_ubx_text(frame, &text) == 0) {
        return lsctl_format("the frame has %zu bytes; written out it does not fit into the %zu "
                            "characters of the request (26 bytes always fit)",
                            frame.size(), LS_ENGG_CMD_SIZE - 1);
    }
    return {};
}

std::vector<ubx_piece> ubx_split(std::span<const uint8_t> answer) {
    std::vector<ubx_piece> pieces;
    size_t at = 0;
    const auto ends_here = [&](size_t from) { return is_fill(answer.subspan(from)); };
    while (!ends_here(at)) {
        if (is_frame_start(answer.subspan(at))) {
            size_t used = 0;
            pieces.push_back(frame_piece(answer.subspan(at), used));
            at += used;
            continue;
        }
        size_t end = at;
        while (!ends_here(end) && !is_frame_start(answer.subspan(end)))
            ++end;
        ubx_piece other;
        other.bytes = answer.subspan(at, end - at);
        pieces.push_back(other);
        at = end;
    }
    return pieces;
}

bool ubx_is_nak(const ubx_piece &piece, uint8_t msg_class, uint8_t id) {
    return is_acknowledge(piece, ID_NAK, msg_class, id);
}

ubx_judgement ubx_judge(std::span<const ubx_piece> pieces, uint8_t msg_class, uint8_t id) {
    ubx_judgement judged;
    bool has_wanted = false;
    bool has_frame = false;
    bool is_cut = false;
    for (const ubx_piece &piece : pieces) {
        if (!piece.is_frame)
            continue;
        has_frame = true;
        judged.cut_by_room = judged.cut_by_room || piece.cut_by_room;
        is_cut = is_cut || (!piece.complete && !piece.cut_by_room);
        if (piece.complete)
            judged.checksum_good = judged.checksum_good.value_or(true) && piece.checksum_ok;
        has_wanted = has_wanted || (piece.msg_class == msg_class && piece.id == id) ||
                     is_acknowledge(piece, ID_ACK, msg_class, id);
        judged.is_refused = judged.is_refused || ubx_is_nak(piece, msg_class, id);
    }
    if (judged.checksum_good == false)
        judged.verdict = lsctl_verdict::wrong_checksum;
    else if (is_cut)
        judged.verdict = lsctl_verdict::cut;
    else if (has_wanted)
        judged.verdict = lsctl_verdict::good;
    else if (has_frame)
        judged.verdict = lsctl_verdict::other;
    else if (!pieces.empty())
        judged.verdict = lsctl_verdict::noise;
    return judged;
}

std::string hex_text(std::span<const uint8_t> bytes) {
    std::string text;
    for (const uint8_t byte : bytes)
        text += lsctl_format("%s%02X", text.empty() ? "" : " ", byte);
    return text;
}

std::string hex_dump(std::span<const uint8_t> bytes) {
    constexpr size_t per_line = 16;
    std::string text;
    for (size_t at = 0; at < bytes.size(); at += per_line) {
        const auto line = bytes.subspan(at, std::min(per_line, bytes.size() - at));
        std::string shown;
        for (const uint8_t byte : line)
            shown += byte >= ' ' && byte <= '~' ? static_cast<char>(byte) : '.';
        text += lsctl_format("  %04zx  %-47s  %s\n", at, hex_text(line).c_str(), shown.c_str());
    }
    return text;
}
