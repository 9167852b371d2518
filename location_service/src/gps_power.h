// Receiver power and device bring-up.
#ifndef GPS_POWER_H
#define GPS_POWER_H

#include <cstdint>

// --- gps_power.cpp: power modes. Callers serialise (gps_access_lock), or run alone at start-up.

// The mode in force. Always 0.
int32_t gps_get_power_mode(uint32_t *mode);

// --- gps_power_device.cpp: bring-up and take-down, on the main thread. 0, or -1 (logged).

int ls_hal_init_device(int32_t board_type);
void ls_hal_deinit_device(int32_t board_type);

#endif
