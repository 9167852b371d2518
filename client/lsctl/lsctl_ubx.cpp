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

struct ubx_known {
    uint8_t msg_class;
    uint8_t id;
    const char *name;
    bool silent = false; // not acknowledged
};

constexpr ubx_known KNOWN[] = {
    {0x01, 0x01, "NAV-POSECEF"}, {0x01, 0x02, "NAV-POSLLH"},    {0x01, 0x03, "NAV-STATUS"},
    {0x01, 0x04, "NAV-DOP"},     {0x01, 0x06, "NAV-SOL"},       {0x01, 0x07, "NAV-PVT"},
    {0x01, 0x11, "NAV-VELECEF"}, {0x01, 0x12, "NAV-VELNED"},    {0x01, 0x20, "NAV-TIMEGPS"},
    {0x01, 0x21, "NAV-TIMEUTC"}, {0x01, 0x22, "NAV-CLOCK"},     {0x01, 0x30, "NAV-SVINFO"},
    {0x01, 0x32, "NAV-SBAS"},    {0x02, 0x10, "RXM-RAW"},       {0x02, 0x11, "RXM-SFRB"},
    {0x02, 0x20, "RXM-SVSI"},    {0x04, 0x00, "INF-ERROR"},     {0x04, 0x01, "INF-WARNING"},
    {0x04, 0x02, "INF-NOTICE"},  {0x04, 0x04, "INF-DEBUG"},     {0x05, 0x00, "ACK-NAK"},
    {0x05, 0x01, "ACK-ACK"},     {0x06, 0x00, "CFG-PRT"},       {0x06, 0x01, "CFG-MSG"},
    {0x06, 0x02, "CFG-INF"},     {0x06, 0x04, "CFG-RST", true}, {0x06, 0x06, "CFG-DAT"},
    {0x06, 0x07, "CFG-TP"},      {0x06, 0x08, "CFG-RATE"},      {0x06, 0x09, "CFG-CFG"},
    {0x06, 0x11, "CFG-RXM"},     {0x06, 0x13, "CFG-ANT"},       {0x06, 0x16, "CFG-SBAS"},
    {0x06, 0x17, "CFG-NMEA"},    {0x06, 0x1B, "CFG-USB"},       {0x06, 0x23, "CFG-NAVX5"},
    {0x06, 0x24, "CFG-NAV5"},    {0x06, 0x31, "CFG-TP5"},       {0x06, 0x32, "CFG-PM"},
    {0x06, 0x39, "CFG-ITFM"},    {0x06, 0x3B, "CFG-PM2"},       {0x06, 0x3E, "CFG-GNSS"},
    {0x0A, 0x02, "MON-IO"},      {0x0A, 0x04, "MON-VER"},       {0x0A, 0x06, "MON-MSGPP"},
    {0x0A, 0x07, "MON-RXBUF"},   {0x0A, 0x08, "MON-TXBUF"},     {0x0A, 0x09, "MON-HW"},
    {0x0A, 0x0B, "MON-HW2"},     {0x0B, 0x01, "AID-INI"},       {0x0B, 0x02, "AID-HUI"},
    {0x0B, 0x30, "AID-ALM"},     {0x0B, 0x31, "AID-EPH"},       {0x0D, 0x01, "TIM-TP"},
    {0x0D, 0x03, "TIM-TM2"},
};

const ubx_known *find_known(uint8_t msg_class, uint8_t id) {
    const auto *found = std::find_if(std::begin(KNOWN), std::end(KNOWN), [&](const ubx_known &row) {
        return row.msg_class == msg_class && row.id == id;
    });
    return found == std::end(KNOWN) ? nullptr : found;
}

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

ubx_piece frame_piece(std::span<const uint8_t> rest, size_t &used) {
    ubx_piece piece;
    piece.is_frame = true;
    piece.msg_class = rest[2];
    piece.id = rest[3];
    const size_t payload = payload_length(rest);
    piece.complete = rest.size() >= UBX_OVERHEAD + payload;
    if (!piece.complete) {
        used = rest.size();
        piece.bytes = rest.subspan(UBX_HEADER);
        return piece;
    }
    used = UBX_OVERHEAD + payload;
    const uint16_t right = frame_checksum(rest, payload);
    piece.checksum_ok =
        rest[used - 2] == (right & 0xFF) && rest[used - 1] == static_cast<uint8_t>(right >> 8);
    piece.bytes = rest.subspan(UBX_HEADER, payload);
    return piece;
}

bool is_frame_start(std::span<const uint8_t> rest) {
    return rest.size() >= UBX_HEADER && rest[0] == UBX_SYNC_1 && rest[1] == UBX_SYNC_2;
}

} // namespace

std::string ubx_name(uint8_t msg_class, uint8_t id) {
    const ubx_known *known = find_known(msg_class, id);
    return known == nullptr ? lsctl_format("%02X %02X", msg_class, id)
                            : lsctl_format("%s (%02X %02X)", known->name, msg_class, id);
}

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
    const auto ends_here = [&](size_t from) {
        return std::all_of(answer.begin() + static_cast<ptrdiff_t>(from), answer.end(),
                           [](uint8_t byte) { return byte == 0; });
    };
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
    return piece.is_frame && piece.checksum_ok && piece.msg_class == CLASS_ACK &&
           piece.id == ID_NAK && piece.bytes.size() == 2 && piece.bytes[0] == msg_class &&
           piece.bytes[1] == id;
}

bool ubx_expects_answer(uint8_t msg_class, uint8_t id) {
    const ubx_known *known = find_known(msg_class, id);
    return known == nullptr || !known->silent;
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
