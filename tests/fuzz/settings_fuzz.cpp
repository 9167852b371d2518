// The settings library on any bytes in the place of its database, and of the -wal beside it.
//
// The size of the database (2 bytes), the database, the -wal.
#include "fuzz_target.h"

#include "dbhandler_admin.h"

void fuzz(fuzz_input input) {
    // A name of its own: a read that takes too long gives what was last read of that name.
    static unsigned number = 0;
    const std::string name = std::to_string(++number);
    setenv("DBHANDLER_FILE", name.c_str(), 1);
    for (const auto &left : std::filesystem::directory_iterator("."))
        std::filesystem::remove(left);
    const size_t length = input.number<uint16_t>();
    const std::string database(input.take(length));
    scratch_dir::write(name, database);
    if (!input.rest.empty())
        scratch_dir::write(name + "-wal", std::string(input.rest));

    db_settings seen = {};
    db_settings read = {};
    const int look = db_look_at_settings(&seen);
    if (db_read_location_history_settings(&read.history) == 0 &&
        db_read_gps_power_on_status(&read.gps_power_on_status) == 0 &&
        db_read_ta_power_on_status(&read.ta_power_on_status) == 0 && look == DB_LOOK_STORED)
        fuzz_expect(read.gps_power_on_status == seen.gps_power_on_status &&
                        read.ta_power_on_status == seen.ta_power_on_status &&
                        read.history.status == seen.history.status &&
                        read.history.interval == seen.history.interval,
                    "looking and reading see the same");
    if (db_set_gps_power_on_status(1) == 0 &&
        db_read_gps_power_on_status(&read.gps_power_on_status) == 0)
        fuzz_expect(read.gps_power_on_status == 1, "what is set is set");
    fuzz_expect(look != DB_LOOK_NOT_OURS || scratch_dir::read(name) == database,
                "what never was ours is left alone");
}
