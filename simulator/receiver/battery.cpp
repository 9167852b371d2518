// The battery-backed memory in its file.
#include "battery.h"

#include "ls_descriptor.h"
#include "nmea_fields.h"

#include <array>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <fcntl.h>
#include <optional>
#include <string_view>
#include <unistd.h>

namespace sim {

namespace {

constexpr std::string_view heading = "receiver-battery 1\n";
constexpr size_t largest_file = 16384;

uint32_t crc32_of(std::string_view text) {
    uint32_t crc = 0xffffffff;
    for (const char one : text) {
        crc ^= static_cast<uint8_t>(one);
        for (int bit = 0; bit < 8; ++bit)
            crc = (crc & 1) != 0 ? crc >> 1 ^ 0xedb88320 : crc >> 1;
    }
    return ~crc;
}

std::string text_of_memory(const battery_memory &memory) {
    std::string text(heading);
    text += text_of("known %d %d %.3f\n", memory.almanac ? 1 : 0, memory.ephemeris ? 1 : 0,
                    memory.last_fix);
    for (const auto &[key, payload] : config_frames(memory.saved)) {
        text += text_of("%04x ", key);
        for (const uint8_t byte : payload)
            text += text_of("%02x", byte);
        text += "\n";
    }
    return text + text_of("crc %08x\n", crc32_of(text));
}

template <class number>
bool take_hex(std::string_view text, number &value) {
    const char *end = text.data() + text.size();
    const auto [stop, failure] = std::from_chars(text.data(), end, value, 16);
    return failure == std::errc{} && stop == end;
}

bool take_known(std::string_view line, battery_memory &memory) {
    constexpr std::string_view name = "known ";
    constexpr size_t time_at = name.size() + 4;
    if (line.substr(0, name.size()) != name || line.size() <= time_at)
        return false;
    memory.almanac = line[name.size()] == '1';
    memory.ephemeris = line[name.size() + 2] == '1';
    const char *end = line.data() + line.size();
    const auto [stop, failure] = std::from_chars(line.data() + time_at, end, memory.last_fix);
    return failure == std::errc{} && stop == end && std::isfinite(memory.last_fix);
}

bool take_frame(std::string_view line, battery_memory &memory) {
    constexpr size_t payload_at = 5;
    uint16_t key = 0;
    if (line.size() < payload_at || line.size() % 2 == 0 || !take_hex(line.substr(0, 4), key))
        return false;
    std::vector<uint8_t> payload;
    for (size_t at = payload_at; at < line.size(); at += 2) {
        uint8_t byte = 0;
        if (!take_hex(line.substr(at, 2), byte))
            return false;
        payload.push_back(byte);
    }
    return config_set(memory.saved, key, payload);
}

std::optional<battery_memory> memory_of_text(std::string_view text) {
    const size_t crc_line = text.rfind("crc ");
    uint32_t crc = 0;
    if (!text.starts_with(heading) || crc_line == std::string_view::npos || !text.ends_with('\n') ||
        !take_hex(text.substr(crc_line + 4, text.size() - crc_line - 5), crc) ||
        crc != crc32_of(text.substr(0, crc_line)))
        return std::nullopt;
    battery_memory memory;
    std::string_view rest = text.substr(heading.size(), crc_line - heading.size());
    for (bool first = true; !rest.empty(); first = false) {
        const std::string_view line = rest.substr(0, rest.find('\n'));
        if (!(first ? take_known(line, memory) : take_frame(line, memory)))
            return std::nullopt;
        rest.remove_prefix(line.size() + 1);
    }
    return memory;
}

bool write_all(int fd, std::string_view text) {
    while (!text.empty()) {
        const ssize_t written = write(fd, text.data(), text.size());
        if (written <= 0)
            return false;
        text.remove_prefix(static_cast<size_t>(written));
    }
    return fsync(fd) == 0;
}

} // namespace

battery_memory battery_load(const std::string &path) {
    const ls_descriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    std::string text(largest_file, '\0');
    size_t length = 0;
    while (file.fd >= 0 && length < text.size()) {
        const ssize_t count = read(file.fd, text.data() + length, text.size() - length);
        if (count <= 0)
            break;
        length += static_cast<size_t>(count);
    }
    text.resize(length);
    return memory_of_text(text).value_or(battery_memory{});
}

bool battery_store(const std::string &path, const battery_memory &memory) {
    const std::string fresh = path + ".new";
    {
        const ls_descriptor file(
            open(fresh.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
        if (file.fd < 0 || !write_all(file.fd, text_of_memory(memory))) {
            unlink(fresh.c_str());
            return false;
        }
    }
    if (rename(fresh.c_str(), path.c_str()) != 0) {
        unlink(fresh.c_str());
        return false;
    }
    // The new name must survive a loss of power too.
    const size_t slash = path.rfind('/');
    const std::string folder =
        slash == std::string::npos ? "." : path.substr(0, slash == 0 ? 1 : slash);
    const ls_descriptor directory(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    return directory.fd >= 0 && fsync(directory.fd) == 0;
}

} // namespace sim
