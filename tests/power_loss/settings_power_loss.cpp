// The settings database after a power loss, as libdbhandler opens it: the settings are those behind
// the last change that was acknowledged, or behind the one that was being made, never something in
// between; a database is set aside only if it was damaged before; changes are stored as ever.
#include "dbhandler_admin.h"
#include "power_loss.h"

#include <chrono>
#include <sstream>

namespace {

using namespace std::string_literals; // for a NUL among them

std::vector<std::string> model; // the settings behind each change; the first: the defaults
db_settings next;               // those behind the last one

std::string text_of(const db_settings &all) {
    std::ostringstream text;
    text << all.gps_power_on_status << " " << all.ta_power_on_status << " "
         << int{all.history.status} << " " << all.history.interval;
    return text.str();
}

// A call may find its thread too slow on a busy machine; a state that is bad stays so.
template <typename Call>
bool succeeds(Call call) {
    const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (call() != 0)
        if (std::chrono::steady_clock::now() > limit)
            return false;
    return true;
}

// As the service reads them.
db_settings read_all() {
    db_settings all = {{}, -7, -7};
    EXPECT_TRUE(succeeds([&] {
        return db_read_gps_power_on_status(&all.gps_power_on_status) |
               db_read_ta_power_on_status(&all.ta_power_on_status) |
               db_read_location_history_settings(&all.history);
    }));
    return all;
}

// Of one setting and of all in turns; the service writes the one, a tool all.
void make_changes(int count) {
    for (int i = 0; i < count; ++i) {
        const auto number = static_cast<int32_t>(model.size());
        const bool all = number % 2 == 0;
        if (all)
            next = {{number % 4 == 0, static_cast<uint32_t>(number)}, number, 0};
        next.gps_power_on_status = number % 3;
        model.push_back(text_of(next));
        power_loss::acknowledged([&] {
            return succeeds([&] {
                return all ? db_change_settings(15, &next, nullptr)
                           : db_set_gps_power_on_status(next.gps_power_on_status);
            });
        });
    }
}

// `damaged`: what stood in the database's place at first, if anything.
void check(const power_loss::state &state, const std::string &damaged) {
    // The library remembers what it read of a name.
    const std::string directory = "state-" + std::to_string(state.number);
    std::filesystem::rename("run", directory);
    setenv("DBHANDLER_FILE", (directory + "/settings.db").c_str(), 1);
    db_settings stored = read_all();
    const auto first = model.begin() + static_cast<long>(state.acknowledged);
    const auto end = model.begin() + static_cast<long>(state.begun) + 1;
    ASSERT_NE(std::find(first, end, text_of(stored)), end) << text_of(stored);
    stored.gps_power_on_status = (stored.gps_power_on_status + 1) % 3;
    EXPECT_TRUE(succeeds([&] { return db_set_gps_power_on_status(stored.gps_power_on_status); }));
    EXPECT_EQ(text_of(read_all()), text_of(stored));
    db_settings seen = {};
    EXPECT_EQ(db_look_at_settings(&seen), DB_LOOK_STORED);
    size_t copies = 0;
    bool kept = damaged.empty();
    for (const auto &entry : std::filesystem::directory_iterator(directory)) {
        copies += entry.path().string().find(".damaged-") != std::string::npos;
        kept = kept || scratch_dir::read(entry.path()) == damaged;
    }
    EXPECT_TRUE(kept && (copies == 0 || !damaged.empty())) << copies;
    std::filesystem::remove_all(directory);
}

void run(const char *name, const std::string &damaged, const std::function<void()> &action) {
    const scratch_dir dir;
    std::filesystem::create_directories("run");
    if (!damaged.empty()) {
        scratch_dir::write("run/settings.db", damaged);
        scratch_dir::write("run/settings.db-wal", "left over");
    }
    setenv("DBHANDLER_FILE", "run/settings.db", 1);
    setenv("DBHANDLER_LOG", "stderr", 1);
    next = {{0, 60}, 0, 2};
    model = {text_of(next)};
    testing::internal::CaptureStderr();
    power_loss::test(name, "run", action, [&](const auto &state) { check(state, damaged); });
    const std::string log = testing::internal::GetCapturedStderr();
    EXPECT_FALSE(testing::Test::HasFailure())
        << log.substr(log.size() - std::min<size_t>(log.size(), 1000));
}

// At first nobody has the database open, as with a tool: each change ends with all of it in the
// database itself. Then a reader keeps it open, as the service does: the log of changes grows.
TEST(power_loss, made_and_changed) {
    run(
        "settings", "",
        [] {
            make_changes(4);
            EXPECT_EQ(text_of(read_all()), model.back());
            make_changes(40);
        });
}

TEST(power_loss, set_aside_when_damaged) {
    run(
        "damaged settings", "SQLite format 3\0"s + std::string(8000, 'y'),
        [] {
            EXPECT_EQ(text_of(read_all()), model.back());
            make_changes(3);
        });
}

} // namespace
