// lsctl: what is said about wrong usage.
#include "lsctl_usage.h"

#include <algorithm>
#include <cctype>
#include <numeric>

#include "lsctl.h"

namespace {

// How many letters have to be typed, left out, changed, or swapped with their neighbour.
size_t distance(std::string_view a, std::string_view b) {
    std::vector<std::vector<size_t>> cost(a.size() + 1, std::vector<size_t>(b.size() + 1));
    std::iota(cost[0].begin(), cost[0].end(), size_t{0});
    const auto same = [](char x, char y) {
        return std::tolower(static_cast<unsigned char>(x)) ==
               std::tolower(static_cast<unsigned char>(y));
    };
    for (size_t i = 1; i <= a.size(); ++i) {
        cost[i][0] = i;
        for (size_t k = 1; k <= b.size(); ++k) {
            cost[i][k] = std::min({cost[i - 1][k] + 1, cost[i][k - 1] + 1,
                                   cost[i - 1][k - 1] + (same(a[i - 1], b[k - 1]) ? 0 : 1)});
            if (i > 1 && k > 1 && same(a[i - 1], b[k - 2]) && same(a[i - 2], b[k - 1]))
                cost[i][k] = std::min(cost[i][k], cost[i - 2][k - 2] + 1);
        }
    }
    return cost[a.size()][b.size()];
}

} // namespace

std::string lsctl_nearest(std::string_view typed, const std::vector<std::string> &known) {
    // Half of what was typed may be wrong; "sat" stands for "satellites" all the same.
    size_t least = std::max<size_t>(typed.size() / 2, 1) + 1;
    std::string nearest;
    for (const std::string &name : known) {
        const bool begins = typed.size() >= 3 && name.starts_with(typed);
        const size_t far = begins ? 0 : distance(typed, name);
        if (far < least) {
            least = far;
            nearest = name;
        }
    }
    return nearest;
}

int lsctl_usage_error(bool json, const std::string &sentence) {
    if (json)
        lsctl_print_json({{"error", "usage"}, {"text", sentence}});
    lsctl_complain(sentence);
    return LSCTL_USAGE;
}
