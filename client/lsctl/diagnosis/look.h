// What can be seen of the terminal's location service from outside: facts, without a judgement.
//
// The files and processes are looked at first; the service is asked only when it is ready, and one
// question at a time, so that a look holds nobody up. The receiver is asked by pass-through. One
// thread; waits are the client's, ended by its time-out and by lsctl_signals.
#ifndef LSCTL_DIAGNOSIS_LOOK_H
#define LSCTL_DIAGNOSIS_LOOK_H

#include <optional>
#include <string>
#include <vector>

#include <sys/types.h>

#include "lsctl.h"
#include "lsctl_sentence.h"

namespace diagnosis {

// Where things are: the bus of MQUTILS_DIR; and what the settings file's place says of the rest,
// since a simulated terminal has its own /user and /dev.
struct places {
    std::string bus;
    std::string settings; // empty: another libdbhandler, which does not say
    std::string root;     // in front of /user and /dev; empty on a terminal
    std::string hal;      // configuration of the HAL
    std::string in_user(const char *name) const { return root + "/user/" + name; }
};
places find_places();

// Owner of the location service's socket, as far as this user may see.
struct process_facts {
    bool on_bus = false;  // somebody holds the socket
    bool may_look = true; // false: no right to enter the bus
    std::optional<pid_t> pid;
    std::optional<int64_t> started_utc; // seconds since the epoch
    std::optional<bool> ready;          // its start-up is over: it has its signal handlers
};
process_facts look_at_process(const places &where);

// Ids with a live owner: 1 to 31 and 64 to 255, and the number of tools.
struct bus_facts {
    std::vector<uint8_t> services;
    unsigned tools = 0;
    bool has(uint8_t id) const;
};
bus_facts look_at_bus(const places &where);

enum class settings_state : uint8_t {
    read,
    absent,      // defaults are in force
    no_database, // a file of another kind
    unreadable,  // not by this user, or damaged
};

// What the files say. Nothing is made and nothing is changed.
struct file_facts {
    settings_state settings = settings_state::absent;
    int32_t stored_power = 0; // these four with settings_state::read only
    int32_t stored_antenna = 0;
    bool history_on = false;
    uint32_t history_interval_s = 0;
    std::optional<int> board;                // none: unknown
    std::optional<bool> line_device;         // whether the serial device is there
    bool static_on = false;                  // the static location's switch
    bool static_place = false;               // and whether its place can be read
    double ta_wait_s = 15;                   // for an answer of the TA
    bool ring_there = false;                 // the history's file
    bool ring_header = true;                 // false: it is too short to have one
    std::optional<int64_t> ring_written_utc; // seconds since the epoch; none: it holds no line
};
file_facts look_at_files(const places &where);

// Whether anything came to the service while it waited in vain for the TA.
enum class ta_arrival : uint8_t { unknown, none, some };

// Runs `ask`, and watches meanwhile, in /proc, how often the service's receive thread wakes up.
ta_arrival watch_ta(std::optional<pid_t> pid, const std::function<void()> &ask);

struct receiver_facts {
    bool asked = false;
    location_result result = LOCATION_NO_REPLY;     // of the pass-through of PUBX 00
    lsctl_verdict verdict = lsctl_verdict::nothing; // with `answered`: of what came
    bool noise = false;                             // bytes outside sentences
    double took_s = 0;
    ta_arrival arrival = ta_arrival::unknown;
    std::optional<lsctl_navigation> navigation;
    std::optional<double> fix_age_s;      // by the receiver's own time
    std::optional<double> clock_offset_s; // the receiver's time less the system's
    std::optional<unsigned> in_view;
    unsigned told = 0;  // satellites whose strength was told: an answer has room for 8 to 12
    unsigned heard = 0; // of these, with a signal
};

struct facts {
    int64_t seen_utc = 0; // seconds since the epoch
    places where;
    bus_facts bus;
    process_facts process;
    file_facts files;
    location_result link = LOCATION_NO_DAEMON;  // of joining the bus
    location_result power = LOCATION_NO_DAEMON; // of the question for the power mode
    std::optional<uint32_t> power_mode;
    receiver_facts receiver;
};

// The whole look. `client` may be null: then it joins the bus itself.
facts look(const lsctl_options &options, location_client *client = nullptr);

// Bytes of a regular file, `limit` at most; its last ones where `from_end`. None: it cannot be
// read.
std::optional<std::string> read_file(const std::string &path, size_t limit, bool from_end = false);

// A value of the HAL's configuration, without the comment behind it; empty when it is not there.
std::string hal_value(const std::string &text, const std::string &group, const std::string &key);

} // namespace diagnosis

#endif
