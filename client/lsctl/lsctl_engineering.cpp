// lsctl nmea and ubx: one command straight to the receiver, and its raw answer.
#include "lsctl_engineering.h"

#include <algorithm>
#include <optional>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#include "lsctl_text.h"

namespace {

struct nmea_command {
    std::string body;

    void add_options(CLI::App &app);
    int run(const lsctl_options &options) const;
};

struct ubx_command {
    std::vector<std::string> words;

    void add_options(CLI::App &app);
    int run(const lsctl_options &options) const;
};

constexpr const char *SILENT_NOTE =
    "the receiver did not answer (the service reports that as success)";

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

// Sends the command and takes the answer; the exit status when there is none to show, told already.
template <typename Command>
std::optional<int> exchange_failed(const lsctl_options &options, const std::string &problem,
                                   location_result (*exec)(location_client *,
                                                           std::chrono::milliseconds, Command,
                                                           location_client_answer *) noexcept,
                                   const Command &command, location_client_answer &answer) {
    if (!problem.empty())
        return lsctl_fail(options, LOCATION_BAD_ARGUMENT, problem);
    const lsctl_link link(options.as);
    if (link.result != LOCATION_ANSWERED)
        return lsctl_fail(options, link.result);
    const location_result result = exec(link.client, lsctl_timeout(options), command, &answer);
    if (result == LOCATION_FAILED) {
        return lsctl_fail(options, result,
                          "the location service could not exchange this with the receiver");
    }
    if (result != LOCATION_ANSWERED)
        return lsctl_fail(options, result, link.client);
    return std::nullopt;
}

int show_silence(const lsctl_options &options, bool expected, const lsctl_json &object) {
    if (!expected)
        return lsctl_show(options, object, "sent; the receiver does not answer this command\n");
    return lsctl_fail(options, LOCATION_RECEIVER_TIMEOUT, SILENT_NOTE);
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
    lsctl_json object = {{"answer_bytes", bytes.size()}};
    if (is_text(bytes))
        object["answer_text"] = lines_of(bytes);
    else
        object["answer_hex"] = hex_text(bytes);
    return object;
}

std::string ubx_answer_text(std::span<const ubx_piece> pieces) {
    std::string text;
    for (const ubx_piece &piece : pieces) {
        if (!piece.is_frame) {
            text += lsctl_format("%zu bytes outside of frames\n", piece.bytes.size());
        } else if (piece.complete) {
            text += lsctl_format("%s, %zu payload bytes, checksum %s\n",
                                 ubx_name(piece.msg_class, piece.id).c_str(), piece.bytes.size(),
                                 piece.checksum_ok ? "good" : "WRONG");
        } else {
            text += lsctl_format("%s, cut after %zu payload bytes\n",
                                 ubx_name(piece.msg_class, piece.id).c_str(), piece.bytes.size());
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
        if (piece.complete)
            object["checksum_good"] = piece.checksum_ok;
        object["payload_hex"] = hex_text(piece.bytes);
        list.push_back(object);
    }
    return list;
}

namespace {

void nmea_command::add_options(CLI::App &app) {
    app.add_option("body", body, "Sentence without $, * and checksum, such as PUBX,00")
        ->option_text("BODY")
        ->required();
}

int nmea_command::run(const lsctl_options &options) const {
    location_client_answer answer;
    if (const auto status = exchange_failed<std::string_view>(
            options, nmea_problem(body), location_client_exec_nmea, body, answer))
        return *status;
    lsctl_json object = {{"sent", body}};
    object.update(nmea_answer_json(answer));
    const std::string text = nmea_answer_text(answer);
    return text.empty() ? show_silence(options, nmea_expects_answer(body), object)
                        : lsctl_show(options, object, text);
}

void ubx_command::add_options(CLI::App &app) {
    app.add_option("hex", words,
                   "A frame (B5 62 06 08 00 00), or class, id and payload (06 08); length and "
                   "checksum are added where missing")
        ->option_text("HEX ...")
        ->required();
}

int ubx_command::run(const lsctl_options &options) const {
    std::vector<uint8_t> frame;
    const std::string problem = ubx_parse(words, frame);
    location_client_answer answer;
    if (const auto status = exchange_failed<std::span<const uint8_t>>(
            options, problem, location_client_exec_ubx, frame, answer))
        return *status;
    const uint8_t msg_class = frame[2];
    const uint8_t id = frame[3];
    const std::vector<ubx_piece> pieces =
        // The zeros behind are no part of a frame that was cut.
        ubx_split(std::span(answer).first(LOCATION_CLIENT_UBX_ANSWER_SIZE));
    const lsctl_json object = {{"sent", ubx_name(msg_class, id)},
                               {"sent_hex", hex_text(frame)},
                               {"answer", ubx_answer_json(pieces)}};
    if (pieces.empty())
        return show_silence(options, ubx_expects_answer(msg_class, id), object);
    const int status = lsctl_show(options, object, ubx_answer_text(pieces));
    if (std::any_of(pieces.begin(), pieces.end(),
                    [&](const ubx_piece &piece) { return ubx_is_nak(piece, msg_class, id); })) {
        lsctl_complain("the receiver refused " + ubx_name(msg_class, id));
        return LSCTL_FAILED;
    }
    return status;
}

} // namespace

lsctl_runner lsctl_nmea(CLI::App &app) {
    return lsctl_make<nmea_command>(app);
}

lsctl_runner lsctl_ubx(CLI::App &app) {
    return lsctl_make<ubx_command>(app);
}
