// lsctl status, doctor and wait: what they find besides the faults of tests/faults/matrix.py.
#include "system_fixture.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

namespace {

// What lsctl looks at besides the bus.
void use_files_of(const terminal &term) {
    setenv("DBHANDLER_FILE", (term.dir() / "user/settings.db").c_str(), 1);
    setenv("ZUKHAL_CONF", (term.dir() / "etc/terminal.conf").c_str(), 1);
}

// The doctor's worst finding and exit status; a query's error with --json, which is the same.
void expect_finding(const std::string &name, int status, bool query_fails = true) {
    const process_result said = lsctl({"doctor", "--json"});
    EXPECT_EQ(said.status, status) << name << ": " << said.out << said.err;
    EXPECT_EQ(count_of("\"findings\":[{\"name\":\"" + name + "\",\"severity\":", said.out), 1U)
        << name << ": " << said.out;
    EXPECT_EQ(lsctl({"status", "--quiet"}).status, status) << name;
    if (!query_fails)
        return;
    const process_result position = lsctl({"position", "--json"});
    EXPECT_EQ(position.status, status == 3 ? 3 : 1) << name;
    EXPECT_EQ(position.out.find("{\"error\":\"" + name + "\",\"text\":\""), 0U) << position.out;
}

void expect_healthy(const char *behind) {
    process_result said;
    EXPECT_TRUE(wait_until([&] { return (said = lsctl({"status"})).status == 0; }))
        << behind << ": " << said.out << said.err;
}

} // namespace

TEST(doctor, finds_what_is_wrong_with_files_and_processes) {
    terminal term;
    use_files_of(term);
    expect_healthy("start");
    // Only the bytes of the place count, whose columns are fixed.
    term.write_static_location(true, "somewhere");
    EXPECT_TRUE(wait_until([] { return lsctl({"status", "-q"}).status == 1; }));
    expect_finding("static_no_place", 1);
    term.write_static_location(false);
    expect_healthy("static location");
    scratch_dir::write("other", "no database");
    setenv("DBHANDLER_FILE", std::filesystem::absolute("other").c_str(), 1);
    expect_finding("settings_damaged", 1, false);
    EXPECT_EQ(scratch_dir::read("other"), "no database");
    use_files_of(term);

    EXPECT_EQ(lsctl({"power", "off", "--as", "6"}).status, 0);
    expect_finding("receiver_off", 1, false);
    EXPECT_EQ(lsctl({"power", "on", "--as", "6"}).status, 0);
    EXPECT_EQ(term.stop(), 0);
    expect_finding("no_daemon", 3);
    setenv("MQUTILS_DIR", "nowhere", 1);
    expect_finding("no_bus", 3);
}

TEST(doctor, on_a_terminal_without_antenna_and_without_ta) {
    const terminal term({"--board", "2", "--antenna", "0"});
    use_files_of(term);
    expect_finding("gate_closed", 1);
    term.write_static_location(true);
    EXPECT_TRUE(wait_until([] { return lsctl({"position"}).status == 0; }));
    expect_finding("ta_absent", 1, false);
}

// A position is in the log at level debug, and coded at level info.
TEST(doctor, packs_a_bundle_without_positions) {
    const terminal term({"--log-level", "debug", "--place", "-33.85678,-70.5,12.5"});
    use_files_of(term);
    EXPECT_TRUE(wait_until([] { return lsctl({"position"}).status == 0; }));
    EXPECT_EQ(lsctl({"lpp"}).status, 0);
    EXPECT_EQ(lsctl({"doctor", "--bundle", "one.tar.gz"}).status, 0);
    EXPECT_EQ(lsctl({"doctor", "--bundle", "all.tar.gz", "--with-positions"}).status, 0);
    struct stat status = {};
    EXPECT_EQ(stat("one.tar.gz", &status), 0);
    EXPECT_EQ(status.st_mode & 07777U, 0600U);
    const auto unpacked = [](const char *name) {
        return run({"/bin/tar", "-x", "-z", "-O", "-f", name}).out;
    };
    for (const char *place : {"3351.4", "33.85", "7030.0", "70.5"})
        EXPECT_EQ(count_of(place, unpacked("one.tar.gz")), 0U) << place;
    EXPECT_NE(count_of("3351.4", unpacked("all.tar.gz")), 0U);
    EXPECT_NE(count_of("Location Service Version: ", unpacked("one.tar.gz")), 0U);
    const process_result again = lsctl({"doctor", "--bundle", "one.tar.gz"});
    EXPECT_EQ(again.status, 1);
    EXPECT_EQ(count_of("exists, and is not overwritten", again.err), 1U) << again.err;
}

TEST(wait, asks_nothing_before_the_service_is_ready) {
    terminal term({"--log-level", "debug", "--baud", "9600"});
    use_files_of(term);
    const pid_t before = term.daemon();
    background restart({SIMTERM_PROGRAM, "ctl", term.dir().string(), "restart-daemon"});
    ASSERT_TRUE(wait_until([&] { return term.daemon() > 0 && term.daemon() != before; }));
    const process_result waited = lsctl({"wait", "--for", "fix", "--timeout", "25", "--json"});
    EXPECT_EQ(waited.status, 0) << waited.err;
    EXPECT_EQ(waited.out.find("{\"waited_for\":\"fix\",\"waited_s\":"), 0U) << waited.out;
    EXPECT_EQ(restart.wait().status, 0);
    const std::string log = term.log();
    const std::string start = log.substr(log.rfind("Location Service Version"));
    const size_t ready = start.find("Location Service initialization sucessful");
    ASSERT_NE(ready, std::string::npos);
    EXPECT_GT(start.find("Processing request message"), ready);

    const process_result good = lsctl({"wait", "--for", "accuracy=0.1", "--timeout", "0.5"});
    EXPECT_EQ(good.status, 1);
    EXPECT_EQ(count_of("the fix is not good enough", good.err), 1U) << good.err;
    EXPECT_EQ(term.stop(), 0);
    const process_result late = lsctl({"wait", "--timeout", "0.3", "--json"});
    EXPECT_EQ(late.status, 3);
    EXPECT_EQ(late.out.find("{\"error\":\"timed_out\""), 0U) << late.out;
}
