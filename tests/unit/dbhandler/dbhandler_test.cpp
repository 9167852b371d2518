// The settings database through its exported calls, on files that the tests damage themselves.
#include "child.h"
#include "dbhandler_admin.h"
#include "scratch_dir.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <csignal>
#include <functional>
#include <regex>
#include <sstream>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sys/file.h>
#include <sys/stat.h>

namespace {

namespace fs = std::filesystem;
using std::chrono::seconds;

auto now() {
    return std::chrono::steady_clock::now();
}

constexpr int32_t UNREAD = -7;

// The stored power-on status; UNREAD, and nothing stored, when there is none to be had.
int32_t power() {
    int32_t value = UNREAD;
    const bool is_read = db_read_gps_power_on_status(&value) == 0;
    EXPECT_EQ(is_read, value != UNREAD);
    return value;
}

// On a busy machine a read may be too slow, and the values of the one before serve; or a change.
template <typename Call>
bool in_time(Call call) {
    const auto limit = now() + seconds(60);
    while (!call())
        if (now() > limit)
            return false;
    return true;
}
bool power_becomes(int32_t wanted) {
    return in_time([wanted] { return power() == wanted; });
}
bool stored(int32_t status) {
    return in_time([status] { return db_set_gps_power_on_status(status) == 0; });
}

// A child that has come to its stop(), from which kill(SIGCONT) wakes it.
template <typename Body>
pid_t start_to_stop(Body body) {
    int status = 0;
    const pid_t child = start_child(body);
    waitpid(child, &status, WUNTRACED);
    EXPECT_TRUE(WIFSTOPPED(status));
    return child;
}
bool stop() {
    return raise(SIGSTOP) == 0;
}

// Every lock of the -shm, as one in a recovery.
bool hold_shm() {
    const int shm = open("settings.db-shm", O_RDWR | O_CLOEXEC);
    struct flock all = {};
    all.l_type = F_WRLCK;
    all.l_start = 120;
    all.l_len = 8;
    return fcntl(shm, F_SETLKW, &all) == 0;
}

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
    // The bytes of a sound database with power-on status 1; nothing stays of the files.
    std::string make_database() const {
        sql("CREATE TABLE settings(name TEXT PRIMARY KEY NOT NULL, value INTEGER NOT NULL) "
            "WITHOUT ROWID; INSERT INTO settings VALUES('gps_power_on_status', 1)");
        sql("PRAGMA journal_mode=WAL");
        std::string bytes = dir.read(file_);
        fs::remove(file_);
        return bytes;
    }
    static std::vector<fs::path> damaged_copies() {
        const std::regex name("\\./settings\\.db\\.damaged-\\d{8}-\\d{6}(-\\d+)?");
        std::vector<fs::path> found(fs::directory_iterator("."), {});
        std::erase_if(found,
                      [&](const fs::path &path) { return !std::regex_match(path.string(), name); });
        return found;
    }
    void clear() const {
        chmod(dir.path().c_str(), 0777);
        for (const fs::path &path : std::vector<fs::path>(fs::directory_iterator("."), {}))
            if (path.string().find("settings.db") != std::string::npos)
                fs::remove(path);
    }
};

TEST_F(settings_db, defaults_are_stored_and_changes_in_range_hold_together) {
    EXPECT_EQ(power(), 2);
    EXPECT_EQ(sql("SELECT group_concat(name || '=' || value) FROM settings"),
              "gps_power_on_status=2,location_history_interval=60,location_history_status=0,"
              "ta_power_on_status=0");
    const struct {
        unsigned members;
        db_settings wanted;
        const char *result, *stored; // power, interval, status, antenna
    } rows[] = {
        {8, {{}, 0, 3}, "refused", "2,60,0,0"},
        {8, {{}, 0, 0}, "stored", "0,60,0,0"},
        {4, {{}, -1, 0}, "refused", "0,60,0,0"},
        {4, {{}, 4, 9}, "stored", "0,60,0,4"},
        {3, {{1, 4294967295U}, 0, 0}, "stored", "0,4294967295,1,4"},
        {3, {{0, 0}, 0, 0}, "refused", "0,4294967295,1,4"},
        {3, {{2, 5}, 0, 0}, "refused", "0,4294967295,1,4"},
        {9, {{0, 5}, 0, 1}, "stored", "1,4294967295,0,4"},
        {0, {}, "refused", "1,4294967295,0,4"},
        {17, {{1, 5}, 0, 0}, "refused", "1,4294967295,0,4"},
    };
    for (const auto &row : rows) {
        const auto change = [&] {
            return db_change_settings(row.members, &row.wanted, nullptr) == 0;
        };
        const bool is_stored = row.result[0] == 's' ? in_time(change) : change();
        EXPECT_STREQ(is_stored ? "stored" : "refused", row.result) << row.members;
        EXPECT_EQ(sql("SELECT group_concat(value) FROM settings"), row.stored) << row.members;
    }
}

