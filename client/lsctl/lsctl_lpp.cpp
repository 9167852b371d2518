// lsctl lpp: asks, in place of SAL, for the location parameters that go to the cellular side.
#include "lsctl_lpp.h"

#include <cmath>
#include <cstring>

#include "lsctl_text.h"

namespace {

// The axis angle travels halved.
unsigned orientation_deg(const gps_lpp_location &lpp) {
    return 2U * lpp.orientation_major_axis;
}

} // namespace

double lpp_uncertainty_m(uint8_t code) {
    return 10 * (std::pow(1.1, code) - 1);
}

double lpp_altitude_uncertainty_m(uint8_t code) {
    return 45 * (std::pow(1.025, code) - 1);
}

double lpp_latitude_deg(const gps_lpp_location &lpp) {
    const double magnitude = lpp.degrees_latitude * 90.0 / 8388608;
    return lpp.latitude_sign == 1 ? -magnitude : magnitude;
}

double lpp_longitude_deg(const gps_lpp_location &lpp) {
    const int32_t value = static_cast<int32_t>(lpp.degrees_longitude & 0xFFFFFFU);
    return (value >= 0x800000 ? value - 0x1000000 : value) * 360.0 / 16777216;
}

bool lpp_is_empty(const gps_lpp_location &lpp) {
    constexpr gps_lpp_location empty{};
    return std::memcmp(&lpp, &empty, sizeof(lpp)) == 0; // it has no padding
}

std::string lpp_text(const gps_lpp_location &lpp) {
    const double latitude = lpp_latitude_deg(lpp);
    const double longitude = lpp_longitude_deg(lpp);
    std::string text = lsctl_format(
        "%-12s %s (coded %u)\n", "Latitude",
        lsctl_degrees(std::fabs(latitude), latitude < 0 ? 'S' : 'N').c_str(), lpp.degrees_latitude);
    text += lsctl_format("%-12s %s (coded %u)\n", "Longitude",
                         lsctl_degrees(std::fabs(longitude), longitude < 0 ? 'W' : 'E').c_str(),
                         lpp.degrees_longitude);
    // The receiver's answer has the altitude elsewhere; the service takes this field for it.
    text += lsctl_format("%-12s %u m vertical, whole metres (in the field of the altitude, which "
                         "is not sent)\n",
                         "Accuracy", lpp.altitude);
    text += lsctl_format("%-12s %.1f m semi-major, %.1f m semi-minor, %.1f m altitude (codes %u, "
                         "%u, %u)\n",
                         "Uncertainty", lpp_uncertainty_m(lpp.uncertainty_semi_major),
                         lpp_uncertainty_m(lpp.uncertainity_semi_minor),
                         lpp_altitude_uncertainty_m(lpp.uncertainty_altitude),
                         lpp.uncertainty_semi_major, lpp.uncertainity_semi_minor,
                         lpp.uncertainty_altitude);
    text += lsctl_format("%-12s %u deg\n", "Major axis", orientation_deg(lpp));
    text += lsctl_format("%-12s %u %%\n", "Confidence", lpp.confidence);
    return text;
}

lsctl_json lpp_json(const gps_lpp_location &lpp) {
    return {
        {"latitude_deg", lpp_latitude_deg(lpp)},
        {"longitude_deg", lpp_longitude_deg(lpp)},
        {"latitude_coded", lpp.degrees_latitude},
        {"longitude_coded", lpp.degrees_longitude},
        {"vertical_accuracy_m", lpp.altitude},
        {"uncertainty_semi_major_m", lpp_uncertainty_m(lpp.uncertainty_semi_major)},
        {"uncertainty_semi_minor_m", lpp_uncertainty_m(lpp.uncertainity_semi_minor)},
        {"uncertainty_altitude_m", lpp_altitude_uncertainty_m(lpp.uncertainty_altitude)},
        {"major_axis_deg", orientation_deg(lpp)},
        {"confidence_percent", lpp.confidence},
    };
}

namespace {

int run_lpp(const lsctl_options &options) {
    if (options.as != 0 && options.as != LS_SERV_SAL) {
        return lsctl_fail(options, LOCATION_BAD_ARGUMENT,
                          "LPP parameters go to service 2 (SAL) only: leave --as out");
    }
    lsctl_options as_sal = options;
    as_sal.as = LS_SERV_SAL;
    const lsctl_link link(as_sal.as);
    if (link.result != LOCATION_ANSWERED) {
        return lsctl_fail(as_sal, link.result,
                          link.result == LOCATION_ID_TAKEN
                              ? "service 2 (SAL) is running; only it can ask for LPP parameters"
                              : lsctl_sentence(as_sal, link.result));
    }
    gps_lpp_location lpp{};
    const location_result result =
        location_client_get_lpp(link.client, lsctl_timeout(as_sal), &lpp);
    if (result == LOCATION_NO_REPLY) {
        return lsctl_fail(as_sal, result,
                          lsctl_sentence(as_sal, result, link.client) +
                              " (it says nothing without a fix)");
    }
    if (result != LOCATION_ANSWERED)
        return lsctl_fail(as_sal, result, link.client);
    if (lpp_is_empty(lpp)) {
        return lsctl_fail_with(as_sal, "lpp_empty",
                               "the location service sent an empty record: the receiver does not "
                               "answer it, or is switched off (lsctl power tells)",
                               lsctl_json::object(), "");
    }
    return lsctl_show(as_sal, lpp_json(lpp), lpp_text(lpp));
}

} // namespace

lsctl_runner lsctl_lpp(CLI::App &) {
    return run_lpp;
}
