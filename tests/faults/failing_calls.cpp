// Preloaded into the daemon: calls of the C library that fail, or lie about the time, while a
// program outside wants it so. It says so in the file that FAILING_CALLS names, whose bytes are the
// record `control` (matrix.py).
//
// An allocation belongs to the innermost function of this project that led to it. So a call site is
// two places: where that function goes on, and where the direct caller of the allocator does, which
// may be GLib, SQLite or the C library. A place is a number that stays the same from one process to
// the next: of the module's name and the offset in it.
#include <array>
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <dlfcn.h>
#include <execinfo.h>
#include <fcntl.h>
#include <functional>
#include <link.h>
#include <pthread.h>
#include <string_view>
#include <sys/mman.h>
#include <unistd.h>

extern "C" {
void *__libc_malloc(size_t size);
void *__libc_calloc(size_t count, size_t size);
void *__libc_realloc(void *block, size_t size);
}

namespace {

using word = std::atomic<uint64_t>;

struct call_site {
    uint64_t own = 0, caller = 0; // own 0: nothing of this project led here
};

struct control {
    word clock_offset_s;        // added to the wall clock; two's complement
    word refuse_threads;        // 1: pthread_create fails with EAGAIN
    word record;                // 1: allocations add their call sites below
    word fail_own, fail_caller; // call site whose allocations fail
    word fail_times;            // so many times from now on
    word failed;                // how often they have
    word sites;                 // how many were seen; the first of them follow
    std::array<call_site, 65536> site;
};

// Set before main, constant afterwards; null = nobody wants anything.
control *shared = nullptr;

[[gnu::tls_model("initial-exec")]] thread_local bool inside = false; // an unwinder may allocate

[[gnu::constructor]] void prepare() {
    const char *path = getenv("FAILING_CALLS");
    const int fd = path == nullptr ? -1 : open(path, O_RDWR | O_CLOEXEC);
    if (fd < 0)
        return;
    void *mapped = mmap(nullptr, sizeof(control), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    close(fd);
    shared = mapped == MAP_FAILED ? nullptr : static_cast<control *>(mapped);
}

call_site find_site() {
    call_site found;
    std::array<void *, 64> frames;
    const int count = backtrace(frames.data(), frames.size());
    for (int i = 0; i < count && found.own == 0; ++i) {
        dl_find_object at;
        if (_dl_find_object(frames[static_cast<size_t>(i)], &at) != 0)
            continue;
        const std::string_view name = at.dlfo_link_map->l_name; // empty: the program
        const auto has = [name](const char *part) { return name.find(part) != name.npos; };
        const auto address = reinterpret_cast<uintptr_t>(frames[static_cast<size_t>(i)]);
        const uint64_t place = (uint64_t{std::hash<std::string_view>{}(name)} << 32) +
                               (address - at.dlfo_link_map->l_addr);
        if (has("/libfailing_calls.so"))
            continue;
        if (found.caller == 0)
            found.caller = place;
        if (name.empty() || has("/libmqutils.so") || has("/libdbhandler.so") ||
            has("/libzukhal.so"))
            found.own = place;
    }
    return found;
}

// True, with errno, where this allocation is to fail.
bool refused() {
    if (shared == nullptr || inside || (shared->record == 0 && shared->fail_times == 0))
        return false;
    inside = true;
    const call_site here = find_site();
    inside = false;
    if (here.own != 0 && shared->record != 0)
        if (const uint64_t nth = shared->sites++; nth < shared->site.size())
            shared->site[nth] = here;
    if (shared->fail_times == 0 || here.own != shared->fail_own ||
        here.caller != shared->fail_caller)
        return false;
    --shared->fail_times;
    ++shared->failed;
    errno = ENOMEM;
    return true;
}

template <class Function>
Function *next_of(Function *, const char *name) {
    return reinterpret_cast<Function *>(dlsym(RTLD_NEXT, name));
}

} // namespace

extern "C" {

void *malloc(size_t size) {
    return refused() ? nullptr : __libc_malloc(size);
}

void *calloc(size_t count, size_t size) {
    return refused() ? nullptr : __libc_calloc(count, size);
}

void *realloc(void *block, size_t size) {
    return refused() ? nullptr : __libc_realloc(block, size);
}

int pthread_create(pthread_t *thread, const pthread_attr_t *attributes, void *(*body)(void *),
                   void *argument) {
    static const auto real = next_of(&pthread_create, "pthread_create");
    return shared != nullptr && shared->refuse_threads != 0
               ? EAGAIN
               : real(thread, attributes, body, argument);
}

int clock_gettime(clockid_t clock, timespec *now) {
    static const auto real = next_of(&clock_gettime, "clock_gettime");
    const int result = real(clock, now);
    if (result == 0 && clock == CLOCK_REALTIME && shared != nullptr)
        now->tv_sec += static_cast<time_t>(shared->clock_offset_s.load());
    return result;
}

time_t time(time_t *) {
    timespec now = {};
    clock_gettime(CLOCK_REALTIME, &now);
    return now.tv_sec;
}

} // extern "C"
