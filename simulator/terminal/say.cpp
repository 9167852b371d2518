#include "say.h"

#include "loop.h"

#include <array>
#include <cstdarg>
#include <cstdio>
#include <deque>
#include <fstream>

namespace sim {
namespace {

// Set once at start-up.
bool to_stderr = false;
bool verbose = false;
const double started = loop_now();

void line_out(FILE *file, const char *head, const char *format, va_list arguments)
    __attribute__((format(printf, 3, 0)));

void line_out(FILE *file, const char *head, const char *format, va_list arguments) {
    std::fputs(head, file);
    std::vfprintf(file, format, arguments);
    std::fputc('\n', file);
    std::fflush(file);
}

std::string stamp() {
    std::array<char, 32> text;
    std::snprintf(text.data(), text.size(), "[%9.3f] ", loop_now() - started);
    return text.data();
}

FILE *stream() {
    return to_stderr ? stderr : stdout;
}

} // namespace

void say_to_stderr(bool on) {
    to_stderr = on;
}
void say_verbose(bool on) {
    verbose = on;
}
void say_plain(const char *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    line_out(stream(), "", format, arguments);
    va_end(arguments);
}

void say_event(const char *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    line_out(stream(), stamp().c_str(), format, arguments);
    va_end(arguments);
}

void say_detail(const char *format, ...) {
    if (!verbose)
        return;
    va_list arguments;
    va_start(arguments, format);
    line_out(stream(), stamp().c_str(), format, arguments);
    va_end(arguments);
}

void say_error(const char *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    line_out(stderr, "simterm: ", format, arguments);
    va_end(arguments);
}

std::string last_lines(const std::string &path, size_t count, const std::string &indent) {
    std::ifstream file(path);
    std::deque<std::string> lines;
    for (std::string line; std::getline(file, line);) {
        lines.push_back(line);
        if (lines.size() > count)
            lines.pop_front();
    }
    std::string text;
    for (const std::string &line : lines)
        text += indent + line + "\n";
    return text;
}

} // namespace sim
