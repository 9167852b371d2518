// The static location file and the watch on its directory.
#include "fake_platform.h"
#include "gps_main.h"
#include "ls_state.h"
#include "scratch_dir.h"

#include <csignal>
#include <gtest/gtest.h>

namespace {

constexpr char path[] = "user/stub_location/stub_loc.gps";

std::string location_text() {
    std::string text;
    for (const std::atomic<char> &c : ls_stub_location_buf)
        text.push_back(c);
    return text;
}

class static_location : public testing::Test {
  protected:
    void SetUp() override { fake::reset(); }

    scratch_dir dir;
};

TEST_F(static_location, the_first_21_bytes_switch_it) {
    const std::string place = "5130.000,N,00007.500,W\n";
    const std::string off(23, '\0');
    struct row {
        const char *name;
        std::string content;
        int on;
        std::string text;
    };
    const row rows[] = {
        {"on", "stub_location   = ON\n" + place, 1, place},
        {"on in the last place", "12345678901234567= ON" + place, 1, place},
        {"one byte too far", "123456789012345678= ON" + place, 0, off},
        {"off", "stub_location   = OFF" + place, 0, off},
        {"behind a NUL", std::string("stub\0location  = ON\n\n", 21) + place, 1, place},
        {"short", "= ON", 1, off},
        {"text cut", "stub_location   = ON\n5130", 1, std::string("5130") + std::string(19, '\0')},
        {"empty", "", 0, off},
    };
    for (const row &r : rows) {
        scratch_dir::write(path, r.content);
        EXPECT_EQ(ls_read_stub_location(), 0) << r.name;
        EXPECT_EQ(stub_location_on_g, r.on) << r.name;
        EXPECT_EQ(location_text(), r.text) << r.name;
    }
}

TEST_F(static_location, a_missing_file_clears_the_text_and_keeps_the_switch) {
    scratch_dir::write(path, "stub_location   = ON\n5130.000,N,00007.500,W\n");
    EXPECT_EQ(ls_read_stub_location(), 0);
    std::filesystem::remove(path);
    EXPECT_EQ(ls_read_stub_location(), -1);
    EXPECT_EQ(stub_location_on_g, 1);
    EXPECT_EQ(location_text(), std::string(23, '\0'));
    EXPECT_EQ(fake::count_logged(3, "./user/stub_location/stub_loc.gps file open failed\n"), 1u);
}

TEST_F(static_location, every_modification_raises_the_signal) {
    const int signal = SIGRTMIN + 1;
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, signal);
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
    const auto raised = [&set] {
        const timespec patience = {.tv_sec = 2, .tv_nsec = 0};
        return sigtimedwait(&set, nullptr, &patience) > 0;
    };
    EXPECT_EQ(ls_watch_stub_location_dir(signal), -1);
    EXPECT_EQ(fake::count_logged(3, "./user/stub_location/ directory open failed \n"), 1u);

    std::filesystem::create_directories("user/stub_location");
    EXPECT_EQ(ls_watch_stub_location_dir(signal), 0);
    for (int time = 0; time < 2; ++time) {
        scratch_dir::write("user/stub_location/other", "x");
        EXPECT_TRUE(raised()) << time;
    }
    const timespec none = {};
    while (sigtimedwait(&set, nullptr, &none) > 0) { // truncating and writing are two modifications
    }
    std::filesystem::remove("user/stub_location/other");
    EXPECT_EQ(sigtimedwait(&set, nullptr, &none), -1); // deleting is none
    EXPECT_EQ(ls_watch_stub_location_dir(10000), -1);
    EXPECT_EQ(fake::count_logged(3, "Assign alternate signal failed\n"), 1u);
}

} // namespace
