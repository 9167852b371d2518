// lsctl history --follow.
#include "lsctl_history.h"

#include <algorithm>
#include <chrono>
#include <thread>

#include "ls_clock.h"

namespace {

constexpr uint32_t SHORTEST_WAIT_S = 2;
constexpr uint32_t LONGEST_WAIT_S = 30;
constexpr std::chrono::milliseconds SIGNAL_LOOK{50};

// What has been printed so far: the export is the whole ring each time.
struct printed {
    std::string last_line;
    int64_t last_utc = 0;
};

// The first point behind what has been printed. Its line may have left the ring meanwhile.
size_t first_new(const track &all, const printed &so_far) {
    if (so_far.last_line.empty())
        return 0;
    for (size_t i = all.points.size(); i > 0; --i)
        if (all.points[i - 1].line == so_far.last_line)
            return i;
    const auto later =
        std::find_if(all.points.begin(), all.points.end(),
                     [&so_far](const track_point &point) { return point.utc > so_far.last_utc; });
    return static_cast<size_t>(later - all.points.begin());
}

// False: the standard output takes no more.
bool print_new(const track &all, history_line line, printed &so_far) {
    for (size_t i = first_new(all, so_far); i < all.points.size(); ++i) {
        if (!lsctl_print(line(all.points[i])))
            return false;
        so_far.last_line = all.points[i].line;
        so_far.last_utc = all.points[i].utc;
    }
    return true;
}

// False: a signal came.
bool sleep_for(uint32_t seconds) {
    const int64_t until = ls_monotonic_ms() + int64_t{seconds} * 1000;
    while (lsctl_signals_last() == 0 && ls_monotonic_ms() < until)
        std::this_thread::sleep_for(SIGNAL_LOOK);
    return lsctl_signals_last() == 0;
}

} // namespace

int history_follow(const lsctl_options &options, const history_source &source, history_line line,
                   const track_range &range) {
    printed so_far;
    bool begun = false;
    bool lost = false;
    for (;;) {
        std::string text;
        bool incomplete = false;
        // After the first time a failure is told once, and the next export may be better.
        const bool told_before = lost;
        const int status = history_load(options, source, &text, &incomplete, told_before);
        if (status != LSCTL_OK && !begun)
            return status;
        lost = status != LSCTL_OK;
        if (told_before && !lost)
            lsctl_complain("the location service is back");
        if (!begun && text.empty())
            lsctl_complain("nothing is recorded: " + history_why_nothing(source));
        begun = true;
        if (!lost && !print_new(track_parse(text, range, [](double) {}), line, so_far))
            return LSCTL_FAILED;
        if (!sleep_for(std::clamp(history_interval_s(), SHORTEST_WAIT_S, LONGEST_WAIT_S)))
            return LSCTL_OK;
    }
}
