#include "gpio_tree.h"

#include "ls_descriptor.h"

#include <array>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <optional>
#include <sys/inotify.h>
#include <unistd.h>
#include <utility>

namespace sim {
namespace {

std::string line_name(int line) {
    return "gpio" + std::to_string(line);
}

std::string line_directory(const gpio_tree &tree, int line) {
    return tree.root + "/" + line_name(line);
}

std::string read_file(const std::string &path) {
    const ls_descriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    std::array<char, 64> text;
    const ssize_t count = read(file.fd, text.data(), text.size());
    return {text.data(), count > 0 ? static_cast<size_t>(count) : 0};
}

std::string_view without_line_end(std::string_view text) {
    while (!text.empty() && (text.back() == '\n' || text.back() == ' '))
        text.remove_suffix(1);
    return text;
}

// In place: whoever has the file open keeps the file that counts.
bool write_file(const std::string &path, std::string_view text) {
    const ls_descriptor file(open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
    return file.fd >= 0 &&
           write(file.fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
}

std::optional<int> line_number(std::string_view text) {
    int number = 0;
    const auto [end, wrong] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (wrong != std::errc{} || end != text.data() + text.size() || number < 0 ||
        number >= GPIO_LINES)
        return std::nullopt;
    return number;
}

const char *direction_text(const gpio_line &line) {
    return line.out ? "out\n" : "in\n";
}
const char *value_text(const gpio_line &line) {
    return line.level ? "1\n" : "0\n";
}

void unexport_line(gpio_tree &tree, int line) {
    tree.lines[line].exported = false;
    for (auto watch = tree.watches.begin(); watch != tree.watches.end(); ++watch) {
        if (watch->second == line) {
            inotify_rm_watch(tree.notify, watch->first);
            tree.watches.erase(watch);
            break;
        }
    }
    std::error_code ignored;
    std::filesystem::remove_all(line_directory(tree, line), ignored);
}

std::vector<int> exported_lines(const gpio_tree &tree) {
    std::vector<int> exported;
    for (const auto &[line, state] : tree.lines)
        if (state.exported)
            exported.push_back(line);
    return exported;
}

void refuse(std::vector<std::string> &events, const std::string &what, std::string_view content) {
    events.push_back(what + " \"" + std::string(without_line_end(content)) + "\" refused");
}

void take_export(gpio_tree &tree, std::vector<std::string> &events) {
    const std::string path = tree.root + "/export";
    const std::string content = read_file(path);
    if (content.empty())
        return; // emptied below
    write_file(path, "");
    const std::optional<int> line = line_number(without_line_end(content));
    if (!line.has_value() || tree.lines[*line].exported || !gpio_tree_export(tree, *line)) {
        refuse(events, "gpio export of", content);
        return;
    }
    events.push_back(line_name(*line) + " exported");
}

void take_unexport(gpio_tree &tree, std::vector<std::string> &events) {
    const std::string path = tree.root + "/unexport";
    const std::string content = read_file(path);
    if (content.empty())
        return;
    write_file(path, "");
    const std::vector<int> lines = gpio_lines_meant(content, exported_lines(tree));
    if (lines.empty())
        refuse(events, "gpio unexport of", content);
    for (const int line : lines) {
        unexport_line(tree, line);
        events.push_back(line_name(line) + " unexported");
    }
}

// Only the beginning counts: "in" written over "out" leaves "int".
void take_direction(gpio_tree &tree, int number, std::vector<std::string> &events) {
    const std::string path = line_directory(tree, number) + "/direction";
    const std::string content = read_file(path);
    if (content.empty())
        return; // truncated, the text is still to come
    gpio_line &line = tree.lines[number];
    const bool high = content.starts_with("high");
    const bool low = content.starts_with("low");
    const bool out = content.starts_with("out") || high || low;
    if (!out && !content.starts_with("in")) {
        refuse(events, line_name(number) + " direction", content);
    } else if (out != line.out || high || low) {
        line.out = out;
        events.push_back(line_name(number) + " direction " + (out ? "out" : "in"));
        if (high || low) {
            line.level = high;
            write_file(line_directory(tree, number) + "/value", value_text(line));
        }
    }
    if (content != direction_text(line))
        write_file(path, direction_text(line));
}

void take_value(gpio_tree &tree, int number, std::vector<std::string> &events) {
    const std::string path = line_directory(tree, number) + "/value";
    const std::string content = read_file(path);
    if (content.empty())
        return;
    gpio_line &line = tree.lines[number];
    const bool digit = content.front() >= '0' && content.front() <= '9';
    const bool level = digit && content.front() != '0';
    if (!digit) {
        refuse(events, line_name(number) + " value", content);
    } else if (!line.out && level != line.level) {
        refuse(events, line_name(number) + " is an input: value", content);
    } else if (level != line.level) {
        line.level = level;
        events.push_back(line_name(number) + " = " + (level ? "1" : "0"));
    }
    if (content != value_text(line))
        write_file(path, value_text(line));
}

} // namespace

std::vector<int> gpio_lines_meant(std::string_view content, const std::vector<int> &exported) {
    content = without_line_end(content);
    for (const int line : exported)
        if (std::to_string(line) == content)
            return {line};
    for (const int second : exported) {
        const std::string over = std::to_string(second);
        for (const int first : exported) {
            const std::string under = std::to_string(first);
            if (first != second && under.size() > over.size() &&
                over + under.substr(over.size()) == content)
                return {first, second};
        }
    }
    return {};
}

bool gpio_tree_open(gpio_tree &tree, const std::string &root, std::string &error) {
    gpio_tree_close(tree);
    tree.root = root;
    std::error_code wrong;
    std::filesystem::remove_all(root, wrong);
    std::filesystem::create_directories(root, wrong);
    if (wrong || !write_file(root + "/export", "") || !write_file(root + "/unexport", "")) {
        error = "creating " + root + ": " + (wrong ? wrong.message() : std::strerror(errno));
        return false;
    }
    tree.notify = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    tree.root_watch = inotify_add_watch(tree.notify, root.c_str(), IN_CLOSE_WRITE);
    if (tree.notify < 0 || tree.root_watch < 0) {
        error = "watching " + root + ": " + std::strerror(errno);
        gpio_tree_close(tree);
        return false;
    }
    return true;
}

void gpio_tree_close(gpio_tree &tree) {
    ls_close(tree.notify);
    tree = gpio_tree{};
}

bool gpio_tree_export(gpio_tree &tree, int line) {
    if (line < 0 || line >= GPIO_LINES)
        return false;
    gpio_line &state = tree.lines[line];
    if (state.exported)
        return true;
    // Built beside the tree and moved in: gpioN appears with all its files.
    const std::string fresh = tree.root + "/.new";
    std::error_code wrong;
    std::filesystem::remove_all(fresh, wrong);
    std::filesystem::create_directory(fresh, wrong);
    if (wrong || !write_file(fresh + "/direction", direction_text(state)) ||
        !write_file(fresh + "/value", value_text(state)))
        return false;
    const int watch = inotify_add_watch(tree.notify, fresh.c_str(), IN_CLOSE_WRITE);
    if (watch < 0)
        return false;
    std::filesystem::rename(fresh, line_directory(tree, line), wrong);
    if (wrong) {
        inotify_rm_watch(tree.notify, watch);
        return false;
    }
    tree.watches[watch] = line;
    state.exported = true;
    return true;
}

std::vector<std::string> gpio_tree_step(gpio_tree &tree) {
    bool exporting = false;
    bool unexporting = false;
    std::vector<std::pair<int, std::string>> written; // line and file, in the order of the writes
    alignas(inotify_event) std::array<char, 4096> buffer;
    ssize_t count = 0;
    while (tree.notify >= 0 && (count = read(tree.notify, buffer.data(), buffer.size())) > 0) {
        for (size_t at = 0; at < static_cast<size_t>(count);) {
            inotify_event event;
            std::memcpy(&event, buffer.data() + at, sizeof event);
            const std::string name =
                event.len == 0 ? std::string() : std::string(buffer.data() + at + sizeof event);
            at += sizeof event + event.len;
            if (event.wd == tree.root_watch) {
                exporting = exporting || name == "export";
                unexporting = unexporting || name == "unexport";
            } else if (const auto watch = tree.watches.find(event.wd);
                       watch != tree.watches.end()) {
                written.emplace_back(watch->second, name);
            }
        }
    }
    std::vector<std::string> events;
    for (const auto &[line, name] : written)
        if (name == "direction")
            take_direction(tree, line, events);
        else if (name == "value")
            take_value(tree, line, events);
    if (unexporting)
        take_unexport(tree, events);
    if (exporting)
        take_export(tree, events);
    return events;
}

bool gpio_tree_level(const gpio_tree &tree, int line) {
    const auto found = tree.lines.find(line);
    return found != tree.lines.end() && found->second.level;
}

} // namespace sim
