// The location history as people use it: recorded on a terminal, exported, read by programs that
// are not this project's own; a disk that is full meanwhile.
#include "system_fixture.h"

#include <map>

#include <gtest/gtest.h>

namespace {

// Five lines: two, a pause, two across the antimeridian, one without a place; and a cut one.
constexpr char EXPORT[] = "+2.25m,08\n"
                          "2019-02-05 10:51:05,2D,17.100000S,179.900000E,+2.25m,08\n"
                          "2019-02-05 10:51:10,2D,17.110000S,179.950000E,+2.25m,08\n"
                          "2019-02-05 11:51:05,2D,17.120000S,179.990000E,+2.25m,08\n"
                          "2019-02-05 11:51:10,2D,17.130000S,179.990000W,+2.25m,12\n"
                          "2019-02-05 11:51:15,ER,0.000000X,0.000000Y,+0.00m,00\n";

std::string exported_as(const std::string &format, const std::string &from) {
    scratch_dir::write("export.txt", from);
    std::string file = "out." + format;
    const process_result done =
        run({LSCTL_PROGRAM, "history", "--input", "export.txt", "--format", format, "-o", file});
    EXPECT_EQ(done.status, 0) << done.err;
    return file;
}

// What another reader makes of an export: a line for each point it holds.
std::string read_by_gpsbabel(const std::string &format, const std::string &from) {
    const process_result read =
        run({GPSBABEL_PROGRAM, format == "geojson" ? "-r" : "-t", "-i", format, "-f",
             exported_as(format, from), "-o", "csv", "-F", "-"});
    EXPECT_EQ(read.status, 0) << read.err;
    return read.out;
}

bool shell(const std::string &line) {
    return run({"/bin/sh", "-c", line}).status == 0;
}

size_t lines_of(const terminal &term) {
    return count_of("\n", lsctl({"history", "--root", term.dir()}).out);
}

} // namespace

TEST(history_formats, are_read_by_others) {
    ASSERT_STRNE(GPSBABEL_PROGRAM, "GPSBABEL-NOTFOUND") << "apt-get install gpsbabel";
    ASSERT_STRNE(XMLLINT_PROGRAM, "XMLLINT-NOTFOUND") << "apt-get install libxml2-utils";
    setenv("TZ", "UTC0", 1);
    const scratch_dir dir;
    // KML and GeoJSON have two points more, where the track is cut, and KML its two marks.
    for (const auto &[format, points] :
         std::map<std::string, size_t>{{"gpx", 4}, {"kml", 8}, {"geojson", 6}}) {
        const std::string read = read_by_gpsbabel(format, EXPORT);
        EXPECT_EQ(count_of("\n", read), points) << format << "\n" << read;
        for (const char *place : {"-17.10000, 179.90000", "-17.11000, 179.95000",
                                  "-17.12000, 179.99000", "-17.13000, -179.99000"})
            EXPECT_NE(count_of(place, read), 0U) << format << place << "\n" << read;
        EXPECT_EQ(count_of("\n", read_by_gpsbabel(format, "")), 0U) << format;
    }
    for (const char *format : {"gpx", "kml", "svg"}) {
        for (const char *from : {EXPORT, ""}) {
            const process_result checked =
                run({XMLLINT_PROGRAM, "--noout", "--nonet", exported_as(format, from)});
            EXPECT_EQ(checked.status, 0) << checked.err;
        }
    }
    unsetenv("TZ");
}

TEST(history_of_a_terminal, a_full_disk_hurts_nothing_else) {
    const terminal term({"--place", "47.5,8.25"});
    setenv("DBHANDLER_FILE", (term.dir() / "user/settings.db").c_str(), 1);
    const std::string disk = term.dir() / "user/location";
    if (!shell("mount -t tmpfs -o size=64k tmpfs " + disk))
        GTEST_SKIP() << "mounting a small tmpfs needs root";
    // The next line of this file needs a page more.
    std::string ring("\x08\0\0\0\xee\x0f\0\0", 8);
    while (ring.size() < 4078)
        ring += "2019-02-05 10:51:05,2D,70.132317N,11.516667E,+2.25m,08\n";
    scratch_dir::write(disk + "/location_history", ring);
    EXPECT_FALSE(shell("cat /dev/zero >" + disk + "/filler"))
        << "it ends when nothing fits any more";
    EXPECT_EQ(lsctl({"settings", "--history", "on", "--interval", "1"}).status, 0);
    EXPECT_TRUE(wait_until([&] { return count_of("LH: ls_write_to_file, ", term.log()) >= 2; }))
        << term.log();
    EXPECT_EQ(lsctl({"position"}).status, 0);
    EXPECT_EQ(lsctl({"history", "--root", term.dir()}).status, 1); // no room for the export
    std::filesystem::remove(disk + "/filler");
    EXPECT_TRUE(wait_until([&] { return lines_of(term) >= 76; }));
    EXPECT_EQ(lsctl({"settings", "--history", "off"}).status, 0);
    EXPECT_TRUE(shell("umount -l " + disk));
}
