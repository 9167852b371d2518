// lsctl nmea and ubx: arguments and answers.
#include "lsctl_engineering.h"

#include <algorithm>
#include <string>

#include "lsctl_text.h"

namespace {

std::span<const uint8_t> without_fill(std::span<const uint8_t> answer) {
    size_t size = answer.size();
    while (size != 0 && answer[size - 1] == 0)
        --size;
    return answer.first(size);
}

bool is_text(std::span<const uint8_t> bytes) {
    return std::all_of(
        bytes.begin(), bytes.end(),
        [](uint8_t byte) {
            return (byte >= ' ' && byte <= '~') || byte == '\r' || byte == '\n' || byte == '\t';
        });
}

// Lines end in CR LF on the wire.
std::string lines_of(std::span<const uint8_t> bytes) {
    std::string text;
    for (const uint8_t byte : bytes)
        if (byte != '\r')
            text += static_cast<char>(byte);
    if (!text.empty() && text.back() != '\n')
        text += '\n';
    return text;
}

} // namespace

std::string nmea_problem(std::string_view body) {
    if (body.empty())
        return "the sentence is empty";
    if (body.find_first_of("$*") != std::string_view::npos)
        return "give the sentence without $, * and checksum: the service adds them";
    for (const char c : body)
        if (c < ' ' || c > '~')
            return "the sentence may hold printable ASCII characters only";
    if (body.size() >= LS_ENGG_CMD_SIZE) {
        return lsctl_format("the sentence has %zu characters; the request holds %zu", body.size(),
                            LS_ENGG_CMD_SIZE - 1);
    }
    return {};
}

bool nmea_expects_answer(std::string_view body) {
    // Rates and port settings are taken without an acknowledgement.
    return !body.starts_with("PUBX,40") && !body.starts_with("PUBX,41");
}

std::string nmea_answer_text(std::span<const uint8_t> answer) {
    const auto bytes = without_fill(answer);
    return is_text(bytes) ? lines_of(bytes) : hex_dump(bytes);
}

lsctl_json nmea_answer_json(std::span<const uint8_t> answer) {
    const auto bytes = without_fill(answer);
    const bool is_lines = is_text(bytes);
    return {{"answer_bytes", bytes.size()},
            {"answer_text", is_lines ? lsctl_json(lines_of(bytes)) : lsctl_json(nullptr)},
            {"answer_hex", is_lines ? lsctl_json(nullptr) : lsctl_json(hex_text(bytes))}};
}

std::string nmea_wanted(std::string_view body) {
    constexpr size_t pubx = 7;      // "PUBX,00": the number belongs to the type
    constexpr size_t poll_type = 4; // "GPGPQ," asks the talker's equipment for the type behind
    const std::string_view address = body.substr(0, body.find(','));
    if (!nmea_expects_answer(body))
        return {};
    if (address == "PUBX")
        return std::string(body.substr(0, pubx));
    if (address.size() == poll_type + 1 && address.ends_with('Q') && address.size() < body.size())
        return std::string(body.substr(address.size() + 1));
    return {};
}

namespace {

// Of a damaged payload nothing is told but its bytes.
lsctl_json decoded_of(const ubx_piece &piece) {
    return piece.checksum_ok || piece.cut_by_room
               ? ubx_decoded(piece.msg_class, piece.id, piece.bytes)
               : lsctl_json(nullptr);
}

} // namespace

std::string ubx_answer_text(std::span<const ubx_piece> pieces) {
    std::string text;
    for (const ubx_piece &piece : pieces) {
        if (!piece.is_frame) {
            text += lsctl_format("%zu bytes outside of frames\n", piece.bytes.size());
        } else {
            const std::string name = ubx_name(piece.msg_class, piece.id);
            text += piece.complete
                        ? lsctl_format("%s, %zu payload bytes, checksum %s\n", name.c_str(),
                                       piece.bytes.size(), piece.checksum_ok ? "good" : "WRONG")
                        : lsctl_format("%s, cut after %zu payload bytes\n", name.c_str(),
                                       piece.bytes.size());
            text += ubx_decoded_text(decoded_of(piece));
        }
        text += hex_dump(piece.bytes);
    }
    return text;
}

lsctl_json ubx_answer_json(std::span<const ubx_piece> pieces) {
    lsctl_json list = lsctl_json::array();
    for (const ubx_piece &piece : pieces) {
        if (!piece.is_frame) {
            list.push_back({{"other_hex", hex_text(piece.bytes)}});
            continue;
        }
        lsctl_json object = {{"message", ubx_name(piece.msg_class, piece.id)},
                             {"class", piece.msg_class},
                             {"id", piece.id},
                             {"complete", piece.complete}};
        object["checksum_good"] =
            piece.complete ? lsctl_json(piece.checksum_ok) : lsctl_json(nullptr);
        object["payload_hex"] = hex_text(piece.bytes);
        object["decoded"] = decoded_of(piece);
        list.push_back(object);
    }
    return list;
}
