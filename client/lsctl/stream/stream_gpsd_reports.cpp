// lsctl stream: the objects that gpsd's clients read.
#include "stream_gpsd.h"

#include <algorithm>
#include <cmath>

#include "lsctl_text.h"
#include "stream_formats.h"

namespace {

double rounded(double value, double digits) {
    return std::round(value * digits) / digits;
}

// "2019-02-05T10:51:05.000Z"; leaves it out when there is none.
void set_time(lsctl_json &object, const gps_time_fields &time) {
    std::string text = lsctl_utc(time);
    if (!text.empty())
        object["time"] = text.insert(text.size() - 1, ".000");
}

int mode_of(const stream_report &report) {
    if (report.position)
        return report.position->fix_type == GPS_FIX_3D ? 3 : 2;
    return report.result == LOCATION_FAILED ? 1 : 0;
}

// A satellite's number in the sentences as gpsd knows it: 1 to 32 GPS, 33 to 64 are SBAS, whose
// own numbers begin at 120.
void set_number(lsctl_json &satellite, unsigned prn) {
    constexpr unsigned last_gps = 32;
    constexpr unsigned last_sbas = 64;
    constexpr unsigned sbas_offset = 87;
    const bool sbas = prn > last_gps && prn <= last_sbas;
    satellite["PRN"] = sbas ? prn + sbas_offset : prn;
    if (prn > last_sbas)
        return;
    satellite["gnssid"] = sbas ? 1 : 0;
    satellite["svid"] = sbas ? prn + sbas_offset : prn;
}

lsctl_json satellite_of(const stream_report &report, unsigned prn, unsigned cn0_dbhz, bool used) {
    lsctl_json satellite;
    set_number(satellite, prn);
    const lsctl_sky_satellite *seen = stream_in_sky(report, prn);
    if (seen != nullptr && seen->elevation_deg)
        satellite["el"] = *seen->elevation_deg;
    if (seen != nullptr && seen->azimuth_deg)
        satellite["az"] = *seen->azimuth_deg;
    satellite["ss"] = cn0_dbhz;
    satellite["used"] = used;
    return satellite;
}

lsctl_json tpv(const stream_report &report) {
    const int mode = mode_of(report);
    lsctl_json object = {{"class", "TPV"}, {"device", GPSD_DEVICE}, {"mode", mode}};
    if (!report.position)
        return object;
    const gps_pos_data &p = *report.position;
    set_time(object, p.time);
    // A billionth of a degree is a tenth of a millimetre.
    object["lat"] = rounded(p.lat_dir == 'S' ? -p.latitude : p.latitude, 1e9);
    object["lon"] = rounded(p.lon_dir == 'W' ? -p.longitude : p.longitude, 1e9);
    if (mode == 3) {
        // Above mean sea level; that above the ellipsoid is not known. "alt" is its older name.
        object["altMSL"] = p.altitude;
        object["alt"] = p.altitude;
    }
    if (report.motion.course_deg)
        object["track"] = *report.motion.course_deg;
    if (const auto speed = stream_speed_kmh(report.motion))
        object["speed"] = rounded(*speed / STREAM_KMH_PER_MPS, 1e3);
    object["eph"] = rounded(static_cast<double>(p.horizontal_accuracy), 1e3);
    if (mode == 3)
        object["epv"] = rounded(static_cast<double>(p.vertical_accuracy), 1e3);
    return object;
}

lsctl_json sky(const stream_report &report) {
    lsctl_json object = {{"class", "SKY"}, {"device", GPSD_DEVICE}};
    lsctl_json satellites = lsctl_json::array();
    size_t used_count = 0;
    if (report.satellites) {
        const gps_sat_info &info = *report.satellites;
        set_time(object, info.time);
        std::vector<unsigned> used;
        for (const uint8_t prn : info.sat_used_prn)
            if (prn != 0)
                used.push_back(prn);
        used_count = used.size();
        const size_t listed = std::min<size_t>(info.num_sat_in_view, GPS_SAT_SLOTS);
        for (size_t i = 0; i < listed; ++i) {
            const auto found = std::find(used.begin(), used.end(), info.sat_prn[i]);
            const bool is_used = found != used.end();
            if (is_used)
                used.erase(found);
            if (info.sat_prn[i] != 0)
                satellites.push_back(
                    satellite_of(report, info.sat_prn[i], info.sat_snr[i], is_used));
        }
        // More in view than the record lists: these it names as used only.
        for (const unsigned prn : used)
            satellites.push_back(satellite_of(report, prn, 0, true));
    }
    if (report.position) {
        const double hdop =
            static_cast<double>(report.position->horizontal_accuracy) / STREAM_METRES_PER_DOP;
        const double vdop =
            static_cast<double>(report.position->vertical_accuracy) / STREAM_METRES_PER_DOP;
        object["hdop"] = rounded(hdop, 1e2);
        object["vdop"] = rounded(vdop, 1e2);
        object["pdop"] = rounded(std::hypot(hdop, vdop), 1e2);
    }
    object["nSat"] = satellites.size();
    object["uSat"] = used_count;
    object["satellites"] = satellites;
    return object;
}

} // namespace

std::string gpsd_line(const lsctl_json &object) {
    return object.dump(-1, ' ', true, lsctl_json::error_handler_t::replace) + "\r\n";
}

std::string gpsd_tpv(const stream_report &report) {
    return gpsd_line(tpv(report));
}

std::string gpsd_sky(const stream_report &report) {
    return gpsd_line(sky(report));
}

std::string gpsd_poll(const stream_report &report, const std::string &time) {
    return gpsd_line({{"class", "POLL"},
                      {"time", time},
                      {"active", stream_is_answer(report.result) ? 1 : 0},
                      {"tpv", lsctl_json::array({tpv(report)})},
                      {"gst", lsctl_json::array()},
                      {"sky", lsctl_json::array({sky(report)})}});
}
