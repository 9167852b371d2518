// The settings as rows of one table, settings(name TEXT PRIMARY KEY, value INTEGER), of an opened
// database. A row that is missing counts as its default, so a later version may add settings and a
// technician may delete a row. Threads and waits are the caller's, see dbhandler_store.h.
#ifndef DBHANDLER_ROWS_H
#define DBHANDLER_ROWS_H

#include "dbhandler_store.h"

#include <string>

// What a result of SQLite comes to; what is no common one is logged with `what`.
outcome judge(sqlite3 *db, int result, const char *what);
outcome execute(sqlite3 *db, const char *sql);

// The values that cannot be meant, as they are stored.
struct finding {
    std::array<bool, setting_count> impossible{};
    std::array<std::string, setting_count> text;
};

outcome read_values(sqlite3 *db, settings_values &values, finding &found);
// One line a change, not one a read.
void complain(open_settings &link, const finding &found);

outcome upsert(sqlite3 *db, std::span<const setting_change> changes);
outcome create_table(sqlite3 *db); // with the defaults

#endif
