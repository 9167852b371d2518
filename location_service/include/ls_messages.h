// Bus messages of the location service: service ids, message ids, payload records.
//
// Byte layout: little-endian, natural alignment, asserted under each record. A record is copied out
// of or into a payload with memcpy; a received payload may be short and is never cast. C11 and C++.
#ifndef LS_MESSAGES_H
#define LS_MESSAGES_H

#include "gps_data.h"

enum ls_msg_type LS_ENUM_TYPE(uint8_t){
    LS_MSG_REQUEST = 0,
    LS_MSG_RESPONSE = 1,
    LS_MSG_NOTIFICATION = 2,
};

enum ls_serv_id LS_ENUM_TYPE(uint8_t){
    LS_SERV_SAL = 2,      // cellular side: asks for LPP parameters
    LS_SERV_VOIP = 3,     // client, is told power changes
    LS_SERV_WS = 6,       // client, owns the history settings, receives alarms
    LS_OWN_SERV_ID = 8,   // this service
    LS_SERV_CLIENT_9 = 9, // its requests wake the receiver
    LS_SERV_TA = 12,      // carries receiver traffic on board type 2
};

// Received and sent.
enum ls_msg_id LS_ENUM_TYPE(uint32_t){
    SAL_REQUEST_LPP_CAPABILITIES = 18,
    SAL_REQUEST_GNSS_LOCATION = 19,
    SS_NOTIFY_CFUN_LEVEL = 201,
    SAL_REQUEST_PROVIDE_GNSS_LOCATION_TO_CP = 208,
    SCM_RESPONSE_REGISTRATION = 407,
    WS_NOTIFY_LOCATION_HISTORY_ACQUISTION_CONFIG_UPDATE = 808,
    WS_NOTIFY_ALARM_UPDATE = 810,
    LS_REQUEST_GET_POWER_MODE = 1001,
    LS_REQUEST_SET_POWER_MODE = 1002,
    LS_REQUEST_GET_POSITION = 1003,
    LS_REQUEST_GET_TIME = 1004,
    LS_REQUEST_GET_SAT_INFO = 1005,
    LS_REQUEST_GET_SPEED = 1006,
    LS_REQUEST_REGISTER_PERIODIC_UPDATE = 1007,
    LS_REQUEST_REGISTER_PERIODIC_UPDATE_LB = 1008,
    LS_REQUEST_UNREGISTER_PERIODIC_UPDATE = 1009,
    LS_NOTIFY_PERIODIC_UPDATE = 1010,
    LS_EXEC_NMEA_CMD = 1011,
    LS_EXEC_UBX_CMD = 1012,
    LS_REQUEST_GET_HISTORY_FILE_PATH = 1013,
    LS_NOTIFY_POWER_MODE = 1014,
    TA_REQUEST_GPS_DATA = 1416,
    TA_NOTIFY_ANTENNA_TYPE = 1418,
};

// First word of every reply.
enum ls_reply_status LS_ENUM_TYPE(uint32_t){
    LS_STATUS_FAILED = 0, LS_STATUS_OK = 1,
    LS_STATUS_PASSED_THROUGH = 2, // the query itself returned 2 (receiver time-out)
};

// The antenna type that opens the request gate and the TA path.
#define LS_ANTENNA_TYPE_GNSS 4

// Answer to any request while the gate is closed: all zero.
#define LS_REFUSED_REPLY_SIZE ((size_t)8)

// 1001 and 1002.
struct ls_power_reply {
    uint32_t status;
    uint32_t power_mode; // gps_power_mode; 0 when a change failed
};
static_assert(sizeof(struct ls_power_reply) == 8, "ls_power_reply");
static_assert(offsetof(struct ls_power_reply, power_mode) == 4, "ls_power_reply");

// 1003, and notification 1010.
struct ls_position_reply {
    uint32_t status;
    uint8_t reserved[4];
    struct gps_pos_data pos; // zero on failure; a buffered one stays when the last query failed
};
static_assert(sizeof(struct ls_position_reply) == 80, "ls_position_reply");
static_assert(offsetof(struct ls_position_reply, pos) == 8, "ls_position_reply");

// 1004.
struct ls_time_reply {
    uint32_t status;
    struct gps_time_fields time;
    uint8_t reserved[2];
    uint32_t time_of_week; // seconds, UTC
};
static_assert(sizeof(struct ls_time_reply) == 20, "ls_time_reply");
static_assert(offsetof(struct ls_time_reply, time) == 4, "ls_time_reply");
static_assert(offsetof(struct ls_time_reply, time_of_week) == 16, "ls_time_reply");

// 1005.
struct ls_sat_info_reply {
    uint32_t status;
    struct gps_sat_info info;
};
static_assert(sizeof(struct ls_sat_info_reply) == 52, "ls_sat_info_reply");
static_assert(offsetof(struct ls_sat_info_reply, info) == 4, "ls_sat_info_reply");

// 1006.
struct ls_speed_reply {
    uint32_t status;
    struct gps_speed_data speed;
};
static_assert(sizeof(struct ls_speed_reply) == 16, "ls_speed_reply");
static_assert(offsetof(struct ls_speed_reply, speed) == 4, "ls_speed_reply");

// 1007, request.
struct ls_register_periodic_req_pld_s {
    uint32_t num_updates; // notifications wanted; 0 is refused
    uint32_t interval;    // seconds; below 4 is refused
};
static_assert(sizeof(struct ls_register_periodic_req_pld_s) == 8, "ls_register_periodic_req_pld_s");
static_assert(offsetof(struct ls_register_periodic_req_pld_s, interval) == 4,
              "ls_register_periodic_req_pld_s");

// 1007 and 1009, reply: 1 done, 0 refused.
struct ls_periodic_reply {
    uint32_t result;
};
static_assert(sizeof(struct ls_periodic_reply) == 4, "ls_periodic_reply");

#define LS_ENGG_CMD_SIZE ((size_t)80)
#define LS_ENGG_ANSWER_SIZE ((size_t)200)

// 1011 and 1012, request and reply.
struct ls_engg_cmd {
    uint32_t status;                     // reply only
    char command[LS_ENGG_CMD_SIZE];      // NMEA body, or UBX bytes as hex separated by commas; NUL
    uint8_t answer[LS_ENGG_ANSWER_SIZE]; // the receiver's answer, zero-filled
};
static_assert(sizeof(struct ls_engg_cmd) == 284, "ls_engg_cmd");
static_assert(offsetof(struct ls_engg_cmd, command) == 4, "ls_engg_cmd");
static_assert(offsetof(struct ls_engg_cmd, answer) == 84, "ls_engg_cmd");

// 1013.
struct ls_history_path_reply {
    uint32_t status; // 0 exported, 255 a line could not be written, 0xFFFFFFFF failed
    char path[100];
};
static_assert(sizeof(struct ls_history_path_reply) == 104, "ls_history_path_reply");
static_assert(offsetof(struct ls_history_path_reply, path) == 4, "ls_history_path_reply");

// 810, notification to WS.
struct ws_alarm_pld {
    char text[80];
    int64_t time; // wall clock, seconds since the epoch
    uint8_t reserved[8];
};
static_assert(sizeof(struct ws_alarm_pld) == 96, "ws_alarm_pld");
static_assert(offsetof(struct ws_alarm_pld, time) == 80, "ws_alarm_pld");
static_assert(offsetof(struct ws_alarm_pld, reserved) == 88, "ws_alarm_pld");

#endif
