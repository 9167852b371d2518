// liblocation_client: one sentence for each result.
#include "location_client.h"

#include <array>

namespace {

// In the order of location_result.
constexpr std::array<const char *, 21> TEXTS = {
    "the location service answered",
    "the location service answered that the request failed",
    "the location service answered that the receiver did not answer it in time",
    "the location service refuses all requests: this terminal has no GNSS antenna and no static "
    "location",
    "the receiver is switched off",
    "the receiver is on, but the location service did not answer this request in time",
    "the location service did not answer in time",
    "the bus directory does not exist",
    "the bus does not permit this user to do that: on a terminal its users are in the group "
    "terminal-bus, those of tools in terminal-tools, too",
    "another process already uses this service id",
    "all service ids for tools (32 to 63) are in use",
    "the location service is not running",
    "the location service does not take messages from its queue",
    "the bus failed",
    "the location service sent a reply of the wrong size or with an unknown status",
    "the argument is not valid",
    "the wait was cancelled",
    "there is not enough memory",
    "another process holds the lock of the bus directory",
    "the request is under way",
    "too many requests are started and not taken",
};
static_assert(TEXTS.size() == static_cast<size_t>(LOCATION_TOO_MANY) + 1);

} // namespace

const char *location_client_error_text(location_result result) noexcept {
    const auto index = static_cast<size_t>(result);
    return index < TEXTS.size() ? TEXTS[index] : "the result is not known";
}
