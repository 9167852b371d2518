// The sky against published coordinates, spherical trigonometry and geometry done by hand.
#include "geometry.h"

#include <cmath>
#include <gtest/gtest.h>
#include <vector>

using namespace sim;

namespace {
constexpr double table_epoch = 425520009.0; // 1993-07-01 00:00:00 UTC in GPS seconds
using angles = std::vector<look_angles>;
constexpr double radius = 26559700.0, d = 2e7;
} // namespace

// A geocentric place from the spherical triangle node, equator, satellite.
TEST(sky, satellites_stand_where_the_triangle_says) {
    const ecef p = slot_position(nominal_slots[18], table_epoch + 12268 * 86400.0); // 33 years on
    EXPECT_EQ(nominal_slots[18].prn, 5);
    EXPECT_NEAR(std::hypot(p.x, p.y, p.z), radius, 0.01);
    EXPECT_NEAR(std::asin(p.z / radius) / M_PI * 180, 54.259465, 1e-4);
    EXPECT_NEAR(std::atan2(p.y, p.x) / M_PI * 180, -16.696152, 1e-4);
}

TEST(sky, angles_of_points_placed_by_hand) {
    const struct {
        const char *name;
        double latitude, longitude;
        ecef target;
        double elevation, azimuth;
    } rows[] = {
        {"overhead is the ellipsoid's normal", 45, 90, geodetic_to_ecef(45, 90, d), 90, -1},
        {"east across the date line", 0, 180, {-6378137, -d, 0}, 0, 90},
        {"a hair west of north is not 360", 0, 0, {6378137, -1e-12, d}, 0, 0},
    };
    for (const auto &row : rows) {
        const look_angles look = look_at(row.latitude, row.longitude, 0, row.target);
        EXPECT_NEAR(look.elevation, row.elevation, 1e-6) << row.name;
        EXPECT_NEAR(look.azimuth, row.azimuth < 0 ? look.azimuth : row.azimuth, 1e-6) << row.name;
    }
}

TEST(sky, dilution_of_a_zenith_and_a_level_cross) {
    const dilution level = dilution_of(angles{{90, 0}, {0, 0}, {0, 90}, {0, 180}, {0, 270}});
    EXPECT_NEAR(level.pdop, 1.5, 1e-6);
    EXPECT_NEAR(level.hdop, 1, 1e-6);
    EXPECT_NEAR(level.vdop, std::sqrt(1.25), 1e-6);
    // Nearly one cone: the height is unknown.
    const dilution cone = dilution_of(angles{{30, 0}, {30, 90}, {30, 180}, {30.5, 270}});
    EXPECT_EQ(cone.vdop, 99.99);
}
