// lsctl nmea and ubx: one command straight to the receiver, and its raw answer, judged.
#include <algorithm>
#include <optional>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#include "lsctl_engineering.h"
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

// What the user is told about an answer that is not good.
std::string complaint_of(lsctl_verdict verdict, const std::string &wanted) {
    switch (verdict) {
    case lsctl_verdict::nothing:
        return SILENT_NOTE;
    case lsctl_verdict::wrong_checksum:
        return "the answer has a wrong checksum: something damages it on its way (the line, its "
               "baud rate)";
    case lsctl_verdict::cut:
        return "the answer is cut short on its way, and has no checksum";
    case lsctl_verdict::other:
        return "the answer is not " + (wanted.empty() ? "one to this command" : "a " + wanted);
    default:
        return "the answer is noise: nothing in it is a message of the receiver";
    }
}

struct judged_answer {
    lsctl_verdict verdict;
    std::string wanted; // name of what should have come
    bool is_silent;     // no answer is expected: what came is none, and not judged
    bool cut_by_room;
    size_t room; // bytes
    std::optional<bool> checksum_good;
};

// Shows the answer with its judgement, and returns the exit status.
int show_judged(const lsctl_options &options, const judged_answer &judged, lsctl_json object,
                std::string lines) {
    object["verdict"] = lsctl_verdict_name(judged.verdict);
    object["checksum_good"] =
        judged.checksum_good ? lsctl_json(*judged.checksum_good) : lsctl_json(nullptr);
    object["cut_by_service"] = judged.cut_by_room;
    if (judged.cut_by_room) {
        lines += lsctl_format("(cut by the service, which hands on %zu bytes of an answer: what is "
                              "behind them is not known)\n",
                              judged.room);
    }
    if (judged.is_silent)
        lines += "sent; the receiver does not answer this command\n";
    if (judged.is_silent || judged.verdict == lsctl_verdict::good)
        return lsctl_show(options, object, lines);
    return lsctl_fail_with(options,
                           judged.verdict == lsctl_verdict::nothing
                               ? lsctl_result_name(LOCATION_RECEIVER_TIMEOUT)
                               : lsctl_verdict_name(judged.verdict),
                           complaint_of(judged.verdict, judged.wanted), object, lines);
}

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
    const std::string wanted = nmea_wanted(body);
    const lsctl_heard heard = lsctl_judge_nmea(answer, wanted);
    lsctl_verdict verdict = heard.verdict;
    if (verdict == lsctl_verdict::good)
        verdict = heard.damage; // one of several sentences
    else if (verdict == lsctl_verdict::cut && heard.cut_by_room)
        verdict = lsctl_verdict::good;
    return show_judged(options,
                       {.verdict = verdict,
                        .wanted = wanted,
                        .is_silent = !nmea_expects_answer(body),
                        .cut_by_room = heard.cut_by_room,
                        .room = LS_ENGG_ANSWER_SIZE,
                        .checksum_good = heard.checksum_good},
                       object, nmea_answer_text(answer));
}

void ubx_command::add_options(CLI::App &app) {
    app.add_option("message", words,
                   "A frame (B5 62 06 08 00 00), or class, id and payload (06 08), or a message's "
                   "name and payload (CFG-RATE); length and checksum are added where missing")
        ->option_text("HEX ... | NAME [HEX ...]")
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
    const ubx_judgement judged = ubx_judge(pieces, msg_class, id);
    const std::string lines = ubx_answer_text(pieces);
    const std::string name = ubx_name(msg_class, id);
    if (judged.is_refused) {
        lsctl_json refused = object;
        refused.update(
            {{"verdict", "refused"}, {"checksum_good", true}, {"cut_by_service", false}});
        return lsctl_fail_with(options, "refused", "the receiver refused " + name, refused, lines);
    }
    return show_judged(options,
                       {.verdict = judged.verdict,
                        .wanted = name,
                        .is_silent = !ubx_expects_answer(msg_class, id),
                        .cut_by_room = judged.cut_by_room,
                        .room = LOCATION_CLIENT_UBX_ANSWER_SIZE,
                        .checksum_good = judged.checksum_good},
                       object, lines);
}

} // namespace

lsctl_runner lsctl_nmea(CLI::App &app) {
    return lsctl_make<nmea_command>(app);
}

lsctl_runner lsctl_ubx(CLI::App &app) {
    return lsctl_make<ubx_command>(app);
}
