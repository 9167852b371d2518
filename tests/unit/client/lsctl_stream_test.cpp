// lsctl stream: sentences and objects, requests, the turn of the questions, and a deaf reader.
#include "lsctl_rig.h"
#include "stream_formats.h"
#include "stream_server.h"

#include <sys/socket.h>

namespace {

using std::chrono::milliseconds;

stream_report fix_3d() {
    stream_report report;
    report.result = LOCATION_ANSWERED;
    report.position = gps_pos_data{
        {10, 51, 5, 0, 5, 2, 2019}, 51.5, 'N', 0.125, 'W', GPS_FIX_3D, 3.25F, 545.4, 5.25F, 8};
    report.motion = {.course_deg = 54.7, .speed_knots = {}, .speed_kmh = 10.0008};
    report.satellites =
        gps_sat_info{{8, 27, 10, 0, 16, 9, 2002}, 3, 2, {4, 9, 40}, {38}, {4, 0, 12}};
    report.sky = {{.prn = 4, .elevation_deg = 81, .azimuth_deg = 7, .cn0_dbhz = {}}};
    return report;
}

stream_report report_of(location_result result, std::optional<gps_pos_data> position = {}) {
    stream_report report;
    report.result = result;
    report.position = position;
    report.why = "why";
    return report;
}

// No time, minutes that round to the next degree.
const gps_pos_data FIX_2D = {{}, 33.9999999999, 'S', 179.9999999999, 'E', GPS_FIX_2D, 2.5F, 100, 25,
                             4};
constexpr char NO_FIX_SENTENCES[] = "$GPGGA,,,,,,0,,,,,,,,*66\r\n$GPRMC,,V,,,,,,,,,,N*53\r\n";

TEST(lsctl_stream, a_report_in_each_form) {
    const struct {
        stream_report report;
        std::string nmea, tpv, json;
    } rows[] = {
        {fix_3d(),
         "$GPGGA,105105.00,5130.00000,N,00007.50000,W,1,08,1.30,545.4,M,,,,*12\r\n"
         "$GPRMC,105105.00,A,5130.00000,N,00007.50000,W,5.400,54.70,050219,,,A*41\r\n",
         R"({"class":"TPV","device":"location_service","mode":3,"time":"2019-02-05T10:51:05.000Z",)"
         R"("lat":51.5,"lon":-0.125,"altMSL":545.4,"alt":545.4,"track":54.7,"speed":2.778,)"
         R"("eph":3.25,"epv":5.25})",
         R"({"class":"position","time_utc":"2019-02-05T10:51:05Z","latitude_deg":51.5,)"
         R"("longitude_deg":-0.125,"course_deg":54.7,"speed_kmh":10.0008})"},
        {report_of(LOCATION_ANSWERED, FIX_2D),
         "$GPGGA,,3400.00000,S,18000.00000,E,1,04,1.00,,,,,,*54\r\n"
         "$GPRMC,,A,3400.00000,S,18000.00000,E,,,,,,A*63\r\n",
         R"({"class":"TPV","device":"location_service","mode":2,"lat":-34.0,"lon":180.0,"eph":2.5})",
         R"({"class":"position","time_utc":null,"altitude_m":100.0,"course_deg":null,)"
         R"("speed_kmh":null})"},
        {report_of(LOCATION_FAILED), NO_FIX_SENTENCES,
         R"({"class":"TPV","device":"location_service","mode":1})",
         R"({"class":"position","time_utc":null,"latitude_deg":null,"error":"failed","text":"why"})"},
        {report_of(LOCATION_NO_DAEMON), NO_FIX_SENTENCES,
         R"({"class":"TPV","device":"location_service","mode":0})",
         R"({"class":"position","altitude_m":null,"error":"no_daemon"})"},
    };
    for (const auto &row : rows) {
        const std::string nmea = stream_nmea(row.report);
        EXPECT_EQ(nmea, row.nmea);
        const auto heard = lsctl_judge_nmea(bytes(nmea.begin(), nmea.end()), "");
        EXPECT_EQ(heard.sentences.size(), 2U) << "checksums of " << nmea;
        EXPECT_EQ(gpsd_tpv(row.report), row.tpv + "\r\n");
        // Of the other form, what the row has.
        const auto wanted = lsctl_json::parse(row.json);
        const auto object = lsctl_json::parse(stream_json_position(row.report));
        for (const auto &[key, value] : wanted.items())
            EXPECT_EQ(object.at(key), value) << key << " of " << object;
        EXPECT_EQ(object.contains("error"), wanted.contains("error"));
    }
    EXPECT_EQ(gpsd_sky(fix_3d()),
              R"({"class":"SKY","device":"location_service","time":"2002-09-16T08:27:10.000Z",)"
              R"("hdop":1.3,"vdop":2.1,"pdop":2.47,"nSat":4,"uSat":2,"satellites":[)"
              R"({"PRN":4,"gnssid":0,"svid":4,"el":81.0,"az":7.0,"ss":38,"used":true},)"
              R"({"PRN":9,"gnssid":0,"svid":9,"ss":0,"used":false},)"
              R"({"PRN":127,"gnssid":1,"svid":127,"ss":0,"used":false},)"
              R"({"PRN":12,"gnssid":0,"svid":12,"ss":0,"used":true}]})"
              "\r\n");
}

TEST(lsctl_stream, requests_of_gpsd_clients) {
    const struct {
        const char *input;
        std::vector<std::string> replies; // what the reply to each has in it
    } rows[] = {
        {"?VERSION;?DEVICES;\r\n", {R"("proto_major":3)", R"("devices":[{"class":"DEVICE")"}},
        {"?WATCH={\"enable\":true}", {R"("enable":true,"json":true,"nmea":false)"}},
        {"?WATCH={\"nmea\":true,\"x\":\"}\\\"\"};\n", {R"("json":false,"nmea":true)"}},
        {"?WATCH={\"enable\":true,\"json\":tr", {}}, // more is to come
        {"?WATCH={\"json\":true\n}\n", {"Unrecognized request '?WATCH=", "request '}'"}},
        {"?WATCH={\"enable\":1};", {"Invalid WATCH"}},
        {"?WATCH={\"device\":\"/dev/ttyS0\"};", {"No such device as '/dev/ttyS0'"}},
        {"?WATCH;", {R"("enable":false)"}},
        {"?DEVICE={\"path\":\"location_service\"};", {R"({"class":"DEVICE")"}},
        {"?BOO;\xff\x01\n??;", {"'?BOO'", "\\u0001", "'?\?'"}},
    };
    for (const auto &[sent, replies] : rows) {
        std::string input = sent;
        gpsd_session session;
        for (const std::string &wanted : replies) {
            const auto request = gpsd_take_request(input);
            ASSERT_TRUE(request) << sent;
            const std::string reply = gpsd_reply(session, *request, "now");
            EXPECT_NE(reply.find(wanted), std::string::npos) << reply;
            EXPECT_TRUE(reply.ends_with("}\r\n")) << reply;
        }
        EXPECT_FALSE(gpsd_take_request(input)) << sent;
        EXPECT_EQ(input, replies.empty() ? sent : "");
    }
}

// Twenty seconds in which each answer takes 300 ms, and the service is gone in the last five.
TEST(lsctl_stream, one_question_a_second_and_a_position_every_other) {
    stream_plan plan{.form = stream_form::gpsd, .asked = {}, .position_asked = {}};
    stream_state state;
    const stream_clock::time_point start{};
    std::string asked;
    for (auto now = start; now < start + milliseconds(20000); now += milliseconds(300)) {
        if (now < stream_next_time(plan, now))
            continue;
        const bool gone = now >= start + milliseconds(15000);
        stream_answer answer{
            .question = stream_next(plan, now), .asked = now, .why = {}, .motion = {}, .sky = {}};
        answer.result = gone ? LOCATION_NO_DAEMON : LOCATION_ANSWERED;
        answer.position = *fix_3d().position;
        asked += "PMSK"[static_cast<size_t>(answer.question)];
        stream_answered(plan, answer);
        state.at(static_cast<size_t>(answer.question)) = answer;
        EXPECT_EQ(stream_report_of(state, now).position.has_value(), !gone || asked.back() != 'P');
    }
    EXPECT_EQ(asked, "PMPSPMPKPMPSPMPPP");
    // A question that hangs: what came before it is current for three seconds.
    state.at(0)->result = LOCATION_ANSWERED;
    const auto last = state.at(0)->asked;
    EXPECT_TRUE(stream_report_of(state, last + STREAM_POSITION_LIFE - milliseconds(1)).position);
    EXPECT_FALSE(stream_report_of(state, last + STREAM_POSITION_LIFE).position);
}

TEST(lsctl_stream, a_reader_that_does_not_read_loses_its_place) {
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, ends), 0);
    stream_peer deaf(ends[0]);
    const ls_descriptor other(ends[1]);
    size_t sent = 0;
    for (; !deaf.gone && sent < (size_t{1} << 22); sent += 1000)
        stream_send(deaf, std::string(1000, 'x'));
    EXPECT_TRUE(deaf.gone);
    EXPECT_LE(deaf.out.size(), STREAM_UNREAD_SIZE + 1000);
}

} // namespace
