#include "environment.h"

#include "ls_descriptor.h"
#include "ls_file.h"

#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <unistd.h>
#include <utility>

namespace sim {
namespace {

std::array<std::pair<const char *, std::string>, 4> variables(const terminal_paths &paths) {
    return {{{"MQUTILS_DIR", paths.bus},
             {"DBHANDLER_FILE", paths.settings},
             {"ZUKHAL_CONF", paths.hal},
             {"LOCATION_TERMINAL_ROOT", paths.root}}};
}

// Nothing but a quote has a meaning between single quotes.
std::string quoted(const std::string &text) {
    std::string result = "'";
    for (const char c : text)
        if (c == '\'')
            result += "'\\''";
        else
            result += c;
    return result + "'";
}

} // namespace

bool environment_set(const terminal_paths &paths) {
    for (const auto &[name, value] : variables(paths))
        if (setenv(name, value.c_str(), 1) != 0)
            return false;
    return true;
}

std::string environment_text(const terminal_paths &paths) {
    std::string text;
    for (const auto &[name, value] : variables(paths))
        text += std::string("export ") + name + "=" + quoted(value) + "\n";
    return text;
}

bool environment_write(const terminal_paths &paths, std::string &error) {
    const std::string path = paths.root + "/env";
    const std::string text =
        "# Environment of this simulated terminal, to be sourced by a shell.\n" +
        environment_text(paths);
    const ls_descriptor file(ls_open_regular(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC));
    if (file.fd >= 0 &&
        write(file.fd, text.data(), text.size()) == static_cast<ssize_t>(text.size()))
        return true;
    error = "writing " + path + ": " + std::strerror(errno);
    return false;
}

} // namespace sim
