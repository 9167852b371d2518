// Cuts a byte stream into sentences and UBX frames.
#include "input.h"

#include "sentence.h"
#include "ubx.h"

#include <algorithm>
#include <optional>
#include <string_view>

namespace sim {

namespace {

constexpr size_t longest_sentence = 256;
constexpr size_t longest_payload = 256;
// A message whose bytes stop coming for so long was cut off; seconds.
constexpr double longest_pause = 1.0;

enum class found { nothing, part, message };

struct finding {
    found what = found::nothing;
    size_t length = 0; // of a message
};

finding look_for_frame(std::span<const uint8_t> bytes, command &into) {
    if (bytes.size() > 1 && bytes[1] != ubx_sync_2)
        return {};
    if (bytes.size() < ubx_overhead - 2)
        return {found::part};
    const size_t payload = static_cast<size_t>(bytes[4]) | static_cast<size_t>(bytes[5]) << 8;
    if (payload > longest_payload)
        return {};
    const size_t length = payload + ubx_overhead;
    if (bytes.size() < length)
        return {found::part};
    const auto sums = ubx_checksum(bytes.subspan(2, payload + 4));
    if (bytes[length - 2] != sums[0] || bytes[length - 1] != sums[1])
        return {};
    const auto body = bytes.subspan(6, payload);
    into = {true, {}, bytes[2], bytes[3], {body.begin(), body.end()}};
    return {found::message, length};
}

finding look_for_sentence(std::span<const uint8_t> bytes, command &into) {
    const auto printable = [](uint8_t one) { return one >= ' ' && one <= '~' && one != '$'; };
    const auto end = std::find_if_not(bytes.begin() + 1, bytes.end(), printable);
    size_t length = static_cast<size_t>(end - bytes.begin());
    if (length > longest_sentence)
        return {};
    if (end == bytes.end())
        return {found::part};
    const std::string_view text(reinterpret_cast<const char *>(bytes.data()), length);
    if (*end == '\r' && ++length == bytes.size())
        return {found::part};
    const auto body = verified_nmea_body(text);
    if (bytes[length] != '\n' || !body)
        return {};
    into = {false, std::string(*body), 0, 0, {}};
    return {found::message, length + 1};
}

finding look(std::span<const uint8_t> bytes, command &into) {
    if (bytes[0] == ubx_sync_1)
        return look_for_frame(bytes, into);
    if (bytes[0] == '$')
        return look_for_sentence(bytes, into);
    return {};
}

} // namespace

std::vector<command> split_input(input_splitter &splitter, std::span<const uint8_t> bytes,
                                 double now) {
    std::vector<uint8_t> &held = splitter.held;
    size_t at = !held.empty() && now - splitter.last_byte_at > longest_pause ? 1 : 0;
    held.insert(held.end(), bytes.begin(), bytes.end());
    splitter.last_byte_at = now;

    std::vector<command> commands;
    while (at < held.size()) {
        command next;
        const finding here = look(std::span(held).subspan(at), next);
        if (here.what == found::part)
            break;
        if (here.what == found::message)
            commands.push_back(std::move(next));
        // Behind a bad start anything may begin, so only that one byte is passed over.
        at += here.what == found::message ? here.length : 1;
    }
    held.erase(held.begin(), held.begin() + static_cast<std::ptrdiff_t>(at));
    return commands;
}

} // namespace sim
