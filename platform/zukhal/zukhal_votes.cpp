// Votes that keep the terminal awake, counted by state id and mirrored into the kernel's wake locks
// as "zukhal.<id>". Any thread, and signal handlers too: while a thread holds the lock its signals
// are blocked, so a handler never waits for the thread that it interrupted.
//
// The kernel keeps a wake lock when its process dies. The next process to vote for the same id
// takes it over and releases it with its own last vote.
#include "ls_signals_blocked.h"
#include "zukhal.h"
#include "zukhal_internal.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <mutex>

#include <fcntl.h>
#include <unistd.h>

namespace {

struct votes {
    int state_id;
    unsigned count; // 0 = the slot is free
};

std::mutex g_lock;               // guards what follows and the order of writes to the kernel
std::array<votes, 64> g_votes{}; // different ids that may hold votes at once
size_t g_touched = 0; // slots at its front that ever held votes, few: most services have one id

// The slot of the id, or else a free one; null: neither.
votes *find_votes(int state_id) {
    votes *free_slot = g_touched < g_votes.size() ? &g_votes[g_touched] : nullptr;
    for (size_t i = 0; i < g_touched; i++) {
        votes &slot = g_votes[i];
        if (slot.count == 0)
            free_slot = &slot;
        else if (slot.state_id == state_id)
            return &slot;
    }
    return free_slot;
}

// One of the kernel's two files, opened with the first vote and kept: each request of a client is
// a first and a last vote. -1: a kernel without wake locks has none; that is no fault.
struct kernel_file {
    const char *path;
    int fd;
};

kernel_file open_kernel_file(const char *path) {
    const int fd = open(path, O_WRONLY | O_APPEND | O_CLOEXEC | O_NONBLOCK);
    if (fd < 0 && errno != ENOENT)
        ZUK_LOG(4, "%s: %m", path);
    return {path, fd};
}

struct kernel_files {
    kernel_file lock;
    kernel_file unlock;
};

// Under g_lock.
const kernel_files &kernel() {
    static const kernel_files files = {open_kernel_file(zukhal_configuration().wake_lock),
                                       open_kernel_file(zukhal_configuration().wake_unlock)};
    return files;
}

void tell_kernel(const kernel_file &file, int state_id) {
    if (file.fd < 0)
        return;
    std::array<char, 32> name;
    const int length = snprintf(name.data(), name.size(), "zukhal.%d\n", state_id);
    if (write(file.fd, name.data(), static_cast<size_t>(length)) != length)
        ZUK_LOG(4, "%s: %m", file.path);
}

// False: neither a slot nor a free one, or as many votes as can be counted.
bool take(int state_id) {
    votes *slot = find_votes(state_id);
    if (slot == nullptr || slot->count == UINT_MAX)
        return false;
    slot->state_id = state_id;
    g_touched = std::max(g_touched, static_cast<size_t>(slot - g_votes.data()) + 1);
    if (slot->count++ == 0)
        tell_kernel(kernel().lock, state_id);
    return true;
}

// Without a vote there is nothing to give back, and that is fine.
bool give_back(int state_id) {
    votes *slot = find_votes(state_id);
    if (slot != nullptr && slot->count > 0 && --slot->count == 0)
        tell_kernel(kernel().unlock, state_id);
    return true;
}

int change_votes(int state_id, bool (*change)(int)) {
    if (state_id < 0)
        return 0;
    const int error = errno;
    // Before the first use reads the configuration: a handler that votes would wait for that for
    // ever.
    const ls_signals_blocked blocked;
    zukhal_configuration();
    const std::lock_guard guard(g_lock);
    const bool changed = change(state_id);
    errno = error;
    return changed ? 1 : 0;
}

} // namespace

// 1 = taken. 0: the id is negative, or 64 other ids hold votes at this moment.
LS_EXPORT int pm_system_state_disable(int state_id) {
    return change_votes(state_id, take);
}

// 1 = taken, also when there was no vote to take back. 0: the id is negative.
LS_EXPORT int pm_system_state_enable(int state_id) {
    return change_votes(state_id, give_back);
}
