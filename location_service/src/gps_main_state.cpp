// The process-wide state itself; meaning, owner and lock of each stand in ls_state.h.
#include "ls_state.h"

std::atomic<int32_t> mt_gps_status;
std::atomic<uint32_t> gps_current_power_mode_g;
std::atomic<int32_t> gps_board_type_g;
std::atomic<int32_t> antenna_type;
std::atomic<int32_t> stub_location_on_g;
std::array<std::atomic<char>, LS_STUB_LOCATION_SIZE> ls_stub_location_buf;
std::atomic<uint32_t> gps_cfun_level_g;

std::atomic<int32_t> rffe_req_sem_wait_time;
std::atomic<double> gps_pos_buffer_time;
std::atomic<double> loc_hist_offset_time;

timespec ls_start_time;

sem_t ta_data_sem;
std::mutex ta_data_mutex;
std::atomic<int32_t> ta_req_timed_out_g;
gps_data_req_pld ta_data_req_pld;

std::atomic<scm_conn *> gps_p_g;

std::mutex pending_req_lock;
std::atomic<int32_t> pending_req_count;
std::mutex gps_access_lock;

std::atomic<uint8_t> gps_ubx_cmd_pending_g;

std::atomic<GMainLoop *> ls_main_loop;
