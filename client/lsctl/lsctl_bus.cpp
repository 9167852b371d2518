// lsctl: the bus as its directory shows it. See docs/bus.md.
#include "lsctl_bus.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <vector>

#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <strings.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "ls_descriptor.h"
#include "ls_messages.h"
#include "lsctl_text.h"

namespace {

namespace fs = std::filesystem;

struct service {
    uint32_t id;
    const char *name;
    const char *user;
};
constexpr std::array<service, 5> SERVICES = {{{LS_SERV_SAL, "SAL", "terminal-sal"},
                                              {LS_SERV_VOIP, "VoIP", "terminal-voip"},
                                              {LS_SERV_WS, "WS", "terminal-ws"},
                                              {LS_SERV_CLIENT_9, "9", "terminal-client9"},
                                              {LS_SERV_TA, "TA", "terminal-ta"}}};

fs::path bus_directory() {
    const char *named = secure_getenv("MQUTILS_DIR");
    return named != nullptr && *named != '\0' ? named : "/run/terminal-bus";
}

// A socket is left behind by a killed process: only a live one accepts. By way of a descriptor,
// since a path may be longer than an address.
int connect_error(const fs::path &directory, const std::string &name) {
    const ls_descriptor there(open(directory.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    const ls_descriptor bus(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (there.fd < 0 || bus.fd < 0)
        return errno;
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::snprintf(address.sun_path, sizeof address.sun_path, "/proc/self/fd/%d/%.32s", there.fd,
                  name.c_str());
    return connect(bus.fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0
               ? 0
               : errno;
}

bool is_member_of(gid_t group) {
    if (group == getegid())
        return true;
    const int count = getgroups(0, nullptr);
    std::vector<gid_t> groups(static_cast<size_t>(std::max(count, 0)));
    return getgroups(count, groups.data()) >= 0 &&
           std::find(groups.begin(), groups.end(), group) != groups.end();
}

} // namespace

lsctl_place lsctl_look_at_place(uint32_t serv_id) {
    const fs::path bus = bus_directory();
    const std::string name = std::to_string(serv_id);
    const int error = connect_error(bus, name);
    if (error == 0 || error == EAGAIN)
        return lsctl_place::taken;
    if (error != ENOENT && error != ECONNREFUSED)
        return lsctl_place::closed;
    // A link leads to the directory of the service's own user; without one the bus's own counts.
    std::error_code none;
    const fs::path link = fs::read_symlink(bus / name, none);
    const fs::path place = none ? bus : (bus / link).parent_path();
    return faccessat(AT_FDCWD, place.c_str(), W_OK | X_OK, AT_EACCESS) == 0 ? lsctl_place::open
                                                                            : lsctl_place::closed;
}

std::string lsctl_service_name(uint32_t serv_id) {
    for (const service &known : SERVICES)
        if (known.id == serv_id)
            return known.name;
    return std::to_string(serv_id);
}

uint32_t lsctl_service_id(const std::string &name) {
    for (const service &known : SERVICES)
        if (strcasecmp(known.name, name.c_str()) == 0)
            return known.id;
    return 0;
}

std::string lsctl_power_advice(const char *mode, std::initializer_list<uint32_t> may) {
    std::string names;
    std::string users;
    for (const uint32_t id : may) {
        const lsctl_place place = lsctl_look_at_place(id);
        const std::string name = lsctl_service_name(id);
        if (place == lsctl_place::open)
            return lsctl_format("lsctl power %s --as %s switches it %s", mode, name.c_str(), mode);
        names +=
            (names.empty() ? "" : ", ") + name + (place == lsctl_place::taken ? " (runs)" : "");
        for (const service &known : SERVICES)
            if (known.id == id && place == lsctl_place::closed)
                users += (users.empty() ? "" : ", ") + std::string(known.user);
    }
    return lsctl_format("services %s may switch it %s", names.c_str(), mode) +
           (users.empty()
                ? ", and lsctl --as none of them while they run"
                : ", and lsctl --as one that does not run as root or its user (" + users + ")");
}

std::string lsctl_group_advice() {
    std::string missing;
    for (const char *name : {"terminal-bus", "terminal-tools"}) {
        const group *found = getgrnam(name);
        if (found != nullptr && !is_member_of(found->gr_gid))
            missing += (missing.empty() ? "" : ",") + std::string(name);
    }
    const passwd *user = getpwuid(geteuid());
    if (missing.empty())
        return "";
    return "; as root: usermod -aG " + missing + " " + (user != nullptr ? user->pw_name : "USER") +
           ", then log in again";
}
