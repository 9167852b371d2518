// Process-wide state of the daemon. Owner: gps_main gives each its first real value; everything is
// zero at process start. Scalars are atomic because workers, the bus callback, the signal thread
// and the platform's timer thread all read them; none guards another.
#ifndef LS_STATE_H
#define LS_STATE_H

#include "gps_data.h"
#include "mqutils.h"

#include <array>
#include <atomic>
#include <ctime>
#include <glib.h>
#include <mutex>
#include <semaphore.h>

constexpr size_t LS_STUB_LOCATION_SIZE = 23; // 22 characters of text and the line end

// Stored power-on status; 2 = on. Written at start-up and by 1002 requests of services 3, 6 and 9.
extern std::atomic<int32_t> mt_gps_status;
// Power mode in force (gps_power_mode). Written by gps_set_power_mode.
extern std::atomic<uint32_t> gps_current_power_mode_g;
// 1 = receiver on the local UART, 2 = receiver behind the TA. Written once at start-up.
extern std::atomic<int32_t> gps_board_type_g;
// Antenna type; 4 opens the gate and the TA path. Written at start-up and by notification 1418.
extern std::atomic<int32_t> antenna_type;
// 1 while the static location file says "= ON". Written by ls_read_stub_location.
extern std::atomic<int32_t> stub_location_on_g;
// Static location text; may be of another generation than the flag for a moment.
extern std::array<std::atomic<char>, LS_STUB_LOCATION_SIZE> ls_stub_location_buf;
// cfun level last announced by the modem; 0 until then. Written by notification 201.
extern std::atomic<uint32_t> gps_cfun_level_g;

// Control parameters, read once at start-up.
extern std::atomic<int32_t> rffe_req_sem_wait_time; // seconds a request through the TA may take
extern std::atomic<double> gps_pos_buffer_time;     // seconds a stored position is served
extern std::atomic<double> loc_hist_offset_time;    // seconds after start without history
// Nothing here may fall back to a lock inside libatomic, which no signal handler could take.
static_assert(std::atomic<double>::is_always_lock_free);

// CLOCK_MONOTONIC at start-up; written before any other thread runs.
extern timespec ls_start_time;

// Hand-off of the TA's answer from the bus callback to the waiting receiver request.
extern sem_t ta_data_sem;
extern std::mutex ta_data_mutex;                // guards ta_req_timed_out_g and ta_data_req_pld
extern std::atomic<int32_t> ta_req_timed_out_g; // 1 = gave up; the next answer is a late one
extern gps_data_req_pld ta_data_req_pld;        // the one exchange buffer of the TA path

// The one bus connection; null before registration and after a failed one.
extern std::atomic<scm_conn *> gps_p_g;

// Requests that are using the receiver; decides whether it is powered down after a reply.
extern std::mutex pending_req_lock; // guards pending_req_count in the request handlers
extern std::atomic<int32_t> pending_req_count;
// One receiver query of a request handler or periodic update at a time.
extern std::mutex gps_access_lock;

// 1 once a UBX command that is to be answered was written during configuration; a plain mark.
extern std::atomic<uint8_t> gps_ubx_cmd_pending_g;

extern std::atomic<GMainLoop *> ls_main_loop;

// The system-state id of every vote of this service.
constexpr int LS_SYSTEM_STATE_ID = 3;

#endif
