// Orbits, datum and geometry behind the sky. Pure functions; the only state is constant tables.
#include "geometry.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <numbers>

namespace sim {

namespace {

constexpr double radians_per_degree = std::numbers::pi / 180.0;

// WGS-84 ellipsoid, from the definition of the datum.
constexpr double semi_major_axis = 6378137.0; // metres
constexpr double flattening = 1.0 / 298.257223563;
constexpr double eccentricity_squared = flattening * (2.0 - flattening);

// The values every GPS receiver computes with, from the GPS interface document (IS-GPS-200).
constexpr double earth_gravitation = 3.986005e14;       // GM, m^3/s^2
constexpr double earth_rotation_rate = 7.2921151467e-5; // rad/s, inertial

// The nominal constellation, from the GPS Standard Positioning Service performance standard (2001,
// section 3.1 and appendix A). Orbits are circular: the standard's eccentricity is "0 to 0.02".
constexpr double orbit_radius = 26559700.0;         // metres
constexpr double inclination = 55.0;                // degrees
constexpr double greenwich_angle_at_epoch = 279.06; // 18 h 36 min 14.4 s, degrees
constexpr double ascending_node_rate = -4.4874e-7;  // degrees/s: the Earth's bulge turns the planes

// 1993-07-01 00:00 UTC: 4925 days after the GPS epoch, and GPS was then 9 s ahead of UTC. The leap
// seconds since then make the Earth lag this model by 0.004 degrees each, which nobody can see.
constexpr double table_epoch = 4925.0 * 86400.0 + 9.0;

constexpr double worthless = 99.99;

struct vector3 {
    double east, north, up;
};

using matrix4 = std::array<std::array<double, 4>, 4>;

// Gauss-Jordan in place. The matrix is symmetric and positive, so its diagonal needs no pivoting. A
// pivot is never below 1 / variance: where 99.99 is the limit, nothing below 1e-4 matters.
bool invert(matrix4 &m) {
    constexpr double smallest_pivot = 1e-9;
    for (std::size_t k = 0; k < 4; ++k) {
        const double pivot = m[k][k];
        if (!(pivot > smallest_pivot))
            return false;
        m[k][k] = 1.0;
        for (double &cell : m[k])
            cell /= pivot;
        for (std::size_t row = 0; row < 4; ++row) {
            if (row == k)
                continue;
            const double factor = m[row][k];
            m[row][k] = 0.0;
            for (std::size_t column = 0; column < 4; ++column)
                m[row][column] -= factor * m[k][column];
        }
    }
    return true;
}

} // namespace

// Slots A1 to A4, B1 to B4 and so on. The standard gives no PRNs: most are those of the satellite
// that stood in the slot in 2011.
const std::array<orbital_slot, 24> nominal_slots{{
    {9, 272.847, 268.126},  {31, 272.847, 161.786}, {8, 272.847, 11.676},   {7, 272.847, 41.806},
    {16, 332.847, 80.956},  {25, 332.847, 173.336}, {28, 332.847, 309.976}, {12, 332.847, 204.376},
    {29, 32.847, 111.876},  {3, 32.847, 11.796},    {19, 32.847, 339.666},  {17, 32.847, 241.556},
    {2, 92.847, 135.226},   {11, 92.847, 265.446},  {21, 92.847, 35.156},   {4, 92.847, 167.356},
    {20, 152.847, 197.046}, {22, 152.847, 302.596}, {5, 152.847, 66.066},   {18, 152.847, 333.686},
    {14, 212.847, 238.886}, {15, 212.847, 345.226}, {13, 212.847, 105.206}, {23, 212.847, 135.346},
}};

ecef geodetic_to_ecef(double latitude, double longitude, double height) {
    const double phi = latitude * radians_per_degree;
    const double lambda = longitude * radians_per_degree;
    const double sin_phi = std::sin(phi);
    // Radius of curvature in the prime vertical.
    const double n = semi_major_axis / std::sqrt(1.0 - eccentricity_squared * sin_phi * sin_phi);
    const double from_axis = (n + height) * std::cos(phi);
    return {from_axis * std::cos(lambda), from_axis * std::sin(lambda),
            (n * (1.0 - eccentricity_squared) + height) * sin_phi};
}

ecef slot_position(const orbital_slot &slot, double gps_seconds) {
    const double elapsed = gps_seconds - table_epoch;
    const double mean_motion = std::sqrt(earth_gravitation / orbit_radius) / orbit_radius;
    const double u = slot.argument_of_latitude * radians_per_degree + mean_motion * elapsed;
    // Longitude of the ascending node: its right ascension less what the Earth has turned.
    const double node =
        (slot.ascending_node - greenwich_angle_at_epoch + ascending_node_rate * elapsed) *
            radians_per_degree -
        earth_rotation_rate * elapsed;
    const double i = inclination * radians_per_degree;
    const double along_node = orbit_radius * std::cos(u);
    const double across_node = orbit_radius * std::sin(u) * std::cos(i);
    return {along_node * std::cos(node) - across_node * std::sin(node),
            along_node * std::sin(node) + across_node * std::cos(node),
            orbit_radius * std::sin(u) * std::sin(i)};
}

look_angles look_at(double latitude, double longitude, double height, const ecef &target) {
    const ecef place = geodetic_to_ecef(latitude, longitude, height);
    const double dx = target.x - place.x, dy = target.y - place.y, dz = target.z - place.z;
    const double sin_phi = std::sin(latitude * radians_per_degree);
    const double cos_phi = std::cos(latitude * radians_per_degree);
    const double sin_lambda = std::sin(longitude * radians_per_degree);
    const double cos_lambda = std::cos(longitude * radians_per_degree);
    const double outward = dx * cos_lambda + dy * sin_lambda; // away from the Earth's axis
    const vector3 enu{dy * cos_lambda - dx * sin_lambda, dz * cos_phi - outward * sin_phi,
                      dz * sin_phi + outward * cos_phi};
    const double level = std::hypot(enu.east, enu.north);
    double azimuth = std::atan2(enu.east, enu.north) / radians_per_degree;
    if (azimuth < 0.0)
        azimuth += 360.0;
    if (azimuth >= 360.0) // a tiny negative angle rounds up to the full circle
        azimuth = 0.0;
    return {std::atan2(enu.up, level) / radians_per_degree, azimuth};
}

dilution dilution_of(std::span<const look_angles> directions) {
    constexpr dilution none{worthless, worthless, worthless, worthless, worthless};
    matrix4 m{}; // sum of the outer products of (east, north, up, 1): fewer than four are singular
    for (const look_angles &direction : directions) {
        const double elevation = direction.elevation * radians_per_degree;
        const double azimuth = direction.azimuth * radians_per_degree;
        const std::array<double, 4> row{std::cos(elevation) * std::sin(azimuth),
                                        std::cos(elevation) * std::cos(azimuth),
                                        std::sin(elevation), 1.0};
        for (std::size_t i = 0; i < 4; ++i)
            for (std::size_t j = 0; j < 4; ++j)
                m[i][j] += row[i] * row[j];
    }
    if (!invert(m))
        return none;
    const auto of = [](double variance) { return std::min(std::sqrt(variance), worthless); };
    const double level = m[0][0] + m[1][1], up = m[2][2], time = m[3][3];
    return {of(level + up + time), of(level + up), of(level), of(up), of(time)};
}

} // namespace sim
