// lsctl --terminal. The places in the directory are simterm's.
#include "lsctl_terminal.h"

#include <cstdlib>
#include <filesystem>

std::string lsctl_terminal_problem(const std::string &directory) {
    std::error_code wrong;
    return std::filesystem::exists(directory + "/.simterm", wrong)
               ? std::string()
               : directory + " is no simulated terminal";
}

bool lsctl_terminal_use(const std::string &directory) {
    std::error_code wrong;
    std::string root = std::filesystem::absolute(directory, wrong).lexically_normal().string();
    while (root.size() > 1 && root.ends_with('/'))
        root.pop_back();
    return setenv("MQUTILS_DIR", (root + "/bus").c_str(), 1) == 0 &&
           setenv("DBHANDLER_FILE", (root + "/user/settings.db").c_str(), 1) == 0 &&
           setenv("ZUKHAL_CONF", (root + "/etc/terminal.conf").c_str(), 1) == 0 &&
           setenv("LOCATION_TERMINAL_ROOT", root.c_str(), 1) == 0;
}

std::string lsctl_terminal_root() {
    const char *root = secure_getenv("LOCATION_TERMINAL_ROOT");
    return root != nullptr ? root : "";
}
