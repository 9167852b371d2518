// What the receiver says of one known moment, to the byte.
#include "receiver_rig.h"

#include <gtest/gtest.h>

namespace {

std::string poll(const std::string &body, const sim::epoch &now) {
    sim::receiver_options options = rig::options();
    options.truth = [now](double) { return now; };
    rig::powered receiver(options);
    return rig::ask(receiver, body);
}

struct answer_row {
    const char *poll, *answer;
};

constexpr answer_row with_fix[] = {
    {"GPGPQ,GGA", "$GPGGA,120000.00,4807.03800,N,01131.00000,E,1,03,1.30,545.4,M,46.9,M,,*57\r\n"},
    {"GPGPQ,GSA", "$GPGSA,A,3,04,05,,09,,,,,,,,,2.50,1.30,2.10*0C\r\n"},
    {"GPGPQ,GSV", "$GPGSV,2,1,05,04,10,005,30,05,20,100,31,09,90,359,44,12,,,*44\r\n"
                  "$GPGSV,2,2,05,24,30,010,35*4E\r\n"},
    {"GPGPQ,RMC", "$GPRMC,120000.00,A,4807.03800,N,01131.00000,E,22.400,84.40,010124,,,A*65\r\n"},
    {"EIGPQ,ZDA", rig::known_zda}, // asked by another talker
    {"PUBX,00", "$PUBX,00,120000.00,4807.03800,N,01131.00000,E,592.300,G3,3.2,5.2,41.485,84.40,"
                "0.000,,1.30,2.10,0.77,3,0,0*6C\r\n"},
    {"PUBX,03", "$PUBX,03,05,4,U,005,10,30,064,5,U,100,20,31,064,9,U,359,90,44,064,12,-,,,,000,24,"
                "-,010,30,35,000*47\r\n"},
    {"PUBX,04", "$PUBX,04,120000.00,010124,129600.00,2295,18,0,0.000,21,*0A\r\n"},
};

constexpr answer_row without_fix[] = {
    {"GPGPQ,GGA", "$GPGGA,120000.00,,,,,0,00,99.99,,,,,,*65\r\n"},
    {"GPGPQ,GSA", "$GPGSA,A,1,,,,,,,,,,,,,99.99,99.99,99.99*30\r\n"},
    {"GPGPQ,RMC", "$GPRMC,120000.00,V,,,,,,,010124,,,N*78\r\n"},
    {"PUBX,00", "$PUBX,00,120000.00,0000.00000,N,00000.00000,E,0.000,NF,5303302,3750001,0.000,0.00,"
                "0.000,,99.99,99.99,99.99,0,0,0*2B\r\n"},
    // The leap seconds are the firmware's.
    {"PUBX,04", "$PUBX,04,120000.00,010124,129600.00,2295,18D,0,0.000,21,*4E\r\n"},
};

TEST(ReceiverSentences, TellTheSameMoment) {
    sim::epoch now = rig::known_epoch();
    for (const answer_row &row : with_fix)
        EXPECT_EQ(poll(row.poll, now), row.answer) << row.poll;
    now.fix = sim::fix_quality::none;
    for (const answer_row &row : without_fix)
        EXPECT_EQ(poll(row.poll, now), row.answer) << row.poll;
    now.fix = sim::fix_quality::fix_3d;
    now.latitude = 47.99999999; // the minutes carry
    EXPECT_EQ(poll("GPGPQ,GLL", now), "$GPGLL,4800.00000,N,01131.00000,E,120000.00,A,A*64\r\n");
}

} // namespace
