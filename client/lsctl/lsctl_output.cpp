// lsctl: what goes to stdout and stderr, and the exit status that goes with it.
#include "lsctl.h"

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include <fcntl.h>
#include <unistd.h>

#include "lsctl_bus.h"
#include "lsctl_text.h"

namespace {

// Why the standard output took no more, the first time; 0 = it took all. Main thread.
int output_error = 0;

struct outcome {
    const char *name; // in JSON
    int exit_status;
    const char *advice; // behind the library's sentence; may be empty
};

// In the order of location_result.
constexpr std::array<outcome, 19> OUTCOMES = {{
    {"answered", LSCTL_OK, ""},
    {"failed", LSCTL_FAILED, ""},
    {"receiver_timeout", LSCTL_FAILED, ""},
    {"gate_closed", LSCTL_FAILED, ""},
    {"receiver_off", LSCTL_NO_ANSWER, ""},
    {"receiver_busy", LSCTL_NO_ANSWER, "; the receiver is slow, or its stored power mode is off: "},
    {"no_reply", LSCTL_NO_ANSWER, ""},
    {"no_bus", LSCTL_NO_ANSWER, "; is the terminal's bus set up? (MQUTILS_DIR names another one)"},
    {"bus_denied", LSCTL_NO_ANSWER, ""},
    {"id_taken", LSCTL_NO_ANSWER, "; choose another one with --as"},
    {"ids_exhausted", LSCTL_NO_ANSWER, "; choose another one with --as"},
    {"no_daemon", LSCTL_NO_ANSWER, ""},
    {"bus_full", LSCTL_NO_ANSWER, ""},
    {"bus_error", LSCTL_NO_ANSWER, ""},
    {"bad_reply", LSCTL_FAILED, ""},
    {"bad_argument", LSCTL_USAGE, ""},
    {"cancelled", LSCTL_NO_ANSWER, ""},
    {"no_memory", LSCTL_NO_ANSWER, ""},
    {"bus_locked", LSCTL_NO_ANSWER, "; choose another id with --as"},
}};
static_assert(OUTCOMES.size() == static_cast<size_t>(LOCATION_BUS_LOCKED) + 1);

const outcome &outcome_of(location_result result) {
    return OUTCOMES.at(static_cast<size_t>(result));
}

} // namespace

void lsctl_output_start() {
    output_error = 0;
    // Where a standard stream is closed the next descriptor opened would take its place, and the
    // output would go there. These take and give nothing.
    for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO})
        if (fcntl(fd, F_GETFD) < 0)
            open("/dev/null", (fd == STDIN_FILENO ? O_WRONLY : O_RDONLY) | O_CLOEXEC);
    std::setvbuf(stdout, nullptr, _IOLBF, BUFSIZ);
    std::clearerr(stdout);
}

void lsctl_output_failed(int error) {
    if (output_error == 0)
        output_error = error != 0 ? error : EIO;
}

int lsctl_output_end(int status) {
    if (output_error == 0)
        return status;
    if (output_error == EPIPE)
        return LSCTL_CLOSED_PIPE;
    lsctl_complain(std::string("cannot write to the standard output: ") +
                   std::strerror(output_error));
    return LSCTL_FAILED;
}

bool lsctl_print(const std::string &lines) {
    // A line-buffered fwrite reports its bytes as written even when the write failed: only the
    // stream's error mark tells.
    errno = 0;
    std::fwrite(lines.data(), 1, lines.size(), stdout);
    if (std::ferror(stdout) == 0 && std::fflush(stdout) == 0)
        return true;
    lsctl_output_failed(errno);
    return false;
}

bool lsctl_print_json(const lsctl_json &object) {
    // The receiver's bytes need not be valid text.
    const int indent = isatty(STDOUT_FILENO) == 1 ? 2 : -1;
    return lsctl_print(object.dump(indent, ' ', false, lsctl_json::error_handler_t::replace) +
                       "\n");
}

bool lsctl_print_object(const char *kind, const lsctl_json &members) {
    lsctl_json object = {{"class", kind}};
    object.update(members);
    return lsctl_print(object.dump(-1, ' ', false, lsctl_json::error_handler_t::replace) + "\n");
}

void lsctl_complain(const std::string &sentence) {
    std::fprintf(stderr, "lsctl: %s\n", sentence.c_str());
}

const char *lsctl_result_name(location_result result) {
    return outcome_of(result).name;
}

int lsctl_exit_of(location_result result) {
    if (result == LOCATION_CANCELLED && lsctl_signals_last() != 0)
        return LSCTL_SIGNAL + lsctl_signals_last();
    return outcome_of(result).exit_status;
}

std::string lsctl_sentence(const lsctl_options &options, location_result result,
                           const location_client *client) {
    std::string sentence = location_client_error_text(result);
    switch (result) {
    case LOCATION_NO_REPLY:
        sentence += lsctl_format(" (%g s)", options.timeout_s);
        if (options.as == LS_SERV_SAL || options.as == LS_SERV_VOIP) {
            sentence += lsctl_format("; the receiver may be switched off, which lsctl does not ask "
                                     "as service %u",
                                     options.as);
        }
        break;
    case LOCATION_RECEIVER_OFF:
        if (client != nullptr)
            sentence += lsctl_format(" (power mode %u)", location_client_power_seen(client));
        break;
    case LOCATION_RECEIVER_BUSY:
        sentence += lsctl_format(" (%g s)", options.timeout_s);
        break;
    case LOCATION_ID_TAKEN:
        sentence += lsctl_format(" (%u)", options.as);
        break;
    default:
        break;
    }
    sentence += outcome_of(result).advice;
    if (result == LOCATION_RECEIVER_OFF)
        sentence += "; " + lsctl_power_advice("on", {LS_SERV_WS, LS_SERV_CLIENT_9, LS_SERV_VOIP});
    if (result == LOCATION_RECEIVER_BUSY)
        sentence += lsctl_power_advice("on", {LS_SERV_WS, LS_SERV_CLIENT_9, LS_SERV_VOIP});
    if (result == LOCATION_BUS_DENIED)
        sentence += lsctl_group_advice();
    return sentence;
}

int lsctl_fail(const lsctl_options &options, location_result result,
               const location_client *client) {
    return lsctl_fail(options, result, lsctl_sentence(options, result, client));
}

int lsctl_fail(const lsctl_options &options, location_result result, const std::string &sentence) {
    if (result == LOCATION_CANCELLED && lsctl_signals_last() != 0)
        return lsctl_exit_of(result); // whoever sent the signal knows
    return lsctl_fail_as(options, lsctl_result_name(result), lsctl_exit_of(result), sentence);
}

int lsctl_fail_as(const lsctl_options &options, const char *error, int exit_status,
                  const std::string &sentence) {
    const lsctl_json failure = {{"error", error}, {"text", sentence}};
    if (options.json && options.stream)
        lsctl_print_object("error", failure);
    else if (options.json)
        lsctl_print_json(failure);
    lsctl_complain(sentence);
    return exit_status;
}

int lsctl_fail_with(const lsctl_options &options, const char *error, const std::string &sentence,
                    const lsctl_json &object, const std::string &lines) {
    lsctl_json failure = {{"error", error}, {"text", sentence}};
    failure.update(object);
    lsctl_show(options, failure, lines);
    lsctl_complain(sentence);
    return LSCTL_FAILED;
}

int lsctl_show(const lsctl_options &options, const lsctl_json &object, const std::string &lines) {
    const bool printed = options.json ? lsctl_print_json(object) : lsctl_print(lines);
    return printed ? LSCTL_OK : LSCTL_FAILED;
}
