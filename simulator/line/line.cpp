#include "line.h"

#include <algorithm>
#include <utility>

namespace sim {
namespace {

double transfer_time(const line &wire, size_t bytes) {
    if (wire.baud == 0)
        return 0;
    return static_cast<double>(bytes) * LINE_BITS_PER_BYTE / wire.baud;
}

// Hands the oldest command over if it is there by now.
bool command_arrives(line &wire, receiver &module) {
    if (wire.commands.empty() || wire.commands.front().due > wire.clock)
        return false;
    const line_chunk chunk = std::move(wire.commands.front());
    wire.commands.pop_front();
    if (wire.faults.unplugged || !module.powered()) {
        wire.lost_bytes += chunk.bytes.size();
        return true;
    }
    wire.command_bytes += chunk.bytes.size();
    module.input(chunk.bytes, wire.clock);
    return true;
}

// Queues what the receiver has to say behind what it is already saying.
bool answers_leave(line &wire, receiver &module) {
    std::vector<std::vector<uint8_t>> said = module.take_output(wire.clock);
    for (std::vector<uint8_t> &message : said) {
        if (wire.faults.unplugged) {
            wire.lost_bytes += message.size();
            continue;
        }
        std::vector<uint8_t> bytes = line_spoil(std::move(message), wire.faults, wire.random);
        const double start =
            std::max(wire.clock + wire.faults.late_ms / 1000.0, wire.answers_until);
        wire.answers_until = start + transfer_time(wire, bytes.size());
        wire.answers.push_back({std::move(bytes), wire.answers_until});
    }
    return !said.empty();
}

bool answer_arrives(line &wire, std::vector<std::vector<uint8_t>> &arrived) {
    if (wire.answers.empty() || wire.answers.front().due > wire.clock)
        return false;
    wire.answer_bytes += wire.answers.front().bytes.size();
    arrived.push_back(std::move(wire.answers.front().bytes));
    wire.answers.pop_front();
    return true;
}

} // namespace

void line_send(line &wire, std::span<const uint8_t> bytes, double now) {
    if (bytes.empty())
        return;
    std::vector<uint8_t> copy(bytes.begin(), bytes.end());
    line_add_noise(copy, wire.faults.noise, wire.random);
    wire.commands_until = std::max(now, wire.commands_until) + transfer_time(wire, copy.size());
    wire.commands.push_back({std::move(copy), wire.commands_until});
}

std::vector<std::vector<uint8_t>> line_step(line &wire, receiver &module, double now) {
    std::vector<std::vector<uint8_t>> arrived;
    for (;;) {
        // Every event happens at its own time, however late this call is, so that a slow wake-up
        // does not add up over the legs of an exchange.
        const std::optional<double> next = line_next_event(wire, module);
        const bool due = next.has_value() && *next <= now;
        wire.clock = std::max(wire.clock, due ? *next : now);
        bool progress = command_arrives(wire, module);
        progress = answers_leave(wire, module) || progress;
        progress = answer_arrives(wire, arrived) || progress;
        // A receiver event without output is no progress either: it is taken again at `now`.
        if (!progress && wire.clock >= now)
            return arrived;
        if (!progress && due)
            wire.clock = std::max(wire.clock, now);
    }
}

std::optional<double> line_next_event(const line &wire, const receiver &module) {
    std::optional<double> next = module.next_event();
    for (const std::deque<line_chunk> *queue : {&wire.commands, &wire.answers})
        if (!queue->empty() && (!next.has_value() || queue->front().due < *next))
            next = queue->front().due;
    return next;
}

void line_drop_answers(line &wire) {
    for (const line_chunk &chunk : wire.answers)
        wire.lost_bytes += chunk.bytes.size();
    wire.answers.clear();
    wire.answers_until = 0;
}

} // namespace sim
