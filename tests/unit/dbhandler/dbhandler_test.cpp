// The settings database through its exported calls, on files that the tests damage themselves.
#include "child.h"
#include "dbhandler_admin.h"
#include "scratch_dir.h"

#include <algorithm>
#include <array>
#include <csignal>
#include <regex>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sys/resource.h>

namespace {

namespace fs = std::filesystem;

class settings_db : public testing::Test {
  protected:
    scratch_dir dir;
    const fs::path file_ = dir.path() / "settings.db";

    void SetUp() override {
        setenv("DBHANDLER_FILE", file_.c_str(), 1);
        setenv("DBHANDLER_LOG", "stderr", 1);
    }

    // First column of the first row as text, or the error.
    std::string sql(const std::string &text) const {
        sqlite3 *db = nullptr;
        std::string result;
        sqlite3_open(file_.c_str(), &db);
        sqlite3_busy_timeout(db, 2000);
        const auto keep = [](void *to, int, char **values, char **) {
            *static_cast<std::string *>(to) = values[0] != nullptr ? values[0] : "NULL";
            return 0;
        };
        if (sqlite3_exec(db, text.c_str(), keep, &result, nullptr) != SQLITE_OK)
            result = sqlite3_errmsg(db);
        sqlite3_close(db);
        return result;
    }
    static auto damaged_copies() {
        const std::regex name("settings\\.db\\.damaged-\\d{8}-\\d{6}(-\\d+)?");
        return std::count_if(fs::directory_iterator("."), {}, [&name](const auto &entry) {
            return std::regex_match(entry.path().filename().string(), name);
        });
    }
};

TEST_F(settings_db, defaults_are_stored_and_setters_store_what_is_in_range) {
    int32_t gps = -7;
    EXPECT_EQ(db_read_gps_power_on_status(&gps), 0);
    EXPECT_EQ(sql("SELECT group_concat(name || '=' || value) FROM settings"),
              "gps_power_on_status=2,location_history_interval=60,location_history_status=0,"
              "ta_power_on_status=0");
    const auto history = [](uint8_t status, uint32_t interval) {
        const location_history_settings settings{status, interval};
        return db_set_location_history_settings(&settings);
    };
    EXPECT_NE(db_set_gps_power_on_status(3), 0);
    EXPECT_EQ(db_set_gps_power_on_status(0), 0);
    EXPECT_NE(db_set_ta_power_on_status(-1), 0);
    EXPECT_EQ(db_set_ta_power_on_status(4), 0);
    EXPECT_EQ(history(1, 4294967295U), 0);
    EXPECT_NE(history(0, 0), 0);
    EXPECT_NE(history(2, 5), 0);
    EXPECT_EQ(sql("SELECT group_concat(value) FROM settings"), "0,4294967295,1,4");
}

TEST_F(settings_db, values_stored_by_hand_are_checked) {
    const struct {
        const char *value, *readable; // as GPS status, antenna type, history status, interval
    } rows[] = {
        {"'on'", "----"}, {"1.5", "----"}, {"-1", "----"},         {"0", "yyy-"},
        {"2", "yy-y"},    {"3", "-y-y"},   {"2147483648", "---y"}, {"4294967296", "----"},
    };
    ASSERT_EQ(db_set_gps_power_on_status(1), 0);
    for (const auto &row : rows) {
        std::string readable;
        for (const char *name : {"gps_power_on_status", "ta_power_on_status",
                                 "location_history_status", "location_history_interval"}) {
            sql("DELETE FROM settings"); // rows that are missing count as defaults
            sql(std::string("INSERT INTO settings VALUES('") + name + "'," + row.value + ")");
            int32_t value = -77;
            location_history_settings history{77, 77};
            const int result = name[0] == 'l'   ? db_read_location_history_settings(&history)
                               : name[0] == 'g' ? db_read_gps_power_on_status(&value)
                                                : db_read_ta_power_on_status(&value);
            readable += result == 0 ? 'y' : '-';
            EXPECT_EQ(value == -77 && history.status == 77 && history.interval == 77, result != 0)
                << name << " " << row.value;
        }
        EXPECT_EQ(readable, row.readable) << row.value;
    }
    EXPECT_TRUE(damaged_copies() == 0);
}

TEST_F(settings_db, a_damaged_file_is_kept_and_defaults_serve) {
    ASSERT_EQ(db_set_gps_power_on_status(1), 0);
    fs::remove("settings.db-wal");
    fs::remove("settings.db-shm");
    const std::string good = dir.read(file_);
    ASSERT_GE(good.size(), 8192U);
    const struct {
        const char *name;
        std::string content;
    } rows[] = {
        {"ten bytes", "0123456789"},
        {"second page lost", good.substr(0, 4096)},
        {"second page overwritten", good.substr(0, 4096) + std::string(4096, 'y')},
    };
    int copies = 0;
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        dir.write(file_, row.content);
        dir.write("settings.db-wal", "left over");
        testing::internal::CaptureStderr();
        int32_t value = -7;
        EXPECT_EQ(db_read_gps_power_on_status(&value), 0);
        EXPECT_EQ(value, 2);
        EXPECT_EQ(damaged_copies(), ++copies);
        const std::string log = testing::internal::GetCapturedStderr();
        const size_t name = log.find("settings.db.damaged-2");
        ASSERT_NE(name, std::string::npos) << log;
        const std::string copy = log.substr(name, log.find(',', name) - name);
        EXPECT_TRUE(dir.read(copy) == row.content);
        EXPECT_EQ(dir.read(copy + "-wal"), "left over");
        EXPECT_EQ(db_set_gps_power_on_status(0), 0);
    }
}

