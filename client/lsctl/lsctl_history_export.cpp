// lsctl history: the export of the service.
#include "lsctl_history_export.h"

#include <cerrno>

#include <sys/stat.h>

#include "dbhandler_admin.h"
#include "lsctl_history_file.h"
#include "lsctl_settings.h"
#include "lsctl_text.h"

namespace {

constexpr off_t RING_HEADER_SIZE = 8;
constexpr const char *RING = "/user/location/location_history";

// A failure with what is told about it.
struct load_failure {
    const char *error = "failed";
    int exit_status = LSCTL_OK; // none
    std::string sentence;
};

load_failure failed_with(const lsctl_options &options, location_result result,
                         const location_client *client) {
    return {lsctl_result_name(result), lsctl_exit_of(result),
            lsctl_sentence(options, result, client)};
}

load_failure have_exported(const lsctl_options &options, const history_source &source,
                           std::string *path, bool *incomplete) {
    if (!source.input.empty()) {
        *path = source.input;
        return {};
    }
    const lsctl_link link(options.as);
    if (link.result != LOCATION_ANSWERED)
        return failed_with(options, link.result, nullptr);
    ls_history_path_reply reply{};
    const location_result result =
        location_client_get_history_path(link.client, lsctl_timeout(options), &reply);
    *incomplete = result == LOCATION_FAILED && reply.status == 255;
    if (result == LOCATION_FAILED && !*incomplete) {
        return {"failed", LSCTL_FAILED,
                "the location service could not export its history: " +
                    history_why_nothing(source)};
    }
    if (result != LOCATION_ANSWERED && !*incomplete)
        return failed_with(options, result, link.client);
    *path = source.root + reply.path;
    return {};
}

load_failure read_export(const lsctl_options &options, const history_source &source,
                         const std::string &path, std::string *text) {
    const history_error error = history_read(
        path, lsctl_timeout(options), [] { return lsctl_signals_last() != 0; }, text);
    if (error.none())
        return {};
    const bool denied = error.code == EACCES || error.code == EPERM;
    const char *remedy = denied ? "; root may read it"
                         : source.root.empty() && source.input.empty()
                             ? "; for a simulated terminal give --terminal DIR"
                             : "";
    return {denied ? "permission_denied" : "failed", LSCTL_FAILED,
            "the exported history cannot be read: " + error.text + remedy};
}

} // namespace

int history_load(const lsctl_options &options, const history_source &source, std::string *text,
                 bool *incomplete, bool quiet) {
    std::string path;
    *incomplete = false;
    load_failure why = have_exported(options, source, &path, incomplete);
    if (why.exit_status == LSCTL_OK)
        why = read_export(options, source, path, text);
    if (why.exit_status != LSCTL_OK && lsctl_signals_last() != 0)
        return lsctl_exit_of(LOCATION_CANCELLED); // whoever sent the signal knows
    if (why.exit_status != LSCTL_OK && !quiet)
        lsctl_fail_as(options, why.error, why.exit_status, why.sentence);
    return why.exit_status;
}

std::string history_why_nothing(const history_source &source) {
    db_settings stored{};
    const bool known = lsctl_look_at_settings(&stored);
    struct stat ring = {};
    const std::string path = source.root + RING;
    const bool seen = stat(path.c_str(), &ring) == 0;
    if (known && stored.history.status != 1)
        return "the history is off: lsctl settings --history on switches it on";
    if ((seen && ring.st_size < RING_HEADER_SIZE) || (!seen && errno == ENOENT))
        return path + " has no header and takes no lines: restart the location service, whose unit "
                      "makes one (without that unit: while the history is off)";
    if (known && stored.gps_power_on_status != GPS_POWER_ON)
        return "the history is on, but the receiver is stored as off";
    if (!known)
        return "the history may be off, its file damaged or its disk full; the service's log says "
               "which";
    return lsctl_format("the history is on, every %u s: there has been no fix yet, or its file is "
                        "damaged or its disk full; the service's log says which",
                        stored.history.interval);
}

uint32_t history_interval_s() {
    db_settings stored{};
    return lsctl_look_at_settings(&stored) ? stored.history.interval : 0;
}
