// The same bytes on every machine: fields at and beyond the ends of what their conversions can
// hold. Plain char is signed on one of the machines, a number too large for its integer saturates
// on one only.
#include "daemon_fixture.h"
#include "gps_service.h"

namespace {

// The record in the order of the bus, without padding and without the time.
std::string position_bytes(const gps_pos_data &pos) {
    const auto part = [&pos](size_t from, size_t size) {
        return hex(reinterpret_cast<const unsigned char *>(&pos) + from, size);
    };
    return part(16, 9) + " " + part(32, 9) + " " + part(44, 8) + " " + part(56, 8) + " " +
           part(64, 5);
}

using both_machines = receiver_fixture;

TEST_F(both_machines, position_and_lpp_parameters) {
    const struct {
        const char *name;
        std::string latitude, longitude; // with their letters, as in GGA
        std::string altitude, satellites, hdop, lpp_altitude;
        const char *position, *lpp;
    } rows[] = {
        {"north west", "4717.113210,N", "00833.915187,W", "545.4", "8", "1.3", "65538.9",
         "1cff2b1882a447404e 3f1744db6821214057 0100000000005040 33333333330b8140 0000a84008",
         "00000000000000000000004602002d0005404300bfe8f900"},
        {"south east", "4717.113210,S", "00833.915187,E", "545.4", "8", "1.3", "65538.9",
         "1cff2b1882a4474053 3f1744db6821214045 0100000000005040 33333333330b8140 0000a84008",
         "01000000000000000000004602002d000540430041170600"},
        {"the last degree of 32 bits", "214748364700,N", "214748364800,W", "-0.0", "255", "0.4",
         "65535",
         "0000c0ffffffdf414e 555515000000e04157 010000000000803f 0000000000000080 0000a840ff",
         "000000000000000000000046ffff2d00ffffffff01000000"},
        {"the first degree of 32 bits", "-214748364800,S", "-214748364900,E", "1e-310", "256",
         "1e-45", "65536",
         "000000000000e0c153 555535000000e0c145 0100000002000000 2be6708b68120000 0000a84000",
         "01000000000000000000004600002d000000000000000000"},
        {"beyond all integers", "1e300,S", "-1e300,W", "1e400", "2147483648", "3e38", "4294967295",
         "404acd4cfc7bd97d53 404acd4cfc7bd9fd57 010000000000807f 000000000000f07f 0000a840ff",
         "010000000000000000000046ffff2d00ffffffff00000000"},
        {"infinite", "inf,N", "inf,W", "-inf", "-1", "1e39", "4294967296",
         "000000000000f07f4e 000000000000f07f57 010000000000807f 000000000000f0ff 0000a840ff",
         "000000000000000000000046ffff2d00ffffffff01000000"},
        {"not numbers", "nan,N", "-nan,W", "nan", "-2147483649", "inf", "-1",
         "000000000000f87f4e 000000000000f8ff57 010000000000807f 000000000000f87f 0000a84000",
         "000000000000000000000046ffff2d000000000000000000"},
        {"characters above 127", "5130.000,\xCE", "00007.500,\xD7", "\xB2", "\xB9", "\xFF",
         "-4294967296",
         "0000000000c04940ce 000000000000c03fd7 0100000000000000 0000000000000000 0000a84000",
         "000000000000000000000046ffff2d00933e4900c1160000"},
    };
    answer_raw(ecef_poll, std::string(28, '\1'));
    for (const auto &row : rows) {
        answer("GPGPQ,GGA", "GPGGA,1," + row.latitude + "," + row.longitude + ",1," +
                                row.satellites + ",0.9," + row.altitude + ",M,46.9,M,,");
        answer("GPGPQ,GSA", "GPGSA,A,3,04,05,,09,12,,,24,,,,,2.5," + row.hdop + ",2.1");
        answer("PUBX,00", "PUBX,00,081350.00,4717.1,N,00833.9,E,546.589,G3,2.1," +
                              row.lpp_altitude + ",0.007");
        gps_pos_data pos = {};
        EXPECT_EQ(gps_get_pos(&pos), 0) << row.name;
        EXPECT_EQ(position_bytes(pos), row.position) << row.name;
        gps_lpp_location lpp = {};
        EXPECT_EQ(gps_get_lpp_paramas(&lpp), 0) << row.name;
        EXPECT_EQ(hex(&lpp, sizeof(lpp)), row.lpp) << row.name;
    }
}

} // namespace
