// The library's two threads, one that reads and one that writes, and the waits for them. A caller
// waits for a limited time, whatever a lock, the disk or another process does to the thread.
//
// Any thread may call. The threads start at the first use; a fork finds them at rest, and its
// child begins with none and nothing open.
#ifndef DBHANDLER_WORKER_H
#define DBHANDLER_WORKER_H

#include "dbhandler_admin.h"
#include "dbhandler_store.h"

// All values of one moment. Waits 100 ms at most, then gives the values of the last read of this
// file, with a line in the log. Where there was none it waits for a lock 1 s, and for a slow disk
// 10 s. False: the reason is in the log.
bool settings_read(settings_values &values);

// As store_look, at settings_path(), on the caller's thread. Waits 1 s at most for locks, and for
// the disk without a limit: for tools.
outcome settings_look(settings_values &values);

// As store_write, at settings_path(). Waits 1 s at most. False: the reason is in the log.
bool settings_write(std::span<const setting_change> changes, bool repair, settings_values &after);

// The values as a record.
inline db_settings settings_record(const settings_values &values) {
    return {{static_cast<uint8_t>(values[location_history_status]),
             static_cast<uint32_t>(values[location_history_interval])},
            static_cast<int32_t>(values[ta_power_on_status]),
            static_cast<int32_t>(values[gps_power_on_status])};
}

#endif