TEST_F(settings_db, a_file_that_cannot_be_used_now_is_left_alone) {
    ASSERT_EQ(db_set_gps_power_on_status(1), 0);

    sqlite3 *writer = nullptr;
    sqlite3_open(file_.c_str(), &writer);
    sqlite3_exec(writer, "BEGIN EXCLUSIVE", nullptr, nullptr, nullptr);
    int32_t value = -7;
    EXPECT_EQ(db_read_gps_power_on_status(&value), 0) << "a reader does not wait for a writer";
    EXPECT_EQ(value, 1);
    EXPECT_NE(db_set_gps_power_on_status(0), 0) << "busy";
    sqlite3_close(writer);

    EXPECT_EQ(run_in_child([] { // nothing can be written: a full disk
                  signal(SIGXFSZ, SIG_IGN);
                  const rlimit none{0, 0};
                  setrlimit(RLIMIT_FSIZE, &none);
                  return db_set_gps_power_on_status(0) != 0;
              }),
              1)
        << "full";

    EXPECT_TRUE(damaged_copies() == 0);
    EXPECT_EQ(db_read_gps_power_on_status(&value), 0);
    EXPECT_EQ(value, 1);
}

TEST_F(settings_db, processes_that_find_the_same_damage_repair_it_once) {
    for (const std::string &start : {std::string(9000, 'x'), std::string()}) {
        dir.write(file_, start);
        int gate[2];
        ASSERT_EQ(pipe2(gate, O_CLOEXEC), 0);
        std::array<pid_t, 6> children{};
        for (int i = 0; pid_t & child : children)
            child = start_child([&gate, wanted = i++] {
                char byte = 0;
                close(gate[1]);
                int32_t value = -7;
                const bool let_go = read(gate[0], &byte, 1) == 0;
                return let_go && db_set_ta_power_on_status(wanted) == 0 &&
                       db_read_gps_power_on_status(&value) == 0 && value == 2;
            });
        close(gate[0]);
        close(gate[1]); // all start now
        for (const pid_t child : children)
            EXPECT_EQ(end_of_child(child), 1);
        EXPECT_EQ(damaged_copies(), 1) << "an empty file is a new one, not a damaged one";
        EXPECT_EQ(sql("PRAGMA integrity_check"), "ok");
    }
}

} // namespace
