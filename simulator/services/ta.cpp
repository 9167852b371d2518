#include "ta.h"

#include "sentence.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace sim {
namespace {

constexpr double RECEIVER_PATIENCE_S = 3.0;

void finish(ta &unit, std::span<const uint8_t> answer, ta_faults &faults, double now) {
    const ta_request request = std::move(*unit.current);
    unit.current.reset();
    if (faults.lost != 0) {
        faults.lost -= faults.lost == TA_LOSES_ALL ? 0 : 1;
        return;
    }
    ta_reply reply{request.hdr, {}, now + faults.late_ms / 1000.0};
    std::copy(request.command.begin(), request.command.end(), reply.payload.command);
    const size_t length = std::min(answer.size(), GPS_DATA_RSP_SIZE);
    std::copy_n(answer.begin(), length, reply.payload.response);
    reply.payload.cmd_len =
        faults.claimed_length != 0 ? faults.claimed_length : static_cast<uint32_t>(length);
    unit.replies.push_back(reply);
}

} // namespace

bool ta_take_request(ta &unit, const msg_hdr &hdr, std::span<const uint8_t> payload,
                     std::string &error) {
    if (payload.size() != sizeof(gps_data_req_pld)) {
        error = "payload of " + std::to_string(payload.size()) + " bytes";
        return false;
    }
    gps_data_req_pld request;
    std::memcpy(&request, payload.data(), sizeof request);
    if (request.cmd_len == 0 || request.cmd_len > GPS_DATA_CMD_SIZE) {
        error = "command of " + std::to_string(request.cmd_len) + " bytes";
        return false;
    }
    unit.waiting.push_back({hdr, {request.command, request.command + request.cmd_len}});
    return true;
}

std::optional<std::vector<uint8_t>> ta_next_command(ta &unit, double now) {
    if (unit.current.has_value() || unit.waiting.empty())
        return std::nullopt;
    unit.current = std::move(unit.waiting.front());
    unit.waiting.pop_front();
    unit.patience_until = now + RECEIVER_PATIENCE_S;
    return unit.current->command;
}

void ta_take_answer(ta &unit, std::span<const uint8_t> answer, ta_faults &faults, double now) {
    if (unit.current.has_value())
        finish(unit, answer, faults, now);
}

std::vector<ta_reply> ta_due_replies(ta &unit, ta_faults &faults, double now) {
    if (unit.current.has_value() && now >= unit.patience_until)
        finish(unit, {}, faults, now);
    // Not in the order of the requests: a late one does not hold up those after the fault has
    // ended.
    std::vector<ta_reply> due;
    std::erase_if(unit.replies, [&](const ta_reply &reply) {
        if (reply.due > now)
            return false;
        due.push_back(reply);
        return true;
    });
    return due;
}

std::optional<double> ta_next_event(const ta &unit) {
    std::optional<double> next;
    if (unit.current.has_value())
        next = unit.patience_until;
    for (const ta_reply &reply : unit.replies)
        next = std::min(next.value_or(reply.due), reply.due);
    return next;
}

std::vector<std::string> ta_start_commands() {
    std::vector<std::string> commands;
    for (const char *sentence : {"GGA", "GLL", "GSA", "GSV", "RMC", "VTG", "ZDA", "TXT"})
        commands.push_back(nmea_sentence(std::string("PUBX,40,") + sentence + ",0,0,0,0,0,0"));
    return commands;
}

} // namespace sim
