// A bus directory as the terminal has it: nobody but root may create anything in it, links lead
// each service to a place of its own, and the tools to one that their group shares.

#include "bus_fixture.h"

#include <fcntl.h>
#include <grp.h>

#include <csignal>
#include <sys/file.h>

namespace {

constexpr uid_t user_41 = 61041;
constexpr uid_t user_42 = 61042;
constexpr uid_t stranger = 61099;
constexpr gid_t tool_users = 61032;
constexpr gid_t bus_users = 61000; // may send to services

class bus_of_places : public bus {
  protected:
    void SetUp() override {
        if (geteuid() != 0)
            GTEST_SKIP() << "needs to become other users";
        bus::SetUp();
        ASSERT_EQ(chmod(dir.c_str(), 0755), 0);
        using directory = std::tuple<const char *, mode_t, uid_t, gid_t>;
        for (const auto &[name, mode, owner, group] :
             {directory("own", 0755, 0, 0), directory("own/41", 02711, user_41, bus_users),
              directory("own/42", 02711, user_42, bus_users),
              directory("own/43", 02711, 0, bus_users),
              directory("own/tools", 03771, 0, tool_users)}) {
            ASSERT_EQ(mkdir(name, 0700), 0);
            ASSERT_EQ(chown(name, owner, group), 0);
            ASSERT_EQ(chmod(name, mode), 0);
        }
        make_link(41, "own/41/socket");
        make_link(42, dir + "/own/42/socket");
        make_link(43, "own/43/socket");
        make_link(32, "own/tools/32");
        make_link(33, "own/tools/33");
    }
    void make_link(int id, const std::string &target) const {
        ASSERT_EQ(symlink(target.c_str(), path_of(id).c_str()), 0);
    }
    static bool become(uid_t user, gid_t group) {
        return setgroups(user != stranger, &bus_users) == 0 && setgid(group) == 0 &&
               setuid(user) == 0;
    }
    // The errno of an init, 0 = it got the id. `signal` ends the process that has got it.
    static int init_as(uid_t user, gid_t group, uint8_t id, int signal = 0) {
        return run_in_child([&] {
            static service started;
            if (!become(user, group) || started.init(id) != 0)
                return errno;
            raise(signal);
            return scm_conn_exit(&started);
        });
    }
};

TEST_F(bus_of_places, everybody_gets_the_own_id_only) {
    constexpr int killed = -1;
    EXPECT_EQ(init_as(user_42, user_42, 42), 0) << "behind an absolute link";
    EXPECT_EQ(init_as(user_41, user_41, 42), EACCES);
    EXPECT_EQ(init_as(stranger, stranger, 32), EACCES);
    EXPECT_EQ(init_as(user_42, tool_users, 32, SIGKILL), killed);
    // Whoever may read the tools' directory may hold its lock: that touches nobody who does not
    // have to remove a dead owner's socket.
    ls_descriptor locked(open("own/tools", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    ASSERT_EQ(flock(locked.fd, LOCK_EX), 0);
    EXPECT_EQ(init_as(stranger, tool_users, 33), 0);
    EXPECT_EQ(init_as(stranger, tool_users, 32), EPERM);
    EXPECT_EQ(init_as(user_42, tool_users, 32), EBUSY);
    ls_close(locked.fd);
    EXPECT_EQ(init_as(user_42, tool_users, 32), 0);
    struct stat status {};
    EXPECT_EQ(lstat(path_of(32).c_str(), &status), 0) << "the link stays";
    EXPECT_EQ(stat(path_of(32).c_str(), &status), -1) << "the socket went with its owner";
}

TEST_F(bus_of_places, owner_who_is_present_keeps_the_id_and_alone_is_believed) {
    service owner; // of 42, as far as its file says
    ASSERT_EQ(owner.init(42), 0);
    ASSERT_EQ(chown((dir + "/own/42/socket").c_str(), user_42, user_42), 0);
    EXPECT_EQ(init_as(user_42, user_42, 42), EADDRINUSE);

    testing::internal::CaptureStderr();
    ASSERT_EQ(self.init(43), 0);
    const auto send_to_43 = [&](uid_t user, uint32_t length) {
        return run_in_child([&] {
            return become(user, user) && raw_send(43, datagram(42, 43, length, length)) ? 0 : errno;
        });
    };
    EXPECT_EQ(send_to_43(stranger, 1), EACCES); // not of the group: not even heard
    EXPECT_EQ(send_to_43(user_41, 2), 0);
    EXPECT_EQ(send_to_43(user_42, 3), 0);
    EXPECT_TRUE(self.wait_for(2));
    const std::string log = testing::internal::GetCapturedStderr();
    EXPECT_EQ(self.messages[1].pld, "xxx");
    EXPECT_NE(log.find("belongs to another user"), std::string::npos) << log;
}

// A link is root's word on a terminal; in a directory that others may write to it is anybody's.
TEST_F(bus_of_places, link_of_somebody_else_counts_for_nothing) {
    make_link(44, "own/41/socket");
    ASSERT_EQ(self.init(41), 0);
    ASSERT_TRUE(raw_send(41, datagram(44, 41, 1, 1)));
    ASSERT_TRUE(self.wait_for(2)); // root's link: 44 is whoever owns that socket

    ASSERT_EQ(lchown(path_of(44).c_str(), user_41, user_41), 0);
    service other;
    EXPECT_EQ(other.init(44), -1);
    EXPECT_EQ(errno, ENOTSOCK);
    ASSERT_TRUE(raw_send(41, datagram(44, 41, 1, 1)));
    ASSERT_TRUE(raw_send(41, datagram(41, 41, 2, 2)));
    ASSERT_TRUE(self.wait_for(3));
    EXPECT_EQ(self.messages[2].pld, "xx");
}

} // namespace
