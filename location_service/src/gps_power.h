// Receiver power: modes, configuration at power-on, device bring-up and take-down.
#ifndef GPS_POWER_H
#define GPS_POWER_H

#include <array>
#include <cstdint>

// The receiver's two power lines, always driven in this order.
inline constexpr std::array GPS_POWER_GPIOS = {102, 37};

// --- gps_power.cpp: power modes. Request handlers call them under gps_access_lock; the wake-up for
// service 9 (bus thread) and the power-down behind a reply (worker) do not wait for it. Changes are
// made one at a time under a lock of this module.

// The mode in force. Always 0.
int32_t gps_get_power_mode(uint32_t *mode);

// Applies a mode (gps_power_mode) for a service. 0 applied, also when it was on already; 1 refused:
// invalid mode, off while already off or while the stored status is not off, on by a service that
// may not while the stored status is off. For other services it first waits for the end of the
// receiver's configuration at start-up, 3 s at most.
int32_t gps_set_power_mode(uint32_t mode, uint32_t serv_id);

// --- gps_power_receiver.cpp: configuration at power-on, on the main thread at start-up. Holds
// ls_uart_lock over each frame that is acknowledged and its answer.

// Silences and configures the receiver over the serial line and saves the configuration. Takes
// about a second, and up to 80 s with a receiver that does not answer. 0; 1 when a command could
// not be built or written. A missing or negative acknowledge is logged and passed over.
int32_t ls_hal_power_on_gps();

// --- gps_power_device.cpp: bring-up and take-down, on the main thread. 0, or -1 (logged).

int ls_hal_init_gps();
int ls_hal_init_device(int32_t board_type);
void ls_hal_deinit_device(int32_t board_type);

#endif
