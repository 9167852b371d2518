// The static location file and the watch on its directory.
#include "daemon_fixture.h"
#include "gps_main.h"

#include <sys/stat.h>

namespace {

constexpr char path[] = "user/stub_location/stub_loc.gps";
const std::string off(23, '\0');

using static_location = daemon_fixture;

std::string location_text() {
    return {ls_stub_location_buf.begin(), ls_stub_location_buf.end()};
}

TEST_F(static_location, the_first_21_bytes_switch_it) {
    const std::string place = "5130.000,N,00007.500,W\n";
    const struct {
        const char *name;
        std::string content;
        int on;
        std::string text;
    } rows[] = {
        {"on in the last place", "12345678901234567= ON" + place, 1, place},
        {"one byte too far", "123456789012345678= ON" + place, 0, off},
        {"off", "stub_location   = OFF" + place, 0, off},
        {"behind a NUL", "stub\0location  = ON\n\n"s + place, 1, place},
        {"text cut", "stub_location   = ON\n5130", 1, "5130" + std::string(19, '\0')},
        {"short", "= ON", 1, off},
    };
    for (const auto &r : rows) {
        scratch_dir::write(path, r.content);
        EXPECT_EQ(ls_read_stub_location(), 0) << r.name;
        EXPECT_EQ(stub_location_on_g, r.on) << r.name;
        EXPECT_EQ(location_text(), r.text) << r.name;
    }
    scratch_dir::write(path, rows[0].content);
    EXPECT_EQ(ls_read_stub_location(), 0);
    std::filesystem::remove(path); // clears the text, keeps the switch
    EXPECT_EQ(ls_read_stub_location(), -1);
    EXPECT_EQ(stub_location_on_g, 1);
    EXPECT_EQ(location_text(), off);
    ASSERT_EQ(mkfifo(path, 0600), 0); // does not hold the handler up
    EXPECT_EQ(ls_read_stub_location(), -1);
}

} // namespace
