// lsctl stream in gpsd's form, read by the programs that read gpsd, and a service that goes away.
#include "system_fixture.h"

#include <gtest/gtest.h>

namespace {

// How many questions the daemon has taken, by its log.
size_t questions(const terminal &term) {
    return count_of("Case LS_", term.log());
}

constexpr char PLACE[] = "47.2852,8.5653,499"; // in grid square JN47gg78

constexpr char PYTHON_CLIENT[] = R"(
import gps, sys
session = gps.gps(host="localhost", port=sys.argv[1], mode=gps.WATCH_ENABLE | gps.WATCH_JSON)
for report in session:
    if report["class"] == "TPV":
        print("mode", session.fix.mode, session.fix.latitude, flush=True)
    elif report["class"] == "SKY" and session.satellites and session.satellites[0].azimuth:
        print("sky", session.satellites_used, flush=True)
)";

} // namespace

TEST(stream, clients_of_gpsd_work_unchanged) {
    terminal term({"--place", PLACE, "--log-level", "debug"});
    background stream({LSCTL_PROGRAM, "stream", "--format", "gpsd", "--listen", "0"});
    constexpr std::string_view before = "listening on port ";
    ASSERT_TRUE(wait_until([&] { return count_of("machine\n", stream.out()) != 0; }));
    const std::string port = std::to_string(std::stoi(stream.out().substr(before.size())));
    EXPECT_EQ(questions(term), 0U) << "asked while nobody listened";
    const auto start = std::chrono::steady_clock::now();

    const process_result piped = run({GPSPIPE_PROGRAM, "-w", "-r", "-n", "9", "127.0.0.1:" + port});
    EXPECT_EQ(piped.status, 0) << piped.err;
    EXPECT_NE(piped.out.find(R"("mode":3,"time":"20)"), std::string::npos) << piped.out;
    EXPECT_NE(piped.out.find(R"("lat":47.2852,"lon":8.5653,"altMSL":499.0)"), std::string::npos);
    EXPECT_NE(piped.out.find(",A,4717.11200,N,00833.91800,E,"), std::string::npos) << piped.out;

    setenv("TERM", "xterm", 1);
    const background python({PYTHON_PROGRAM, "-c", PYTHON_CLIENT, port});
    {
        const background cgps({SCRIPT_PROGRAM, "-qfec", "cgps -s 127.0.0.1:" + port, "/dev/null"});
        EXPECT_TRUE(wait_until([&] {
            return count_of("47.28520000 N", cgps.out()) != 0 &&
                   count_of("JN47gg78", cgps.out()) != 0;
        })) << cgps.out();
    }
    EXPECT_TRUE(wait_until([&] { return count_of("sky ", python.out()) != 0; })) << python.out();
    const auto seconds_gone =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start);
    EXPECT_LE(static_cast<double>(questions(term)), seconds_gone.count() + 1);

    // Nothing is left of the position when the service dies, and it comes back with the service.
    kill(term.daemon(), SIGKILL);
    EXPECT_TRUE(wait_until([&] { return count_of("mode 0 nan", python.out()) != 0; }));
    EXPECT_EQ(count_of("47.2852", python.out().substr(python.out().find("mode 0"))), 0U);
    term.daemon_end();
    const background successor({SIMTERM_PROGRAM, "run", term.dir().string(), "--daemon",
                                DAEMON_PROGRAM, "--instant-fix", "--no-services", "--place",
                                PLACE});
    EXPECT_TRUE(wait_until([&] {
        const std::string out = python.out();
        return count_of("mode 3 47.2852", out.substr(out.find("mode 0"))) != 0;
    })) << python.out();

    EXPECT_EQ(lsctl({"stream", "--listen", port}).status, 1) << "a port in use";
    stream.signal(SIGTERM);
    EXPECT_EQ(stream.wait().status, 128 + SIGTERM);
}

TEST(stream, ends_quietly_with_its_reader) {
    const terminal term;
    const process_result ended =
        run({"/bin/bash", "-c",
             std::string(LSCTL_PROGRAM) + " stream | head -n 1; exit ${PIPESTATUS[0]}"});
    EXPECT_EQ(ended.status, 128 + SIGPIPE);
    EXPECT_EQ(ended.out.substr(0, 7), "$GPGGA,");
    EXPECT_EQ(ended.err, "");
}
