/* Settings calls for tools, in a library of their own: libdbhandler_admin.so. They write what the
 * location service only reads; the service itself knows neither header nor library. A terminal
 * whose libdbhandler is another one has none of this: a program that should start there too loads
 * the library when it is needed.
 *
 * Any thread. 0 for success, anything else for failure: refused, locked by others for a second, or
 * the reason in the log; the settings are then as they were. One exception: when the disk itself
 * takes more than the second, the call fails and the change may still arrive. A damaged database is
 * left as it is: only the service's own library sets it aside.
 */
#ifndef DBHANDLER_ADMIN_H
#define DBHANDLER_ADMIN_H

#include "dbhandler.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Members of a db_settings. */
enum db_settings_member {
    DB_HISTORY_STATUS = 1,
    DB_HISTORY_INTERVAL = 2,
    DB_TA_POWER_ON_STATUS = 4,
    DB_GPS_POWER_ON_STATUS = 8
};

struct db_settings {
    struct location_history_settings history;
    int32_t ta_power_on_status; /* the antenna type */
    int32_t gps_power_on_status;
};

/* Stores the named members of `wanted` (one or more, or-ed) as one change. The others stay as they
 * are stored, whoever else changes them at the same time. `stored`, unless null, is then filled
 * with all settings as this change left them. Refused: null, status other than 0 and 1, interval 0,
 * negative antenna type, power-on status other than 0 to 2. */
int db_change_settings(unsigned members, const struct db_settings *wanted,
                       struct db_settings *stored);

/* The same for both values of the history. */
int db_set_location_history_settings(const struct location_history_settings *settings);

/* The same for the antenna type. */
int db_set_ta_power_on_status(int32_t status);

/* What db_look_at_settings found. */
enum db_look {
    DB_LOOK_STORED = 0,
    DB_LOOK_ABSENT = 1,   /* no file, or nothing in it yet: the defaults serve */
    DB_LOOK_NOT_OURS = 2, /* what is there is no settings database */
    DB_LOOK_DAMAGED = 3,  /* it was one; the service sets it aside when it reads it */
    DB_LOOK_DENIED = 4,   /* this user may not read it */
    DB_LOOK_FAILED = 5    /* locked by others for a second, or the reason is in the log */
};

/* Reads all settings and writes nothing: no file is made, moved or changed, also for a user who may
 * only read. Returns an enum db_look; fills `settings` with the first two. In libdbhandler.so
 * itself, to be looked up by its name when it is needed: it speaks for the library that the service
 * uses, and another libdbhandler does not have it. */
int db_look_at_settings(struct db_settings *settings);

/* Path of the settings file: environment DBHANDLER_FILE, unless the process is privileged, else
 * "/user/settings.db". Not to be freed; valid until the environment changes. */
const char *db_settings_file(void);

#ifdef __cplusplus
}
#endif

#endif
