// The sky against published coordinates, spherical trigonometry and geometry done by hand.
#include "sky_geometry.h"

#include <cmath>
#include <gtest/gtest.h>
#include <vector>

using namespace sim;

namespace {
constexpr double table_epoch = 425520009.0; // 1993-07-01 00:00:00 UTC in GPS seconds
using angles = std::vector<look_angles>;
constexpr double radius = 26559700.0, d = 2e7;
} // namespace

// Geocentric places from the spherical triangle node, equator, satellite.
TEST(sky, satellites_stand_where_the_triangle_says) {
    const struct {
        std::size_t slot;
        int prn;
        double after, latitude, longitude;
    } rows[] = {{0, 9, 0, -54.956259, -99.477847},
                {18, 5, 12268 * 86400.0, 54.259465, -16.696152}}; // 33 years later
    for (const auto &row : rows) {
        const ecef p = slot_position(nominal_slots[row.slot], table_epoch + row.after);
        EXPECT_EQ(nominal_slots[row.slot].prn, row.prn);
        EXPECT_NEAR(std::hypot(p.x, p.y, p.z), radius, 0.01) << row.prn;
        EXPECT_NEAR(std::asin(p.z / radius) / M_PI * 180, row.latitude, 1e-4) << row.prn;
        EXPECT_NEAR(std::atan2(p.y, p.x) / M_PI * 180, row.longitude, 1e-4) << row.prn;
    }
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
        {"north pole, along 180 degrees", 90, 0, {-d, 0, 6356752.314245 + d}, 45, 0},
        {"level at 45 degrees", 45, 0, {4517590.879 + d, 0, 4487348.409 - d}, 0, 180},
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
    EXPECT_NEAR(level.gdop, std::sqrt(2.5), 1e-6);
    EXPECT_NEAR(level.pdop, 1.5, 1e-6);
    EXPECT_NEAR(level.hdop, 1, 1e-6);
    EXPECT_NEAR(level.vdop, std::sqrt(1.25), 1e-6);
    EXPECT_NEAR(level.tdop, 0.5, 1e-6);
    // Nearly one cone: the height is unknown, the place is not.
    const dilution cone = dilution_of(angles{{30, 0}, {30, 90}, {30, 180}, {30.5, 270}});
    EXPECT_NEAR(cone.hdop, std::sqrt(8.0 / 3), 1e-6);
    EXPECT_EQ(cone.vdop, 99.99);
}

TEST(sky, the_highest_above_the_mask_are_used_everywhere_all_day) {
    const std::pair<double, int> limits[] = {{0, 24}, {20, 24}, {0, 4}, {0, 3}, {90, 12}};
    for (int round = 0; round < 48 * 13; ++round) {
        const int latitude = round / 48 * 15 - 90;
        const auto [mask, max_used] = limits[round % 5];
        int used = 0;
        // From a pole, a satellite at 55 degrees of latitude is 45.3 degrees high.
        double above = std::abs(latitude) == 90 ? 45.4 : 90;
        const sky_view view =
            sky_at(1.4e9 + round * 1800, latitude, round * 30 % 360 - 180, 200, mask, max_used);
        EXPECT_TRUE(view.satellites.size() >= 6 && view.satellites.size() <= 14) << round;
        for (const sky_satellite &s : view.satellites) {
            EXPECT_LE(s.elevation, above);
            EXPECT_EQ(s.used, s.elevation > mask && used < max_used) << s.elevation;
            EXPECT_TRUE(s.cn0 >= 30 && s.cn0 <= 50) << s.cn0;
            above = s.elevation;
            used += s.used ? 1 : 0;
        }
        EXPECT_TRUE(used == 4 || (view.pdop < 99.99) == (used > 4)) << round;
    }
}
