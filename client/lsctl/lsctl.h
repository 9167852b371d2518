// lsctl: what its sub-commands share.
//
// One process runs one sub-command on its main thread; the signal thread of lsctl_signals.cpp only
// ends waits. Results go to stdout, sentences about failures to stderr. Exit status: below.
#ifndef LSCTL_H
#define LSCTL_H

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include <nlohmann/json.hpp>

#include "location_client.hpp"

namespace CLI {
class App;
}

using lsctl_json = nlohmann::ordered_json;

enum lsctl_exit : int {
    LSCTL_OK = 0,            // answered: success
    LSCTL_FAILED = 1,        // answered: failure
    LSCTL_USAGE = 2,         // wrong arguments; nothing was sent
    LSCTL_NO_ANSWER = 3,     // no answer, no service, no bus
    LSCTL_RESTART = 4,       // of status and doctor: a restart of the service mends it
    LSCTL_SIGNAL = 128,      // plus the signal that ended it
    LSCTL_CLOSED_PIPE = 141, // nobody reads the standard output any more
};

// Options that every sub-command has.
struct lsctl_options {
    bool json = false;
    bool stream = false;   // many objects: a failure's has a class, too
    double timeout_s = 20; // three receiver exchanges of one query, each slow, and some to spare
    uint32_t as = 0;       // service id; 0 = first free tool id
};

// Carries out one sub-command with the options it has parsed; returns the exit status.
using lsctl_runner = std::function<int(const lsctl_options &options)>;

// Makes a sub-command: adds its options to `app` and returns what carries it out. The options live
// as long as the runner, which must outlive the parsing.
using lsctl_maker = lsctl_runner (*)(CLI::App &app);

// The runner of a struct that holds the options of one sub-command, with add_options(app) and
// run(options).
template <class command>
lsctl_runner lsctl_make(CLI::App &app) {
    const auto made = std::make_shared<command>();
    made->add_options(app);
    return [made](const lsctl_options &options) { return made->run(options); };
}

// --- lsctl_app.cpp ---

// The whole command: parses, runs one sub-command, returns the exit status.
int lsctl_run(int argc, const char *const *argv) noexcept;

// --- lsctl_link.cpp: one connection for the time of a sub-command ---

struct lsctl_link {
    location_client *client = nullptr;
    location_result result = LOCATION_BAD_ARGUMENT; // of the opening
    explicit lsctl_link(uint32_t serv_id);
    ~lsctl_link();
    lsctl_link(const lsctl_link &) = delete;
    lsctl_link &operator=(const lsctl_link &) = delete;
};

std::chrono::milliseconds lsctl_timeout(const lsctl_options &options);

// --- lsctl_output.cpp ---

// The rule for a standard output that takes no more, for every command: it ends, and
// lsctl_output_end turns its exit status into LSCTL_CLOSED_PIPE, without a word, or says why and
// turns it into LSCTL_FAILED. lsctl_output_failed notes an errno of whoever writes to descriptor 1
// by another way.
void lsctl_output_start();
void lsctl_output_failed(int error);
int lsctl_output_end(int status);

// Line on stdout; in JSON one object, indented only on a terminal. False: stdout takes no more.
bool lsctl_print(const std::string &lines);
bool lsctl_print_json(const lsctl_json &object);
// An object of a stream: its kind in front, and on a line of its own on a terminal too.
bool lsctl_print_object(const char *kind, const lsctl_json &members);

// "lsctl: ..." on stderr.
void lsctl_complain(const std::string &sentence);

// Tells the user what went wrong, with what to do about it, also as a JSON object on stdout when
// that is asked for; returns the exit status that goes with it. `result` is not `answered`.
// With a client it can name the receiver's power mode.
int lsctl_fail(const lsctl_options &options, location_result result,
               const location_client *client = nullptr);
// The same with a sentence of the command's own.
int lsctl_fail(const lsctl_options &options, location_result result, const std::string &sentence);
// The same for what is no result of the library: `error` is its stable name in JSON.
int lsctl_fail_as(const lsctl_options &options, const char *error, int exit_status,
                  const std::string &sentence);
// A failure with an answer to show: its lines on stdout, or its JSON object with `error` (a name of
// docs/json.md) and the sentence in front. Returns LSCTL_FAILED.
int lsctl_fail_with(const lsctl_options &options, const char *error, const std::string &sentence,
                    const lsctl_json &object, const std::string &lines);
// The sentence and the exit status alone.
std::string lsctl_sentence(const lsctl_options &options, location_result result,
                           const location_client *client = nullptr);
int lsctl_exit_of(location_result result);
// Stable name of a result for JSON.
const char *lsctl_result_name(location_result result);

// Prints the JSON object or the plain lines, as asked, and returns the exit status.
int lsctl_show(const lsctl_options &options, const lsctl_json &object, const std::string &lines);

// --- lsctl_signals.cpp: SIGINT, SIGTERM, SIGHUP ---

// Blocks the signals and starts the thread that waits for them. Call before any other thread is.
bool lsctl_signals_start();
void lsctl_signals_stop();
// The client whose waits a signal ends; null before that client is closed.
void lsctl_signals_set_client(location_client *client);
// Number of the last signal, 0 = none.
int lsctl_signals_last();
// Readable from the first signal on, for a poll; nobody reads it.
int lsctl_signals_descriptor();

// --- the sub-commands ---

lsctl_runner lsctl_position(CLI::App &app);
lsctl_runner lsctl_time(CLI::App &app);
lsctl_runner lsctl_satellites(CLI::App &app);
lsctl_runner lsctl_speed(CLI::App &app);
lsctl_runner lsctl_power(CLI::App &app);
lsctl_runner lsctl_watch(CLI::App &app);
lsctl_runner lsctl_stream(CLI::App &app);
lsctl_runner lsctl_monitor(CLI::App &app);
lsctl_runner lsctl_nmea(CLI::App &app);
lsctl_runner lsctl_ubx(CLI::App &app);
lsctl_runner lsctl_lpp(CLI::App &app);
lsctl_runner lsctl_history(CLI::App &app);
lsctl_runner lsctl_settings(CLI::App &app);
lsctl_runner lsctl_static(CLI::App &app);
lsctl_runner lsctl_status(CLI::App &app);
lsctl_runner lsctl_wait(CLI::App &app);
lsctl_runner lsctl_doctor(CLI::App &app);

#endif
