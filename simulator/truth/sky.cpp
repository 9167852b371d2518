// The sky over a place: who is above the horizon, how loud, and who is in the fix. Pure functions.
#include "sky.h"

#include "geometry.h"

#include <algorithm>
#include <cmath>
#include <numbers>
#include <vector>

namespace sim {

namespace {

// A patch antenna under an open sky: about 32 dB-Hz at the horizon and 48 overhead. Satellites
// differ by up to 1.5 dB in transmit power and age; the same PRN always by the same amount. All of
// it is above what a receiver can track, so the mask alone decides who is heard well enough.
double cn0_of(int prn, double elevation) {
    const double offset = 0.25 * (prn * 7 % 13 - 6);
    return 32.0 + 16.0 * std::sin(elevation * std::numbers::pi / 180.0) + offset;
}

} // namespace

sky_view sky_at(double gps_seconds, double latitude, double longitude, double height, double mask,
                int max_used) {
    sky_view view{};
    for (const orbital_slot &slot : nominal_slots) {
        const look_angles look =
            look_at(latitude, longitude, height, slot_position(slot, gps_seconds));
        if (look.elevation > 0.0)
            view.satellites.push_back(
                {slot.prn, look.elevation, look.azimuth, cn0_of(slot.prn, look.elevation), false});
    }
    std::sort(view.satellites.begin(), view.satellites.end(),
              [](const sky_satellite &a, const sky_satellite &b) {
                  return a.elevation != b.elevation ? a.elevation > b.elevation : a.prn < b.prn;
              });

    std::vector<look_angles> used;
    for (sky_satellite &satellite : view.satellites) {
        if (static_cast<int>(used.size()) >= max_used || !(satellite.elevation > mask))
            break;
        satellite.used = true;
        used.push_back({satellite.elevation, satellite.azimuth});
    }
    const dilution worth = dilution_of(used);
    view.gdop = worth.gdop;
    view.pdop = worth.pdop;
    view.hdop = worth.hdop;
    view.vdop = worth.vdop;
    view.tdop = worth.tdop;
    return view;
}

} // namespace sim
