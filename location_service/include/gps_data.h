// Records that the receiver queries fill and that travel in replies: times, position, satellites,
// speed, LPP parameters, and the receiver exchange with the TA.
//
// Byte layout: natural alignment of the 32-bit ARM and the 64-bit workstation ABI (they agree for
// every type used here), little-endian. Sizes and offsets are asserted under each record.
// C11 and C++. No record has a member of an enumeration, whose size is the compiler's choice.
#ifndef GPS_DATA_H
#define GPS_DATA_H

#include <assert.h>
#include <stddef.h>
#include <stdint.h>

// C11 has no type for an enumeration to name.
#ifdef __cplusplus
#define LS_ENUM_TYPE(type) : type
#else
#define LS_ENUM_TYPE(type)
#endif

#if __BYTE_ORDER__ != __ORDER_LITTLE_ENDIAN__
#error "records go on the bus as they stand: the machine must be little-endian"
#endif

// Receiver power modes. 0 and 1 are both off; they differ only in what is stored.
enum gps_power_mode LS_ENUM_TYPE(uint32_t){
    GPS_POWER_OFF = 0,
    GPS_POWER_OFF_ALT = 1,
    GPS_POWER_ON = 2,
};

// UTC date and time; leads every record that a query fills.
struct gps_time_fields {
    uint8_t hour;
    uint8_t minute;
    uint8_t second;
    uint16_t millisecond; // always 0
    uint8_t day;
    uint8_t month; // 1 to 12
    uint16_t year; // full year
};
static_assert(sizeof(struct gps_time_fields) == 10, "gps_time_fields");
static_assert(offsetof(struct gps_time_fields, millisecond) == 4, "gps_time_fields");
static_assert(offsetof(struct gps_time_fields, day) == 6, "gps_time_fields");
static_assert(offsetof(struct gps_time_fields, month) == 7, "gps_time_fields");
static_assert(offsetof(struct gps_time_fields, year) == 8, "gps_time_fields");

enum gps_fix_type LS_ENUM_TYPE(uint32_t){
    GPS_FIX_2D = 0,
    GPS_FIX_3D = 1,
    GPS_FIX_NONE = 2,
};

// One position fix.
struct gps_pos_data {
    struct gps_time_fields time;
    double latitude;           // decimal degrees, magnitude
    char lat_dir;              // 'N' or 'S'
    double longitude;          // decimal degrees, magnitude
    char lon_dir;              // 'E' or 'W'
    uint32_t fix_type;         // gps_fix_type
    float horizontal_accuracy; // metres (HDOP x 2.5)
    double altitude;           // metres above mean sea level
    float vertical_accuracy;   // metres (VDOP x 2.5)
    uint8_t num_satellites;    // used in the fix
};
static_assert(sizeof(struct gps_pos_data) == 72, "gps_pos_data");
static_assert(offsetof(struct gps_pos_data, latitude) == 16, "gps_pos_data");
static_assert(offsetof(struct gps_pos_data, lat_dir) == 24, "gps_pos_data");
static_assert(offsetof(struct gps_pos_data, longitude) == 32, "gps_pos_data");
static_assert(offsetof(struct gps_pos_data, lon_dir) == 40, "gps_pos_data");
static_assert(offsetof(struct gps_pos_data, fix_type) == 44, "gps_pos_data");
static_assert(offsetof(struct gps_pos_data, horizontal_accuracy) == 48, "gps_pos_data");
static_assert(offsetof(struct gps_pos_data, altitude) == 56, "gps_pos_data");
static_assert(offsetof(struct gps_pos_data, vertical_accuracy) == 64, "gps_pos_data");
static_assert(offsetof(struct gps_pos_data, num_satellites) == 68, "gps_pos_data");

#define GPS_SAT_SLOTS ((size_t)12)