TEST_F(settings_db, a_value_that_cannot_be_meant_counts_as_its_default_and_is_logged_once) {
    const struct {
        const char *value, *read; // power, antenna, status, interval
        int logged;
    } rows[] = {
        {"'on'", "2 0 0 60", 4},       {"-1", "-1 0 0 60", 3},
        {"0", "0 0 0 60", 1},          {"255", "255 255 255 255", 0},
        {"256", "256 256 0 256", 1},   {"2147483648", "2 0 0 2147483648", 3},
        {"4294967296", "2 0 0 60", 4},
    };
    const auto read = [] {
        int32_t antenna = -77;
        location_history_settings history{77, 77};
        std::ostringstream text;
        text << power();
        EXPECT_EQ(db_read_ta_power_on_status(&antenna), 0);
        EXPECT_EQ(db_read_location_history_settings(&history), 0);
        text << ' ' << antenna << ' ' << int{history.status} << ' ' << history.interval;
        return text.str();
    };
    ASSERT_TRUE(stored(1));
    for (const auto &row : rows) {
        sql(std::string("UPDATE settings SET value = ") + row.value);
        testing::internal::CaptureStderr();
        for (int i = 0; i < 2; i++)
            EXPECT_TRUE(in_time([&] { return read() == row.read; })) << row.value << read();
        const std::string log = testing::internal::GetCapturedStderr();
        const std::regex line("its default, ");
        EXPECT_EQ(std::distance(std::sregex_iterator(log.begin(), log.end(), line), {}), row.logged)
            << row.value << log;
    }
}

TEST_F(settings_db, of_processes_that_find_damage_one_keeps_the_file_and_defaults_serve_all) {
    const std::string good = make_database();
    ASSERT_GE(good.size(), 8192U);
    for (const std::string &content : {good.substr(0, 16), good.substr(0, 4096),
                                       good.substr(0, 4096) + std::string(4096, 'y')}) {
        dir.write(file_, content);
        dir.write("settings.db-wal", "left over");
        std::array<pid_t, 6> children{};
        for (pid_t &child : children)
            child = start_to_stop([] { return stop() && stored(2) && power_becomes(2); });
        for (const pid_t child : children)
            kill(child, SIGCONT);
        for (const pid_t child : children)
            EXPECT_EQ(end_of_child(child), 1);
        const std::vector<fs::path> copies = damaged_copies();
        ASSERT_EQ(copies.size(), 1U) << content.size();
        EXPECT_TRUE(dir.read(copies[0]) == content);
        EXPECT_EQ(dir.read(copies[0].string() + "-wal"), "left over");
        clear();
    }
}

// As root, who may do all: so looks are made by nobody in a child. What can only be read there is
// read, too.
TEST_F(settings_db, what_is_not_ours_or_cannot_be_had_is_told_and_left_as_it_is) {
    const std::string good = make_database(), half = good.substr(0, 4096);
    dir.write("elsewhere", good);
    const struct {
        const char *name;
        std::function<void()> make;
        int look;
        mode_t directory = 0777;
    } rows[] = {
        {"nothing", [] {}, DB_LOOK_ABSENT},
        {"empty", [&] { dir.write(file_, ""); }, DB_LOOK_ABSENT},
        {"damaged", [&] { dir.write(file_, half); }, DB_LOOK_DAMAGED},
        {"alone", [&] { dir.write(file_, good); }, DB_LOOK_STORED},
        {"alone, read only", [&] { dir.write(file_, good); }, DB_LOOK_STORED, 0555},
        {"denied",
         [&] {
             dir.write(file_, good);
             chmod(file_.c_str(), 0);
         },
         DB_LOOK_DENIED},
        {"text", [&] { dir.write(file_, "interval = 60\n" + good); }, DB_LOOK_NOT_OURS},
        {"fifo", [&] { ASSERT_EQ(mkfifo(file_.c_str(), 0666), 0); }, DB_LOOK_NOT_OURS},
        {"link", [&] { fs::create_symlink("elsewhere", file_); }, DB_LOOK_NOT_OURS},
        {"of others", [&] { sql("CREATE TABLE bookmarks(x)"); }, DB_LOOK_NOT_OURS},
    };
    const auto names = [] { return std::distance(fs::directory_iterator("."), {}); };
    const auto content = [this] { return fs::is_regular_file(file_) ? dir.read(file_) : ""; };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        clear();
        row.make();
        ASSERT_EQ(chmod(dir.path().c_str(), row.directory), 0);
        const auto names_before = names();
        const std::string before = content();
        EXPECT_EQ(run_in_child([&] {
                      db_settings seen{};
                      return (getuid() != 0 || setuid(65534) == 0) &&
                             db_look_at_settings(&seen) == row.look &&
                             (row.look != DB_LOOK_STORED || seen.gps_power_on_status == 1) &&
                             (row.directory != 0555 ||
                              (power() == 1 && db_set_gps_power_on_status(0) != 0));
                  }),
                  1);
        EXPECT_EQ(names(), names_before);
        if (row.look == DB_LOOK_NOT_OURS) {
            EXPECT_EQ(power(), UNREAD);
            EXPECT_NE(db_set_gps_power_on_status(0), 0);
            EXPECT_EQ(names(), names_before + 1) << "its lock";
        } else if (row.look == DB_LOOK_DAMAGED) {
            EXPECT_NE(db_set_ta_power_on_status(4), 0) << "a tool repairs nothing";
        }
        EXPECT_TRUE(content() == before);
    }
    EXPECT_TRUE(dir.read("elsewhere") == good);
}

