// lsctl: values of a drawing in words.
#ifndef LSCTL_TRACK_WORDS_H
#define LSCTL_TRACK_WORDS_H

#include "track.h"

std::string length_text(double metres);          // "500 m", "2 km"
std::string duration_text(int64_t seconds);      // "40 s", "3 h 05 min"
std::string zone_text(const track_point &point); // "UTC+01:00", where the point was logged
std::string date_text(const track_point &point); // "2019-02-05 10:51:05", local

#endif
