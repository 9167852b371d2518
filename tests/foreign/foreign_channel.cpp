#include "foreign_channel.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <ctime>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <thread>
#include <unistd.h>

foreign_state &foreign() {
    static void *memory =
        mmap(nullptr, sizeof(foreign_state), PROT_READ | PROT_WRITE, MAP_SHARED, FOREIGN_MEMORY, 0);
    if (memory == MAP_FAILED)
        std::abort();
    return *static_cast<foreign_state *>(memory);
}

void foreign_report(int kind, int number, std::string_view first, std::string_view second) {
    foreign_event_head head = {kind, number, static_cast<int>(syscall(SYS_gettid)),
                               static_cast<uint32_t>(first.size()),
                               static_cast<uint32_t>(second.size())};
    std::array<iovec, 3> parts = {{{&head, sizeof(head)},
                                   {const_cast<char *>(first.data()), first.size()},
                                   {const_cast<char *>(second.data()), second.size()}}};
    msghdr message = {};
    message.msg_iov = parts.data();
    message.msg_iovlen = parts.size();
    while (sendmsg(FOREIGN_SOCKET, &message, MSG_NOSIGNAL) < 0 && errno == EINTR) {
    }
}

void foreign_pause(int ms) {
    timespec left = {.tv_sec = ms / 1000, .tv_nsec = ms % 1000 * 1'000'000L};
    while (ms > 0 && nanosleep(&left, &left) != 0) {
    }
}

namespace {

void nested_stack(int first, int frames);

template <size_t size>
[[gnu::noinline]] void buffer_on_stack(int first, int frames) {
    std::array<volatile char, size> buffer;
    for (size_t i = 0; i < size; i += 256)
        buffer[i] = 1;
    nested_stack(first + 1, frames - 1);
    buffer[0] = 2; // alive all the while
}

void nested_stack(int first, int frames) {
    if (frames == 0)
        return;
    switch (first % 3) {
    case 0:
        return buffer_on_stack<65536 + 20>(first, frames);
    case 1:
        return buffer_on_stack<32768>(first, frames);
    default:
        return buffer_on_stack<65536>(first, frames);
    }
}

void take_own_signals(sigset_t own) {
    while (sigwaitinfo(&own, nullptr) > 0)
        ++foreign().signals_taken;
}

} // namespace

void foreign_stack(int first) {
    nested_stack(first, 3 * foreign().stack_rounds);
}

void foreign_signals(int place) {
    std::thread([place] {
        sigset_t mask;
        pthread_sigmask(SIG_BLOCK, nullptr, &mask);
        uint64_t bits = 0;
        for (int signal = 1; signal <= SIGRTMAX; ++signal)
            bits |= static_cast<uint64_t>(sigismember(&mask, signal) == 1) << (signal - 1);
        foreign().born_mask[place] = bits;
    }).join();
    if (foreign().own_signal == place) {
        sigset_t own;
        sigemptyset(&own);
        sigaddset(&own, SIGRTMIN + 5);
        pthread_sigmask(SIG_BLOCK, &own, nullptr); // for the threads to come, too
        std::thread(take_own_signals, own).detach();
    }
    if (foreign().own_sigio == place) {
        struct sigaction action = {};
        action.sa_handler = [](int) { ++foreign().sigio_taken; };
        sigaction(SIGIO, &action, nullptr);
    }
}