TEST_F(settings_db, a_read_needs_no_lock_file_and_waits_for_no_writer) {
    ASSERT_TRUE(stored(1));
    const int lock = open("settings.db.lock", O_RDONLY | O_CLOEXEC);
    ASSERT_EQ(flock(lock, LOCK_EX), 0);
    sqlite3 *writer = nullptr;
    sqlite3_open(file_.c_str(), &writer);
    sqlite3_exec(writer, "UPDATE settings SET value = 0; BEGIN EXCLUSIVE", nullptr, nullptr,
                 nullptr);
    EXPECT_TRUE(power_becomes(0)); // one that is kept out gets the last value
    const auto refused = [](const char *why) {
        const auto from = now();
        EXPECT_NE(db_set_gps_power_on_status(2), 0) << why;
        EXPECT_LT(now() - from, seconds(10)) << why;
    };
    refused("lock file");
    close(lock);
    refused("another writer");
    sqlite3_close(writer);
    EXPECT_TRUE(stored(2));
}

TEST_F(settings_db, a_reader_that_is_kept_out_gets_the_last_values) {
    ASSERT_TRUE(stored(1));
    testing::internal::CaptureStderr(); // a line that is repeated at once is not logged
    ASSERT_TRUE(power_becomes(1));
    const pid_t holder = start_to_stop([] { return hold_shm() && stop(); });
    const auto start = now();
    for (int i = 0; i < 10; i++)
        EXPECT_EQ(power(), 1);
    EXPECT_LT(now() - start, seconds(5));
    const std::string log = testing::internal::GetCapturedStderr();
    EXPECT_NE(log.find("the last read serve"), std::string::npos) << log;
    kill(holder, SIGKILL);
    EXPECT_EQ(end_of_child(holder), -1);
    sql("UPDATE settings SET value = 0");
    EXPECT_TRUE(power_becomes(0));
}

TEST_F(settings_db, the_first_read_waits_for_who_keeps_it_out) {
    const pid_t holder = start_to_stop([] { // its reading keeps the -shm
        const bool held = stored(1) && power_becomes(1) && hold_shm() && stop();
        std::this_thread::sleep_for(std::chrono::milliseconds(1500));
        return held;
    });
    kill(holder, SIGCONT);
    EXPECT_EQ(power(), 1);
    EXPECT_EQ(end_of_child(holder), 1);
}

TEST_F(settings_db, another_file_at_the_path_is_taken_up) {
    const std::string one = make_database();
    ASSERT_TRUE(stored(0));
    EXPECT_TRUE(power_becomes(0));
    for (const char *ending : {"-wal", "-shm"})
        fs::remove(file_.string() + ending);
    dir.write("restored", one);
    fs::rename("restored", file_);
    EXPECT_TRUE(power_becomes(1));
}

TEST_F(settings_db, changes_made_at_once_by_threads_and_processes_all_hold) {
    const auto change_one = [](unsigned member) {
        const db_settings wanted{{1, 7}, 4, 1};
        int good = 0;
        for (int i = 0; i < 5; i++) {
            db_settings stored{};
            location_history_settings history{};
            good += in_time([&] { return db_change_settings(member, &wanted, &stored) == 0; }) &&
                    in_time([&] {
                        return db_read_location_history_settings(&history) == 0 &&
                               (member != 2 || history.interval == 7);
                    }) &&
                    (member != 2 || stored.history.interval == 7);
        }
        return good == 5;
    };
    std::array<pid_t, 2> children{};
    for (int i = 0; pid_t & child : children)
        child = start_child([&, i = i++] {
            bool good = true;
            std::thread other([&] { good = change_one(1U << i); });
            const bool own = change_one(4U << i);
            other.join();
            return own && good;
        });
    for (const pid_t child : children)
        EXPECT_EQ(end_of_child(child), 1);
    EXPECT_EQ(sql("SELECT group_concat(value) FROM settings"), "1,7,1,4");
}

} // namespace
