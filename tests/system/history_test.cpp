// The location history as people use it: recorded on a terminal and exported; a disk that is full
// meanwhile.
#include "system_fixture.h"

#include <cerrno>
#include <fstream>

#include <gtest/gtest.h>
#include <sys/mount.h>
#include <thread>
#include <unistd.h>

namespace {

size_t count(const std::string &in, const std::string &what) {
    size_t found = 0;
    for (size_t at = in.find(what); at != std::string::npos; at = in.find(what, at + 1))
        ++found;
    return found;
}

// A small file system of its own, as long as this lives.
struct small_disk {
    const std::filesystem::path where;
    const bool is_there = mount("tmpfs", where.c_str(), "tmpfs", 0, "size=64k") == 0;

    explicit small_disk(std::filesystem::path directory) : where(std::move(directory)) {}
    ~small_disk() {
        if (is_there)
            umount2(where.c_str(), MNT_DETACH);
    }
    small_disk(const small_disk &) = delete;
    small_disk &operator=(const small_disk &) = delete;

    void fill() const {
        std::ofstream out(where / "filler", std::ios::binary);
        while (out.write(std::string(4096, 'x').data(), 4096).flush()) {
        }
    }
    void make_room() const { std::filesystem::remove(where / "filler"); }
};

// lsctl settings writes the settings of this terminal.
void use_settings_of(const terminal &term) {
    setenv("DBHANDLER_FILE", (term.dir() / "user/settings.db").c_str(), 1);
}

size_t lines_of(const terminal &term) {
    return count(lsctl({"history", "--root", term.dir()}).out, "\n");
}

} // namespace

TEST(history_of_a_terminal, is_recorded_and_exported) {
    const terminal term({"--place", "47.5,8.25"});
    use_settings_of(term);
    EXPECT_EQ(lsctl({"settings", "--history", "on", "--interval", "1"}).status, 0);
    EXPECT_TRUE(wait_until([&] { return lines_of(term) >= 3; }));
    const process_result lines = lsctl({"history", "--root", term.dir()});
    EXPECT_EQ(count(lines.out, ",2D,47.500000N,8.250000E,+"), count(lines.out, "\n")) << lines.out;
    EXPECT_EQ(lsctl({"settings", "--history", "off"}).status, 0);
    // Those of the last second may still be on their way.
    std::this_thread::sleep_for(1500ms);
    const size_t after = lines_of(term);
    std::this_thread::sleep_for(2500ms);
    EXPECT_EQ(lines_of(term), after);
}

TEST(history_of_a_terminal, a_full_disk_hurts_nothing_else) {
    const terminal term({"--place", "47.5,8.25"});
    use_settings_of(term);
    const small_disk disk(term.dir() / "user/location");
    if (!disk.is_there)
        GTEST_SKIP() << "mounting a small tmpfs needs root: " << strerror(errno);
    // The next line of this file needs a page more.
    std::string ring("\x08\0\0\0\xee\x0f\0\0", 8);
    while (ring.size() < 4078)
        ring += "2019-02-05 10:51:05,2D,70.132317N,11.516667E,+2.25m,08\n";
    scratch_dir::write(term.dir() / "user/location/location_history", ring);
    disk.fill();
    const auto logged = [&](const char *text) { return count(term.log(), text); };

    EXPECT_EQ(lsctl({"settings", "--history", "on", "--interval", "1"}).status, 0);
    EXPECT_TRUE(wait_until([&] { return logged("LH: ls_write_to_file, ") >= 2; })) << term.log();
    EXPECT_EQ(lsctl({"position"}).status, 0);
    EXPECT_EQ(lsctl({"history", "--root", term.dir()}).status, 1); // no room for the export
    disk.make_room();
    EXPECT_TRUE(wait_until([&] { return lines_of(term) >= 76; }));

    EXPECT_TRUE(term.daemon_lives());
    lsctl({"settings", "--history", "off"});
}
