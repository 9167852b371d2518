// What one peer leaves unread is that peer's own loss.

#include "bus_fixture.h"

#include <algorithm>
#include <fcntl.h>
#include <sched.h>
#include <sys/syscall.h>

// The send buffer that a service without privileges gets on a system as it comes, whatever this
// machine allows: the library's calls come here.
extern "C" [[gnu::visibility("default")]] int setsockopt(int fd, int level, int name,
                                                         const void *value,
                                                         socklen_t size) noexcept {
    constexpr int stock_limit = 212992; // net.core.wmem_max
    if (level == SOL_SOCKET && name == SO_SNDBUFFORCE) {
        errno = EPERM;
        return -1;
    }
    int wanted = 0;
    if (level == SOL_SOCKET && name == SO_SNDBUF) {
        std::memcpy(&wanted, value, sizeof wanted);
        wanted = std::min(wanted, stock_limit);
        value = &wanted;
    }
    return static_cast<int>(syscall(SYS_setsockopt, fd, level, name, value, size));
}

namespace {

constexpr uint32_t reply_bytes = 284; // of 1011: some 330 of them are a stock buffer

// A network of the thread's own with the queue length that systemd sets, for as long as it lives.
struct long_queues {
    int before = open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC);
    bool made = unshare(CLONE_NEWNET) == 0;
    long_queues() {
        if (made)
            scratch_dir::write("/proc/sys/net/unix/max_dgram_qlen", "512");
    }
    ~long_queues() {
        setns(before, CLONE_NEWNET);
        close(before);
    }
};

// Milliseconds that 99 of 100 round trips of four clients stay below; -1 = one was not answered.
double p99_of_clients() {
    constexpr int trips = 150;
    std::array<service, 4> clients;
    std::array<std::vector<double>, 4> times;
    std::atomic<bool> all{true};
    std::vector<std::jthread> threads;
    for (size_t i = 0; i < clients.size(); ++i) {
        EXPECT_EQ(clients[i].init(static_cast<uint8_t>(60 + i)), 0);
        threads.emplace_back([&, i] {
            for (size_t trip = 0; trip < trips && all; ++trip) {
                const auto start = steady_clock::now();
                msg_hdr hdr{};
                fill_request_hdr(&clients[i], &hdr, 0, 1011, 40);
                if (send_msg(&clients[i], &hdr, nullptr) != 0 || !clients[i].wait_for(trip + 2))
                    all = false;
                times[i].push_back(
                    std::chrono::duration<double, std::milli>(steady_clock::now() - start).count());
            }
        });
    }
    threads.clear();
    std::vector<double> sorted;
    for (const std::vector<double> &part : times)
        sorted.insert(sorted.end(), part.begin(), part.end());
    std::sort(sorted.begin(), sorted.end());
    return all ? sorted[sorted.size() * 99 / 100] : -1;
}

TEST_F(bus, client_that_reads_nothing_harms_no_other) {
    const long_queues network;
    if (!network.made)
        GTEST_SKIP() << "needs to make a network namespace: " << strerror(errno);
    setenv("MQUTILS_SEND_TIMEOUT_MS", "1000", 1);
    std::vector<std::jthread> workers; // one a request, as a service has that answers slowly
    self.hook = [&](service &me, const bus_msg &msg) {
        if (msg.hdr.msg_id == 1011)
            workers.emplace_back([&me, request = msg.hdr] {
                const bus_msg req{request, nullptr};
                msg_hdr hdr{};
                fill_response_hdr(&me, &hdr, &req, reply_bytes);
                send_msg(&me, &hdr, std::array<char, reply_bytes>{}.data());
            });
    };
    ASSERT_EQ(self.init(40), 0);
    double quiet = 0, beside_deaf = 0;
    for (int round = 0; round < 5; ++round) { // the machine may be busy with something else
        quiet = p99_of_clients();
        const int deaf = raw_owner(50);
        for (int i = 0; i < 520; ++i) {
            const msg_hdr request{0, 0, 50, 40, 1011, 1, 0, 0};
            ASSERT_TRUE(raw_send(40, {reinterpret_cast<const char *>(&request), sizeof request}));
        }
        beside_deaf = p99_of_clients();
        close(deaf);
        std::filesystem::remove(path_of(50));
        ASSERT_GE(quiet, 0);
        ASSERT_GE(beside_deaf, 0) << "others were not answered; p99 without it: " << quiet << " ms";
        if (beside_deaf <= 2 * quiet)
            break;
    }
    std::cout << "p99 " << quiet << " ms, beside the deaf client " << beside_deaf << " ms\n";
    EXPECT_LE(beside_deaf, 2 * quiet);
    EXPECT_EQ(scm_conn_exit(&self), 0); // before the workers, which use it
}

} // namespace
