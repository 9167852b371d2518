// lsctl stream: sentences and JSON objects.
#include "stream_formats.h"

#include <algorithm>
#include <cmath>

#include "lsctl_text.h"

namespace {

// Minutes have five digits behind the point: two centimetres.
constexpr long long MINUTE_UNITS = 100000;
constexpr long long DEGREE_UNITS = 60 * MINUTE_UNITS;

std::string with_checksum(const std::string &body) {
    uint8_t sum = 0;
    for (const char c : body)
        sum = static_cast<uint8_t>(sum ^ static_cast<uint8_t>(c));
    return lsctl_format("$%s*%02X\r\n", body.c_str(), sum);
}

// "4717.11200,N". Rounded once, as a whole, so that minutes never read 60.
std::string place(double magnitude, char hemisphere, int degree_digits) {
    const long long units = std::llround(magnitude * static_cast<double>(DEGREE_UNITS));
    const long long minutes = units % DEGREE_UNITS;
    return lsctl_format("%0*lld%02lld.%05lld,%c", degree_digits, units / DEGREE_UNITS,
                        minutes / MINUTE_UNITS, minutes % MINUTE_UNITS, hemisphere);
}

std::string places(const gps_pos_data &position) {
    return place(position.latitude, position.lat_dir, 2) + "," +
           place(position.longitude, position.lon_dir, 3);
}

// Empty when there is none.
std::string number(std::optional<double> value, int digits) {
    return value ? lsctl_format("%.*f", digits, *value) : "";
}

bool has_time(const gps_time_fields &time) {
    return !lsctl_utc(time).empty();
}

std::string time_of_day(const gps_time_fields &time) {
    return has_time(time) ? lsctl_format("%02u%02u%02u.00", time.hour, time.minute, time.second)
                          : "";
}

std::string gga(const stream_report &report) {
    if (!report.position)
        return with_checksum("GPGGA,,,,,,0,,,,,,,,");
    const gps_pos_data &p = *report.position;
    const std::optional<double> hdop =
        static_cast<double>(p.horizontal_accuracy) / STREAM_METRES_PER_DOP;
    // Two-dimensional: the altitude is assumed. The separation of the geoid is not known.
    const std::string altitude =
        p.fix_type == GPS_FIX_3D ? lsctl_format("%.1f,M", p.altitude) : ",";
    return with_checksum("GPGGA," + time_of_day(p.time) + "," + places(p) +
                         lsctl_format(",1,%02u,", p.num_satellites) + number(hdop, 2) + "," +
                         altitude + ",,,,");
}

std::string rmc(const stream_report &report) {
    if (!report.position)
        return with_checksum("GPRMC,,V,,,,,,,,,,N");
    const gps_pos_data &p = *report.position;
    std::optional<double> knots = stream_speed_kmh(report.motion);
    if (knots)
        *knots /= STREAM_KMH_PER_KNOT;
    const std::string date = has_time(p.time)
                                 ? lsctl_format("%02u%02u%02u", p.time.day, p.time.month,
                                                static_cast<unsigned>(p.time.year) % 100)
                                 : "";
    return with_checksum("GPRMC," + time_of_day(p.time) + ",A," + places(p) + "," +
                         number(knots, 3) + "," + number(report.motion.course_deg, 2) + "," + date +
                         ",,,A");
}

lsctl_json or_null(std::optional<double> value) {
    return value ? lsctl_json(*value) : lsctl_json(nullptr);
}

std::string line_of(const lsctl_json &object) {
    return object.dump(-1, ' ', false, lsctl_json::error_handler_t::replace) + "\n";
}

} // namespace

std::optional<double> stream_speed_kmh(const lsctl_motion &motion) {
    if (motion.speed_kmh || !motion.speed_knots)
        return motion.speed_kmh;
    return *motion.speed_knots * STREAM_KMH_PER_KNOT;
}

const lsctl_sky_satellite *stream_in_sky(const stream_report &report, unsigned prn) {
    const auto found =
        std::find_if(report.sky.begin(), report.sky.end(),
                     [prn](const lsctl_sky_satellite &satellite) { return satellite.prn == prn; });
    return found == report.sky.end() ? nullptr : &*found;
}

std::string stream_nmea(const stream_report &report) {
    return gga(report) + rmc(report);
}

std::string stream_json_position(const stream_report &report) {
    lsctl_json object = {{"class", "position"}};
    lsctl_json position = lsctl_position_json(report.position.value_or(gps_pos_data{}));
    if (!report.position)
        for (auto &value : position)
            value = nullptr;
    object.update(position);
    object["course_deg"] = or_null(report.motion.course_deg);
    object["speed_kmh"] = or_null(stream_speed_kmh(report.motion));
    if (!report.position) {
        object["error"] = lsctl_result_name(report.result);
        object["text"] = report.why;
    }
    return line_of(object);
}

std::string stream_json_satellites(const stream_report &report) {
    lsctl_json object = {{"class", "satellites"}};
    object.update(lsctl_satellites_json(report.satellites.value_or(gps_sat_info{})));
    for (lsctl_json &satellite : object["satellites"]) {
        const auto *seen = stream_in_sky(report, satellite["prn"].get<unsigned>());
        satellite["elevation_deg"] = or_null(seen ? seen->elevation_deg : std::nullopt);
        satellite["azimuth_deg"] = or_null(seen ? seen->azimuth_deg : std::nullopt);
    }
    return line_of(object);
}
