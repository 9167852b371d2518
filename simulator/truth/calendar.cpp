// Calendar and GPS time for the simulated world. Pure functions.
#include "calendar.h"

#include <array>
#include <chrono>
#include <cmath>

namespace sim {

namespace {

using std::chrono::sys_days;
using std::chrono::year_month_day;

constexpr double seconds_per_day = 86400.0;

constexpr sys_days day(int year, unsigned month, unsigned day_of_month) {
    return sys_days{year_month_day{std::chrono::year{year}, std::chrono::month{month},
                                   std::chrono::day{day_of_month}}};
}

constexpr sys_days gps_epoch = day(1980, 1, 6);

// Each day begins one second after the leap second before it.
constexpr std::array leap_days{
    day(1981, 7, 1), day(1982, 7, 1), day(1983, 7, 1), day(1985, 7, 1), day(1988, 1, 1),
    day(1990, 1, 1), day(1991, 1, 1), day(1992, 7, 1), day(1993, 7, 1), day(1994, 7, 1),
    day(1996, 1, 1), day(1997, 7, 1), day(1999, 1, 1), day(2006, 1, 1), day(2009, 1, 1),
    day(2012, 7, 1), day(2015, 7, 1), day(2017, 1, 1),
};

double unix_of_day(sys_days when) {
    return static_cast<double>(when.time_since_epoch().count()) * seconds_per_day;
}

sys_days day_of(const utc_date &date) {
    return day(date.year, static_cast<unsigned>(date.month), static_cast<unsigned>(date.day));
}

utc_date date_of(sys_days when) {
    const year_month_day parts{when};
    return {static_cast<int>(static_cast<unsigned>(parts.day())),
            static_cast<int>(static_cast<unsigned>(parts.month())), static_cast<int>(parts.year())};
}

} // namespace

utc_moment moment_of(double unix_seconds) {
    // In whole milliseconds, or 13.00 s would now and then be 12.9999999.
    const std::chrono::milliseconds all{std::llround(unix_seconds * 1000.0)};
    const auto days = std::chrono::floor<std::chrono::days>(all);
    const long long rest = (all - days).count();
    utc_moment moment;
    moment.date = date_of(sys_days{days});
    moment.time = {static_cast<int>(rest / 3600000), static_cast<int>(rest / 60000 % 60),
                   static_cast<double>(rest % 60000) / 1000.0};
    return moment;
}

double unix_of(const utc_date &date, const utc_time &time) {
    return unix_of_day(day_of(date)) + time.hour * 3600.0 + time.minute * 60.0 + time.second;
}

utc_date days_before(const utc_date &date, int days) {
    return date_of(day_of(date) - std::chrono::days{days});
}

int leap_seconds_at(double unix_seconds) {
    int count = 0;
    for (const sys_days leap : leap_days)
        count += unix_seconds >= unix_of_day(leap) ? 1 : 0;
    return count;
}

double since_gps_epoch(double unix_seconds) {
    return unix_seconds - unix_of_day(gps_epoch);
}

double system_wall_clock() {
    using namespace std::chrono;
    return duration<double>(system_clock::now().time_since_epoch()).count();
}

} // namespace sim
