// lsctl stream: the main thread's loop. It serves stdout or the readers while stream_asker's thread
// asks; neither waits for the other.
#include "stream_loop.h"

#include <algorithm>
#include <cerrno>
#include <csignal>

#include <unistd.h>

#include "lsctl_text.h"
#include "stream_asker.h"
#include "stream_formats.h"
#include "stream_server.h"

namespace {

using std::chrono::milliseconds;

// Without an answer meanwhile, what holds is reported again: programs give a receiver up that says
// nothing for some seconds, and gpsd's clients are promised a report every 2 s.
constexpr milliseconds LONGEST_SILENCE{1800};
// In the JSON form a position is reported when it comes, and that there is none when it is late.
constexpr milliseconds LONGEST_JSON_SILENCE = STREAM_POSITION_LIFE;
// An answer to POLL says what is known when the service has not answered by then.
constexpr milliseconds POLL_PATIENCE{1500};
// Who has polled is taken to poll again: so long the other questions go on, a turn of all of them.
constexpr milliseconds POLL_KEEPS_ASKING{8000};
// A position that a POLL takes without asking anew.
constexpr milliseconds POLL_TAKES{2500};

constexpr int BROKEN_PIPE = LSCTL_SIGNAL + SIGPIPE;

// One run of the command; the main thread's.
struct stream_run {
    const lsctl_options &options;
    const stream_form form;
    stream_asker asker;
    std::optional<stream_server> server; // none: stdout
    const std::string activated;         // when this began
    stream_state state{};
    stream_clock::time_point reported{};              // the last position
    std::optional<stream_clock::time_point> polled{}; // the last POLL
    bool asking = false;
    bool showed_satellites = false;           // the last SKY had some
    location_result told = LOCATION_ANSWERED; // trouble that was already told
    int status = -1;                          // -1 = goes on
};

std::string utc_now() {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    tm parts{};
    gmtime_r(&now.tv_sec, &parts);
    return lsctl_format("%04d-%02d-%02dT%02d:%02d:%02d.%03ldZ", parts.tm_year + 1900,
                        parts.tm_mon + 1, parts.tm_mday, parts.tm_hour, parts.tm_min, parts.tm_sec,
                        now.tv_nsec / 1000000);
}

milliseconds longest_silence(const stream_run &run) {
    return run.form == stream_form::json ? LONGEST_JSON_SILENCE : LONGEST_SILENCE;
}

// Whether anybody is there to hear an answer.
bool is_listened_to(const stream_run &run) {
    if (!run.server)
        return true;
    if (run.form != stream_form::gpsd)
        return !run.server->peers.empty();
    return run.polled || std::any_of(run.server->peers.begin(), run.server->peers.end(),
                                     [](const stream_peer &peer) { return peer.session.enabled; });
}

// Nothing is asked while nobody listens.
void update_asking(stream_run &run, stream_clock::time_point now) {
    if (run.polled && now - *run.polled >= POLL_KEEPS_ASKING)
        run.polled.reset();
    const bool listened_to = is_listened_to(run);
    if (listened_to == run.asking)
        return;
    run.asking = listened_to;
    run.reported = now;
    run.asker.want(listened_to);
}

void print(stream_run &run, const std::string &lines) {
    // What a slow reader has no room for is left out: the next position is the better one.
    pollfd out = {STDOUT_FILENO, POLLOUT, 0};
    if (poll(&out, 1, 0) == 0)
        return;
    errno = 0;
    if (lsctl_print(lines))
        return;
    run.status = errno == EPIPE ? BROKEN_PIPE : LSCTL_FAILED;
    if (run.status == LSCTL_FAILED)
        lsctl_complain("cannot write to the standard output");
}

void give(stream_run &run, const std::string &lines) {
    if (!run.server) {
        print(run, lines);
        return;
    }
    for (stream_peer &peer : run.server->peers)
        stream_send(peer, lines);
}

void report_gpsd(stream_run &run, const stream_report &report, bool sky_is_new) {
    const bool sky_is_over = run.showed_satellites && !report.satellites;
    std::string objects;
    if (sky_is_new || sky_is_over) {
        objects = gpsd_sky(report);
        run.showed_satellites = report.satellites.has_value();
    }
    objects += gpsd_tpv(report);
    const std::string sentences = stream_nmea(report);
    for (stream_peer &peer : run.server->peers) {
        if (peer.session.wants_json())
            stream_send(peer, objects);
        if (peer.session.wants_nmea())
            stream_send(peer, sentences);
    }
}

// What holds now, to all; `answer` is what has just come, none: nothing for too long.
void report(stream_run &run, const stream_answer *answer, stream_clock::time_point now) {
    const stream_report holds = stream_report_of(run.state, now);
    const auto is = [answer](stream_question question) {
        return answer != nullptr && answer->question == question;
    };
    const bool position_is_due = answer == nullptr || is(stream_question::position);
    switch (run.form) {
    case stream_form::nmea:
        give(run, stream_nmea(holds));
        break;
    case stream_form::gpsd:
        report_gpsd(run, holds, is(stream_question::satellites) || is(stream_question::sky));
        break;
    case stream_form::json:
        if (position_is_due)
            give(run, stream_json_position(holds));
        if (is(stream_question::satellites) && holds.satellites)
            give(run, stream_json_satellites(holds));
        if (!position_is_due)
            return;
        break;
    }
    run.reported = now;
}

// Trouble is told once, when it begins and when it is over.
void tell(stream_run &run, const stream_answer &answer) {
    if (answer.question != stream_question::position || answer.result == run.told)
        return;
    run.told = answer.result;
    lsctl_complain(answer.result == LOCATION_ANSWERED
                       ? "positions come again"
                       : "no position: " + answer.why + "; going on");
}

void take_answers(stream_run &run) {
    for (stream_answer &answer : run.asker.take()) {
        if (answer.result == LOCATION_CANCELLED)
            continue;
        tell(run, answer);
        auto &kept = run.state.at(static_cast<size_t>(answer.question));
        kept = std::move(answer);
        if (run.status < 0)
            report(run, &*kept, stream_clock::now());
    }
}

// Answers a POLL that has waited long enough, or for which there is a position.
void answer_polls(stream_run &run, stream_clock::time_point now) {
    const auto &position = run.state.at(static_cast<size_t>(stream_question::position));
    const bool known = position && now - position->asked < POLL_TAKES;
    for (stream_peer &peer : run.server->peers) {
        if (!peer.poll_until || (!known && now < *peer.poll_until))
            continue;
        peer.poll_until.reset();
        stream_send(peer, gpsd_poll(stream_report_of(run.state, now), utc_now()));
    }
}

void take_requests(stream_run &run, stream_peer &peer, stream_clock::time_point now) {
    if (run.form != stream_form::gpsd) {
        peer.in.clear(); // what a receiver would be told
        return;
    }
    while (!peer.gone && !peer.poll_until) {
        const auto request = gpsd_take_request(peer.in);
        if (!request)
            break;
        if (gpsd_is_poll(*request)) {
            run.polled = now;
            peer.poll_until = now + POLL_PATIENCE;
        } else {
            stream_send(peer, gpsd_reply(peer.session, *request, run.activated));
        }
        answer_polls(run, now);
    }
    if (peer.in.size() > GPSD_REQUEST_SIZE && !peer.poll_until) {
        stream_send(peer, gpsd_error("Request too long"));
        peer.gone = true;
    }
}

void serve(stream_run &run, const pollfd *fds, stream_clock::time_point now) {
    for (stream_peer *fresh : run.server->serve(fds))
        if (run.form == stream_form::gpsd)
            stream_send(*fresh, gpsd_version());
    for (stream_peer &peer : run.server->peers)
        take_requests(run, peer, now);
    answer_polls(run, now);
    for (stream_peer &peer : run.server->peers)
        take_requests(run, peer, now);
    run.server->sweep();
}

// When something is to be done without anything happening.
std::optional<stream_clock::time_point> next_deadline(const stream_run &run) {
    std::optional<stream_clock::time_point> next;
    if (run.asking)
        next = run.reported + longest_silence(run);
    if (run.asking && run.polled)
        next = std::min(*next, *run.polled + POLL_KEEPS_ASKING);
    if (run.server)
        for (const stream_peer &peer : run.server->peers)
            if (peer.poll_until)
                next = std::min(next.value_or(*peer.poll_until), *peer.poll_until);
    return next;
}

void one_round(stream_run &run) {
    // A pipe whose reader has gone says so without being written to.
    std::vector<pollfd> fds = {{lsctl_signals_descriptor(), POLLIN, 0},
                               {run.asker.descriptor(), POLLIN, 0},
                               {run.server ? -1 : STDOUT_FILENO, 0, 0}};
    if (run.server)
        run.server->watch(fds);
    const auto deadline = next_deadline(run);
    int timeout = -1;
    if (deadline) {
        const auto left = std::chrono::ceil<milliseconds>(*deadline - stream_clock::now());
        timeout = static_cast<int>(std::max<int64_t>(left.count(), 0));
    }
    if (poll(fds.data(), fds.size(), timeout) < 0 && errno != EINTR) {
        lsctl_complain("cannot wait for anything");
        run.status = LSCTL_FAILED;
        return;
    }
    if (lsctl_signals_last() != 0)
        run.status = LSCTL_SIGNAL + lsctl_signals_last();
    else if ((fds[2].revents & POLLERR) != 0)
        run.status = BROKEN_PIPE;
    if (run.status >= 0)
        return;
    take_answers(run);
    const auto now = stream_clock::now();
    if (run.server)
        serve(run, &fds[3], now);
    update_asking(run, now);
    if (run.asking && now - run.reported >= longest_silence(run))
        report(run, nullptr, now);
}

// Where to connect to, for whoever started this.
void show_port(const stream_run &run) {
    const unsigned port = run.server->port();
    if (run.form == stream_form::json)
        lsctl_print_object("listening", {{"port", port}});
    else
        lsctl_print(lsctl_format("listening on port %u of this machine\n", port));
}

} // namespace

int stream_serve(const lsctl_options &options, stream_form form, std::optional<uint16_t> port) {
    stream_run run{.options = options,
                   .form = form,
                   .asker = stream_asker(options, form),
                   .server = {},
                   .activated = utc_now()};
    if (run.asker.opened() != LOCATION_ANSWERED)
        return lsctl_fail(options, run.asker.opened());
    if (port) {
        const std::string problem = run.server.emplace().listen(*port);
        if (!problem.empty())
            return lsctl_fail(options, LOCATION_FAILED, problem);
    }
    if (!run.asker.start())
        return lsctl_fail(options, LOCATION_NO_MEMORY);
    if (run.server)
        show_port(run);
    update_asking(run, stream_clock::now());
    while (run.status < 0)
        one_round(run);
    return run.status;
}
