// The format that reaches the log is the message as people and log services know it, to the byte:
// nothing of it comes in through "%s".
#include "line_bench.h"

namespace {

struct failing_query {
    uint32_t request;
    std::string poll, answer; // "" = none that can be taken
    std::string format;
};

TEST_F(bench, formats_of_failing_queries) {
    const std::string other = nmea("GPXYZ,1"), no_type = nmea(",1"), no_sentence = "noise";
    const std::vector<failing_query> rows = {
        {LS_REQUEST_GET_TIME, "GPGPQ,ZDA", "", "%s: gps_get_data_req failed\n"},
        {LS_REQUEST_GET_TIME, "GPGPQ,ZDA", no_sentence, "%s:could not extract nmea_msg \n"},
        {LS_REQUEST_GET_TIME, "GPGPQ,ZDA", no_type, "%s: could not get token\n"},
        {LS_REQUEST_GET_TIME, "GPGPQ,ZDA", other, "%s: Required message not received\n"},
        {LS_REQUEST_GET_TIME, "PUBX,04", "", "%s: Failed to get GPS data\n"},
        {LS_REQUEST_GET_TIME, "PUBX,04", no_sentence, "%s: Failed to extract nmea_msg\n"},
        {LS_REQUEST_GET_TIME, "PUBX,04", no_type, "%s: Failed to get token\n"},
        {LS_REQUEST_GET_TIME, "PUBX,04", other, "%s: Incorrect response message\n"},
        {LS_REQUEST_GET_SPEED, "GPGPQ,VTG", "", "%s: Failed to get GPS data\n"},
        {LS_REQUEST_GET_SPEED, "GPGPQ,VTG", no_sentence, "%s: Failed to extract nmea_msg\n"},
        {LS_REQUEST_GET_SPEED, "GPGPQ,VTG", no_type, "%s: Failed to get token\n"},
        {LS_REQUEST_GET_SPEED, "GPGPQ,VTG", other, "%s: Incorrect token found\n"},
        {LS_EXEC_NMEA_CMD, "", "", "%s: gps_engg_exec_nmea failed\n"},
        {LS_EXEC_UBX_CMD, "", "", "%s: gps_engg_exec_ubx failed\n"},
    };
    std::atomic<size_t> at = 0;
    on_ta = [&](const std::string &poll) {
        const failing_query &row = rows[at];
        if (poll.find(row.poll) == std::string::npos)
            answer_ta(echo(poll));
        else // one that says to be longer than it can be is refused
            answer_ta(row.answer, row.answer.empty() ? 201 : row.answer.size());
    };
    start();
    for (; at < rows.size(); ++at) {
        const failing_query &row = rows[at];
        const int before = now();
        const bool is_frame = row.request == LS_EXEC_UBX_CMD;
        reply(deliver(row.request, 40,
                      payload_of(command(is_frame ? "b5,62,06,01,00,00,00,00" : "A"))));
        EXPECT_EQ(logged(row.format, before), 1)
            << row.poll << " answered by " << row.answer << ": " << row.format;
    }
    EXPECT_EQ(end(), 0);
}

// The second configuration frame is refused; at the end there is no file to give the lines back.
TEST_F(line, formats_of_the_configuration) {
    refused_id = 0x3E;
    std::filesystem::remove("sys/class/gpio/unexport");
    start();
    EXPECT_EQ(end(), 0);
    for (const std::string format :
         {"%s: Disabling NMEA outputs on UART\n", "%s: Disabling all INF message ouput on UART\n",
          "%s: Disabling GGA on UART\n", "%s: Disabling TXT on UART\n",
          "%s: Enabling NMEA and UBX on UART\n", "%s:Configure the measurement rate as 100 ms\n",
          "%s:Configuring GNSS system\n", "%s:Configuring NMEA protocol\n",
          "Receiver's Power state configuration to start GNSS",
          "Negative ack for configuring GNSS system\n", "Unable to open gpio unexport file\n"})
        EXPECT_GT(logged(format), 0) << format;
}

} // namespace
