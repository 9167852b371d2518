// The two threads and the waits for them. See dbhandler_worker.h.
#include "dbhandler_worker.h"
#include "ls_signals_blocked.h"

#include <condition_variable>
#include <csignal>
#include <cstring>
#include <deque>
#include <exception>
#include <mutex>
#include <new>
#include <vector>

#include <pthread.h>

namespace {

using std::chrono::milliseconds;

constexpr milliseconds READ_PATIENCE{100};
// Nothing to fall back on, and the daemon keeps what it reads at its start: rather late than never.
// A slow card at boot takes seconds.
constexpr milliseconds FIRST_READ_LOCK_PATIENCE{1000};
constexpr milliseconds FIRST_READ_PATIENCE{10000};
constexpr milliseconds WRITE_PATIENCE{1000};
constexpr milliseconds SPARE{15}; // a lock is given up so much earlier than the caller leaves
constexpr milliseconds FORK_PATIENCE{200};
constexpr size_t STACK_SIZE = size_t{512} * 1024;

struct job {
    std::string path;
    std::vector<setting_change> changes;
    bool repair = false;
    settings_clock::time_point deadline;
    std::atomic<bool> given_up{false}; // nobody waits any more
    settings_values values{};
    outcome result = outcome::failed; // with `done`, guarded by the crew's lock
    bool done = false;
};

struct library;

// A thread and the calls that wait for it.
struct crew {
    const char *name;
    outcome (*serve)(library &own, job &call);
    std::mutex lock; // guards everything below
    std::condition_variable posted;
    std::condition_variable finished;
    std::deque<std::shared_ptr<job>> jobs;
    bool started = false;
    bool busy = false;
    settings_clock::time_point busy_since;
};

outcome serve_read(library &own, job &call);
outcome serve_write(library &own, job &call);

// Everything of this library in one process. Lives for ever: its threads have no end, and a child
// leaves what it inherited alone.
struct library {
    crew reading{"dbhandler-read", serve_read, {}, {}, {}, {}, false, false, {}};
    crew writing{"dbhandler-write", serve_write, {}, {}, {}, {}, false, false, {}};
    open_settings link; // of the reading thread; of the forking one while that rests

    std::mutex last_lock; // guards what follows
    std::string last_path;
    settings_values last{}; // what was last read or stored at that path
    uint64_t stored = 0;    // counts what is stored: an older read does not take its place

