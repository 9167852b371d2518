// What one peer leaves unread is that peer's own loss.

#include "bus_fixture.h"

#include <algorithm>
#include <sys/syscall.h>

// The send buffer that a service without privileges gets on a system as it comes, whatever this
// machine allows: the library's calls come here.
extern "C" [[gnu::visibility("default")]] int setsockopt(int fd, int level, int name,
                                                         const void *value,
                                                         socklen_t size) noexcept {
    int room = 212992; // net.core.wmem_max
    if (level == SOL_SOCKET && name == SO_SNDBUF) {
        room = std::min(room, *static_cast<const int *>(value));
        value = &room;
    }
    return static_cast<int>(syscall(SYS_setsockopt, fd, level, name, value, size));
}

namespace {

TEST_F(bus, peer_that_reads_nothing_takes_no_room_from_another) {
    start();
    const int deaf = raw_owner(50);
    const std::string large(60000, 'm'); // its queue has room for more than the buffer
    for (int sent = 0; self.notify(50, large) == 0; ++sent)
        ASSERT_LT(sent, 10);
    for (size_t round = 0; round < 20; ++round) {
        ASSERT_EQ(self.notify(41, large), 0) << strerror(errno);
        ASSERT_TRUE(peer.wait_for(round + 2));
    }
    close(deaf);
}

} // namespace
