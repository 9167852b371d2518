// The policy of the bus: see mqutils_policy.h.
//
// A line that cannot be read allows nothing: it counts as one for this service unless it says that
// it is for others. So an error in the file shuts out, never lets in.

#include "mqutils_policy.h"

#include "ls_descriptor.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <limits>
#include <memory>
#include <new>
#include <string_view>

namespace mqutils {
namespace {

constexpr const char *FILE_NAME = "policy";
constexpr size_t LONGEST_FILE = size_t{64} * 1024;
constexpr unsigned TOLD_LINES = 5; // of the malformed ones
constexpr uint32_t FIRST_SERVICE = 1;
constexpr uint32_t LAST_SERVICE = 255;
constexpr uint32_t LAST_MESSAGE = std::numeric_limits<uint32_t>::max();

constexpr std::array<std::string_view, 3> type_names{"request", "response", "notification"};
constexpr unsigned ALL_TYPES = 7;

// The text before `end`, which goes from `text` with it; all of it where there is no `end`.
std::string_view take_until(std::string_view &text, std::string_view end) {
    const size_t at = text.find_first_of(end);
    const std::string_view taken = text.substr(0, at);
    text.remove_prefix(at == std::string_view::npos ? text.size() : at + 1);
    return taken;
}

std::string_view take_word(std::string_view &text) {
    constexpr std::string_view blanks = " \t\r";
    text.remove_prefix(std::min(text.find_first_not_of(blanks), text.size()));
    return take_until(text, blanks);
}

bool take_number(std::string_view &text, uint32_t &number) {
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    text.remove_prefix(static_cast<size_t>(end - text.data()));
    return error == std::errc();
}

// "any", or numbers and ranges with commas between them. `add` is told of each range.
template <typename Add>
bool read_ranges(std::string_view list, uint32_t lowest, uint32_t highest, Add add) {
    if (list == "any")
        return add(lowest, highest);
    do {
        const bool more = list.find(',') != std::string_view::npos;
        std::string_view item = take_until(list, ",");
        uint32_t first = 0;
        if (!take_number(item, first))
            return false;
        uint32_t last = first;
        if (item.starts_with('-')) {
            item.remove_prefix(1);
            if (!take_number(item, last))
                return false;
        }
        if (!item.empty() || first < lowest || last > highest || first > last ||
            (more && list.empty()) || !add(first, last))
            return false;
    } while (!list.empty());
    return true;
}

bool read_services(std::string_view list, std::bitset<256> &services) {
    return read_ranges(
        list, FIRST_SERVICE, LAST_SERVICE,
        [&](uint32_t first, uint32_t last) {
            for (uint32_t id = first; id <= last; ++id)
                services.set(id);
            return true;
        });
}

bool read_types(std::string_view list, unsigned &types) {
    if (list == "any") {
        types = ALL_TYPES;
        return true;
    }
    while (!list.empty()) {
        const auto *const found =
            std::find(type_names.begin(), type_names.end(), take_until(list, ","));
        if (found == type_names.end())
            return false;
        types |= 1U << (found - type_names.begin());
    }
    return types != 0;
}

bool add_rule(policy &read, const policy_rule &rule) {
    if (read.count == read.rules.size())
        return false;
    read.rules.at(read.count++) = rule;
    return true;
}

// "1001-1007,1009 request from any"
bool read_rules(policy &read, std::string_view text) {
    const std::string_view messages = take_word(text);
    policy_rule rule{messages == "other", 0, 0, 0, {}};
    if (!read_types(take_word(text), rule.types) || take_word(text) != "from" ||
        !read_services(take_word(text), rule.senders) || !take_word(text).empty())
        return false;
    return rule.other ? add_rule(read, rule)
                      : read_ranges(messages, 0, LAST_MESSAGE, [&](uint32_t first, uint32_t last) {
                            rule.first = first;
                            rule.last = last;
                            return add_rule(read, rule);
                        });
}

// False = malformed.
bool read_line(policy &read, uint8_t serv_id, std::string_view line) {
    line = take_until(line, "#");
    std::string_view rest = line;
    if (take_word(rest).empty())
        return true;
    const bool has_colon = line.find(':') != std::string_view::npos;
    std::string_view receivers = take_until(line, ":");
    const std::string_view list = take_word(receivers);
    std::bitset<256> services;
    const bool readable =
        has_colon && read_services(list, services) && take_word(receivers).empty();
    if (readable && !services.test(serv_id))
        return true;
    read.restricts = true;
    const size_t before = read.count;
    if (readable && read_rules(read, line))
        return true;
    read.count = before;
    return false;
}

void read_lines(policy &read, uint8_t serv_id, std::string_view text, log_target &log) {
    unsigned malformed = 0;
    for (unsigned number = 1; !text.empty(); ++number) {
        if (!read_line(read, serv_id, take_until(text, "\n")) && ++malformed <= TOLD_LINES) {
            log_line(log,
                     "mqutils: service %u: line %u of the policy cannot be read and allows "
                     "nothing",
                     serv_id, number);
        }
    }
    if (malformed > TOLD_LINES)
        log_line(log, "mqutils: service %u: %u more such lines", serv_id, malformed - TOLD_LINES);
}

// What is wrong with the file; null = nothing.
const char *reason_to_doubt(const struct stat &status) {
    if (!S_ISREG(status.st_mode))
        return "is no regular file";
    if ((status.st_mode & (S_IWGRP | S_IWOTH)) != 0)
        return "can be written by others than its owner";
    return static_cast<size_t>(status.st_size) > LONGEST_FILE ? "is longer than 64 KiB" : nullptr;
}

int read_file(policy &read, int file, uint8_t serv_id, log_target &log) {
    const std::unique_ptr<char[]> text(new (std::nothrow) char[LONGEST_FILE]);
    if (text == nullptr)
        return ENOMEM;
    size_t length = 0;
    ssize_t count = 0;
    while (length < LONGEST_FILE &&
           (count = ::read(file, text.get() + length, LONGEST_FILE - length)) != 0) {
        if (count < 0 && errno != EINTR)
            return errno;
        length += count < 0 ? 0 : static_cast<size_t>(count);
    }
    read_lines(read, serv_id, {text.get(), length}, log);
    return 0;
}

} // namespace

int policy_read(policy &read, const bus_directory &directory, uint8_t serv_id, log_target &log) {
    struct stat status {};
    if (fstatat(directory.descriptor, FILE_NAME, &status, AT_SYMLINK_NOFOLLOW) != 0)
        return errno == ENOENT ? 0 : errno;
    if (status.st_uid != directory.owner) {
        log_line(log, "mqutils: service %u: the policy is not the directory owner's and not obeyed",
                 serv_id);
        return 0;
    }
    const char *doubt = reason_to_doubt(status);
    if (doubt != nullptr) {
        log_line(log, "mqutils: service %u: the policy cannot be used: it %s", serv_id, doubt);
        return EBADMSG;
    }
    // The directory's owner may be replacing it: what is opened is such a file, too, or nothing.
    const ls_descriptor file(openat(directory.descriptor, FILE_NAME,
                                    O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    int error = file.fd < 0 || fstat(file.fd, &status) != 0 ? errno : 0;
    if (error == 0) {
        error = status.st_uid == directory.owner && reason_to_doubt(status) == nullptr
                    ? read_file(read, file.fd, serv_id, log)
                    : EBADMSG;
    }
    if (error != 0) {
        log_line(log, "mqutils: service %u: the policy cannot be read: %s", serv_id,
                 strerrordesc_np(error));
    }
    return error;
}

bool policy_allows(const policy &policy, uint32_t msg_id, uint8_t msg_type, uint8_t src_serv_id) {
    if (!policy.restricts)
        return true;
    const auto *const end = policy.rules.begin() + policy.count;
    const auto has_id = [msg_id](const policy_rule &rule) {
        return !rule.other && rule.first <= msg_id && msg_id <= rule.last;
    };
    const bool named = std::any_of(policy.rules.begin(), end, has_id);
    return msg_type < type_names.size() &&
           std::any_of(policy.rules.begin(), end, [&](const policy_rule &rule) {
               return (rule.other ? !named : has_id(rule)) && (rule.types >> msg_type & 1U) != 0 &&
                      rule.senders.test(src_serv_id);
           });
}

} // namespace mqutils