    library *inherited = nullptr;
    bool usable = true; // false: forked while a thread was inside SQLite
};

std::atomic<library *> current{nullptr};

void remember(library &own, const job &call, uint64_t stored_before, uint64_t stored_now) {
    const std::lock_guard guard(own.last_lock);
    if (own.stored == stored_before) {
        own.last_path = call.path;
        own.last = call.values;
    }
    own.stored += stored_now;
}

uint64_t count_of_stored(library &own) {
    const std::lock_guard guard(own.last_lock);
    return own.stored;
}

bool recall(library &own, const std::string &path, settings_values &values) {
    const std::lock_guard guard(own.last_lock);
    if (path.empty() || own.last_path != path)
        return false;
    values = own.last;
    return true;
}

outcome serve_read(library &own, job &call) {
    const uint64_t stored = count_of_stored(own);
    outcome o = store_read(own.link, call.path, call.deadline, call.values);
    if (o == outcome::fresh) {
        // What is not there yet has its defaults, also while somebody makes it.
        call.values = store_defaults();
        remember(own, call, stored, 0);
    }
    if (o == outcome::fresh || o == outcome::damaged)
        o = store_write({call.path, {}, true, call.deadline, std::atomic<bool>{false}},
                        call.values);
    if (o == outcome::done)
        remember(own, call, stored, 0);
    return o;
}

outcome serve_write(library &own, job &call) {
    const outcome o = store_write(
        {call.path, call.changes, call.repair, call.deadline, call.given_up}, call.values);
    if (o == outcome::done)
        remember(own, call, count_of_stored(own), 1);
    return o;
}

// With the crew's lock held; it has a job.
void serve_one(library &own, crew &at, std::unique_lock<std::mutex> &held) {
    const std::shared_ptr<job> call = at.jobs.front();
    at.jobs.pop_front();
    if (call->given_up)
        return;
    at.busy = true;
    at.busy_since = settings_clock::now();
    held.unlock();
    outcome result = outcome::failed;
    try {
        result = at.serve(own, *call);
    } catch (const std::exception &error) {
        log_error("settings database %s: %s", call->path.c_str(), error.what());
    }
    held.lock();
    at.busy = false;
    call->result = result;
    call->done = true;
    at.finished.notify_all();
}

template <crew library::*which>
void *work(void *argument) {
    library &own = *static_cast<library *>(argument);
    crew &at = own.*which;
    pthread_setname_np(pthread_self(), at.name);
    std::unique_lock held(at.lock);
    for (;;) {
        at.posted.wait(held, [&at] { return !at.jobs.empty(); });
        serve_one(own, at, held);
    }
}

// With the crew's lock held.
bool start(library &own, crew &at, void *(*body)(void *)) {
    if (at.started)
        return true;
    // The process's signals are its own threads' business.
    const ls_signals_blocked scope;
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
    pthread_attr_setstacksize(&attributes, STACK_SIZE);
    pthread_t thread;
    const int error = pthread_create(&thread, &attributes, body, &own);
    pthread_attr_destroy(&attributes);
    if (error != 0)
        log_error("settings database: no thread %s: %s", at.name, strerror(error));
    return at.started = error == 0;
}

// Has the thread of a crew do the call. `busy`: not in time.
outcome have_done(library &own, crew &at, void *(*body)(void *), const std::shared_ptr<job> &call,
                  milliseconds patience) {
    std::unique_lock held(at.lock);
    if (!start(own, at, body))
        return outcome::failed;
    // What has held the thread up for as long as that will hardly end now: one wait is enough.
    if (at.busy && settings_clock::now() - at.busy_since > patience)
        return outcome::busy;
    at.jobs.push_back(call);
    at.posted.notify_one();
    if (at.finished.wait_for(held, patience, [&call] { return call->done; }))
        return call->result;
    call->given_up = true;
    return outcome::busy;
}

// Around fork: SQLite in the child would take the parent's locks for its own, and could wait for
// ever for one of its mutexes. So nothing is open and nobody inside while a process forks.
void before_fork() {
    library *own = current;
    for (crew *at : {&own->reading, &own->writing}) {
        std::unique_lock held(at->lock);
        at->finished.wait_until(held, settings_clock::now() + FORK_PATIENCE,
                                [at] { return !at->busy; });
        held.release();
    }
    if (!own->reading.busy)
        own->link.db.reset();
    own->last_lock.lock();
}

void after_fork_in_parent() {
    library *own = current;
    own->last_lock.unlock();
    own->writing.lock.unlock();
    own->reading.lock.unlock();
}

void after_fork_in_child() {
    auto *fresh = new (std::nothrow) library;
    if (fresh == nullptr)
        abort();
    fresh->inherited = current;
    fresh->usable = !fresh->inherited->reading.busy && !fresh->inherited->writing.busy &&
                    fresh->inherited->usable;
    current = fresh;
}

library &get_library() {
    static const bool made = [] {
        current = new library;
        pthread_atfork(before_fork, after_fork_in_parent, after_fork_in_child);
        return true;
    }();
    static_cast<void>(made);
    return *current;
}

std::shared_ptr<job> new_job(std::span<const setting_change> changes, milliseconds patience) {
    auto call = std::make_shared<job>();
    call->path = settings_path();
    call->changes.assign(changes.begin(), changes.end());
    call->deadline = settings_clock::now() + patience - SPARE;
    return call;
}

bool is_usable(const library &own) {
    if (!own.usable)
        log_error("settings database: this process was forked in the middle of a call");
    return own.usable;
}

} // namespace

bool settings_read(settings_values &values) {
    library &own = get_library();
    if (!is_usable(own))
        return false;
    const bool known = recall(own, settings_path(), values);
    const std::shared_ptr<job> call = new_job({}, known ? READ_PATIENCE : FIRST_READ_LOCK_PATIENCE);
    const outcome o = have_done(own, own.reading, work<&library::reading>, call,
                                known ? READ_PATIENCE : FIRST_READ_PATIENCE);
    if (o == outcome::done)
        values = call->values;
    if (o != outcome::busy)
        return o == outcome::done;
    const bool kept = recall(own, call->path, values);
    log_error("settings database %s: locked or too slow%s", call->path.c_str(),
              kept ? ": the values of the last read serve" : ", and never read before");
    return kept;
}

outcome settings_look(settings_values &values) {
    return store_look(settings_path(), settings_clock::now() + WRITE_PATIENCE, values);
}

bool settings_write(std::span<const setting_change> changes, bool repair, settings_values &after) {
    library &own = get_library();
    if (!store_accepts(changes) || !is_usable(own))
        return false;
    const std::shared_ptr<job> call = new_job(changes, WRITE_PATIENCE);
    call->repair = repair;
    const outcome o = have_done(own, own.writing, work<&library::writing>, call, WRITE_PATIENCE);
    if (o == outcome::done)
        after = call->values;
    if (o == outcome::busy)
        log_error("settings database %s: locked or too slow: not stored", call->path.c_str());
    return o == outcome::done;
}
