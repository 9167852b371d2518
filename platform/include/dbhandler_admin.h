/* Settings calls for tools. They write what the location service only reads; the service itself
 * never includes this header. Same rules as dbhandler.h: any thread, 0 for success, anything else
 * for failure, and a failed call has changed nothing.
 */
#ifndef DBHANDLER_ADMIN_H
#define DBHANDLER_ADMIN_H

#include "dbhandler.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Stores both values as one change. Refused: null, status other than 0 and 1, interval 0. */
int db_set_location_history_settings(const struct location_history_settings *settings);

/* Stores the antenna type. Refused: negative values. */
int db_set_ta_power_on_status(int32_t status);

/* Path of the settings file: environment DBHANDLER_FILE, else "/user/settings.db". Not to be freed;
 * valid until the environment changes. */
const char *db_settings_file(void);

#ifdef __cplusplus
}
#endif

#endif
