/* The settings database of the terminal, as far as the location service uses it.
 *
 * Safe from any thread; 0 for success and anything else for failure, in which case the result is
 * left untouched and the reason is in the log. A read waits for nobody who writes, and 100 ms at
 * most, then gives what was last read (the first read of a process: 1 s for a lock, 10 s for a slow
 * disk, then it fails). A write waits 1 s at most, then fails. A stored value that cannot be meant
 * is logged and read as its default; those that the record can hold are the caller's to judge.
 */
#ifndef DBHANDLER_H
#define DBHANDLER_H

#include <assert.h>
#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

struct location_history_settings {
    uint8_t status;    /* 1 = acquisition on, 0 = off */
    uint32_t interval; /* seconds; at offset 4 */
};
static_assert(sizeof(struct location_history_settings) == 8, "the terminal's record");
static_assert(offsetof(struct location_history_settings, interval) == 4, "the terminal's record");

int db_read_gps_power_on_status(int32_t *status); /* power mode to come up with: 0, 1 off, 2 on */
int db_set_gps_power_on_status(int32_t status);
int db_read_ta_power_on_status(int32_t *status); /* the antenna type */
int db_read_location_history_settings(struct location_history_settings *settings);

#ifdef __cplusplus
}
#endif

#endif
