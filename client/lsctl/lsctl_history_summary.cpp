// lsctl history --summary.
#include "lsctl_history.h"

#include <cmath>

#include "lsctl_text.h"

namespace {

std::string duration(int64_t seconds) {
    return lsctl_format("%lld:%02d:%02d", static_cast<long long>(seconds / 3600),
                        static_cast<int>(seconds / 60 % 60), static_cast<int>(seconds % 60));
}

std::string place(double latitude, double longitude) {
    return lsctl_degrees(std::fabs(latitude), latitude < 0 ? 'S' : 'N') + ", " +
           lsctl_degrees(std::fabs(longitude), longitude < 0 ? 'W' : 'E');
}

std::string gap_text(const track_gap &gap) {
    return track_utc_text(gap.from) + " to " + track_utc_text(gap.to) +
           (gap.to < gap.from ? "  clock set back" : "  " + duration(gap.to - gap.from));
}

std::string text_of(const track_summary &sum) {
    std::string text = lsctl_format("%-12s %zu\n", "Positions", sum.positions);
    if (sum.first == nullptr)
        return text;
    const auto row = [&text](const char *name, const std::string &value) {
        text += lsctl_format("%-12s %s\n", name, value.c_str());
    };
    row("From", track_utc_text(sum.first->utc));
    row("To", track_utc_text(sum.last->utc));
    row("Span", lsctl_format("%lld s (%s)", static_cast<long long>(sum.span_s),
                             duration(sum.span_s).c_str()));
    row("Under way", lsctl_format("%lld s (%s)", static_cast<long long>(sum.under_way_s),
                                  duration(sum.under_way_s).c_str()));
    row("Distance", lsctl_format("%.0f m", sum.distance_m));
    row("South-west", place(sum.south, sum.west));
    row("North-east", place(sum.north, sum.east));
    row("Gaps", std::to_string(sum.gaps.size()));
    for (const track_gap &gap : sum.gaps)
        text += "  " + gap_text(gap) + "\n";
    return text;
}

lsctl_json json_of(const track_summary &sum, size_t skipped) {
    const bool any = sum.first != nullptr;
    const auto known = [any](auto value) { return any ? lsctl_json(value) : lsctl_json(); };
    const auto degrees = [](double value) { return std::round(value * 1e6) / 1e6; };
    lsctl_json gaps = lsctl_json::array();
    for (const track_gap &gap : sum.gaps)
        gaps.push_back({{"from_utc", track_utc_text(gap.from)},
                        {"to_utc", track_utc_text(gap.to)},
                        {"duration_s", gap.to - gap.from}});
    return {{"positions", sum.positions},
            {"skipped_lines", skipped},
            {"from_utc", any ? lsctl_json(track_utc_text(sum.first->utc)) : lsctl_json()},
            {"to_utc", any ? lsctl_json(track_utc_text(sum.last->utc)) : lsctl_json()},
            {"span_s", known(sum.span_s)},
            {"under_way_s", known(sum.under_way_s)},
            {"distance_m", known(std::round(sum.distance_m))},
            {"south_deg", known(degrees(sum.south))},
            {"west_deg", known(degrees(sum.west))},
            {"north_deg", known(degrees(sum.north))},
            {"east_deg", known(degrees(sum.east))},
            {"gaps", std::move(gaps)}};
}

} // namespace

void history_write_summary(const track &all, int64_t gap_s, bool json, FILE *out) {
    const track_summary sum = track_summarise(all, gap_s);
    lsctl_json object = json_of(sum, all.bad_lines);
    if (!all.incomplete.empty())
        object.update({{"error", "incomplete"}, {"text", all.incomplete}});
    const std::string text = json ? object.dump() + "\n" : text_of(sum);
    std::fwrite(text.data(), 1, text.size(), out);
}
