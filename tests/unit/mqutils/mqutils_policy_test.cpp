// The policy file: what it lets pass, and when it is believed.

#include "bus_fixture.h"

namespace {

constexpr uint8_t request = 0, notification = 2;

class bus_policy : public bus {
  protected:
    void write(const std::string &text) const { scratch_dir::write(dir + "/policy", text); }

    // Whether 40 takes the message from 41; each policy here lets it take 1.
    [[nodiscard]] bool passes(uint32_t msg_id, uint8_t type) {
        service receiver;
        EXPECT_EQ(receiver.init(40), 0);
        for (const msg_hdr &hdr : {msg_hdr{type, 0, 41, 40, msg_id, 7, 0, 0},
                                   msg_hdr{notification, 0, 41, 40, 1, 7, 0, 0}})
            EXPECT_TRUE(raw_send(40, {reinterpret_cast<const char *>(&hdr), sizeof hdr}));
        EXPECT_TRUE(receiver.wait_for(2));
        const std::lock_guard guard(receiver.lock);
        return receiver.messages[1].hdr.msg_id == msg_id;
    }
};

TEST_F(bus_policy, says_what_passes) {
    const struct {
        const char *lines; // behind one that allows message 1
        uint32_t msg_id;
        uint8_t type;
        bool passes;
    } rows[] = {
        {"40: 18,1001-1007 request from any", 1007, request, true},
        {"40: 18,1001-1007 request from any", 1008, request, false},
        {"40: 18,1001-1007 request from any", 1007, notification, false},
        {"39-50 : 208 request,notification from 2,41-50 # SAL", 208, notification, true},
        {"39,41-50: 208 notification from any", 208, notification, false},
        {"40: 208 notification from 1-40,42-255", 208, notification, false},
        {"40: any any from any", 4294967295, notification, true},
        {"40: any any from any", 208, 3, false}, // there is no such type
        {"40: 18 request from 2\n40: other any from 41", 17, request, true},
        {"40: 18 request from 2\n40: other any from 41", 18, request, false},
    };
    ASSERT_EQ(peer.init(41), 0);
    for (const auto &row : rows) {
        write(std::string("40: 1 notification from 41\n") + row.lines);
        EXPECT_EQ(passes(row.msg_id, row.type), row.passes) << row.lines;
    }
    write("39: 1 notification from 41"); // nothing about 40
    EXPECT_TRUE(passes(1003, request));
}

TEST_F(bus_policy, line_that_cannot_be_read_allows_nothing_and_is_told) {
    ASSERT_EQ(peer.init(41), 0);
    for (const char *line :
         {"40 208 notification from any", "256: 208 notification from any",
          "40: 208 notice from any", "40: 208 notification any", "40: 208, notification from any",
          "40: 209-208,208 notification from any", "40: 208x notification from any",
          "40: 208 notification from any 41", "40: 208 notification from 0-255"}) {
        write(std::string("40: 1 notification from 41\n") + line);
        testing::internal::CaptureStderr();
        EXPECT_FALSE(passes(208, notification)) << line;
        const std::string log = testing::internal::GetCapturedStderr();
        EXPECT_NE(log.find("line 2 of the policy"), std::string::npos) << line << '\n' << log;
        EXPECT_NE(log.find("message 208, type 2; "), std::string::npos) << log;
    }
    write("nonsense"); // may have been meant for anybody
    service receiver;
    ASSERT_EQ(receiver.init(40), 0);
    ASSERT_EQ(peer.notify(40, "m"), 0);
    EXPECT_EQ(scm_conn_exit(&peer), 0); // it has been judged
    EXPECT_EQ(scm_conn_exit(&receiver), 0);
    EXPECT_EQ(receiver.messages.size(), 1U);
}

TEST_F(bus_policy, only_a_file_of_the_directorys_owner_is_believed) {
    const std::string path = dir + "/policy";
    const auto refused = [&] { return self.init(40) == -1 && errno == EBADMSG; };
    write("40: 1 notification from any");
    ASSERT_EQ(chmod(path.c_str(), 0664), 0);
    EXPECT_TRUE(refused());
    ASSERT_EQ(chmod(path.c_str(), 0644), 0);
    if (geteuid() == 0) {
        ASSERT_EQ(chown(path.c_str(), 65534, 65534), 0);
        ASSERT_EQ(peer.init(41), 0);
        EXPECT_TRUE(passes(1003, request));
    }
    std::filesystem::rename(path, path + ".real");
    std::filesystem::create_symlink(path + ".real", path);
    EXPECT_TRUE(refused());
}

} // namespace