struct gps_sat_info {
    struct gps_time_fields time;
    uint8_t num_sat_in_view;
    uint8_t num_sat_usable;
    uint8_t sat_prn[GPS_SAT_SLOTS];      // in view, in the order of the GSV sentences
    uint8_t sat_snr[GPS_SAT_SLOTS];      // C/N0 in dB-Hz of the satellite at the same index
    uint8_t sat_used_prn[GPS_SAT_SLOTS]; // by GSA slot, 0 = slot empty
};
static_assert(sizeof(struct gps_sat_info) == 48, "gps_sat_info");
static_assert(offsetof(struct gps_sat_info, num_sat_in_view) == 10, "gps_sat_info");
static_assert(offsetof(struct gps_sat_info, num_sat_usable) == 11, "gps_sat_info");
static_assert(offsetof(struct gps_sat_info, sat_prn) == 12, "gps_sat_info");
static_assert(offsetof(struct gps_sat_info, sat_snr) == 24, "gps_sat_info");
static_assert(offsetof(struct gps_sat_info, sat_used_prn) == 36, "gps_sat_info");

// Speed over ground in km/h. The fraction is the integer its digits form, without their count: 12.5
// and 12.05 both have speed_frac 5. Both wrap at 256: 299.826 km/h is 43 and 58, as 43.58 km/h is.
// Above 255 km/h, and wherever the fraction matters, ask the receiver itself (1011, "GPGPQ,VTG").
struct gps_speed_data {
    struct gps_time_fields time;
    uint8_t speed_int;
    uint8_t speed_frac;
};
static_assert(sizeof(struct gps_speed_data) == 12, "gps_speed_data");
static_assert(offsetof(struct gps_speed_data, speed_int) == 10, "gps_speed_data");
static_assert(offsetof(struct gps_speed_data, speed_frac) == 11, "gps_speed_data");

// LPP location parameters (ellipsoid point with altitude and uncertainty ellipsoid, TS 23.032).
struct gps_lpp_location {
    uint32_t latitude_sign; // 1 = south
    uint32_t altitude_dir;  // always 0
    uint8_t uncertainty_semi_major;
    uint8_t uncertainity_semi_minor;
    uint8_t uncertainty_altitude;
    uint8_t confidence;              // per cent
    uint16_t altitude;               // the vertical accuracy, whole metres (PUBX 00, field 10)
    uint16_t orientation_major_axis; // degrees, halved
    uint32_t degrees_latitude;       // latitude / 90 x 2^23
    uint32_t degrees_longitude;      // longitude / 360 x 2^24, west as 24-bit two's complement
};
static_assert(sizeof(struct gps_lpp_location) == 24, "gps_lpp_location");
static_assert(offsetof(struct gps_lpp_location, uncertainty_semi_major) == 8, "gps_lpp_location");
static_assert(offsetof(struct gps_lpp_location, uncertainity_semi_minor) == 9, "gps_lpp_location");
static_assert(offsetof(struct gps_lpp_location, uncertainty_altitude) == 10, "gps_lpp_location");
static_assert(offsetof(struct gps_lpp_location, confidence) == 11, "gps_lpp_location");
static_assert(offsetof(struct gps_lpp_location, altitude) == 12, "gps_lpp_location");
static_assert(offsetof(struct gps_lpp_location, orientation_major_axis) == 14, "gps_lpp_location");
static_assert(offsetof(struct gps_lpp_location, degrees_latitude) == 16, "gps_lpp_location");
static_assert(offsetof(struct gps_lpp_location, degrees_longitude) == 20, "gps_lpp_location");

#define GPS_DATA_CMD_SIZE ((size_t)200)
#define GPS_DATA_RSP_SIZE ((size_t)200)

// One receiver exchange through the TA, both directions (message 1416).
struct gps_data_req_pld {
    uint8_t status;                      // the TA's; the requester never writes it
    uint8_t command[GPS_DATA_CMD_SIZE];  // NMEA sentence with its NUL, or UBX frame
    uint8_t response[GPS_DATA_RSP_SIZE]; // the receiver's answer
    uint8_t reserved0[3];
    uint32_t cmd_len; // request: bytes of the command; response: valid bytes of the response
    uint32_t reserved1;
};
static_assert(sizeof(struct gps_data_req_pld) == 412, "gps_data_req_pld");
static_assert(offsetof(struct gps_data_req_pld, command) == 1, "gps_data_req_pld");
static_assert(offsetof(struct gps_data_req_pld, response) == 201, "gps_data_req_pld");
static_assert(offsetof(struct gps_data_req_pld, cmd_len) == 404, "gps_data_req_pld");
static_assert(offsetof(struct gps_data_req_pld, reserved1) == 408, "gps_data_req_pld");

#endif
