// lsctl speed: what the two numbers of the record may stand for. Pure functions.
#ifndef LSCTL_SPEED_H
#define LSCTL_SPEED_H

#include <cstdint>
#include <vector>

// Speeds in km/h, rising, that the receiver may have told when the record holds these two numbers:
// both are what is left of a number modulo 256, and of the digits behind the point the record does
// not say how many there were (the receiver tells three at most). None above what a receiver tells,
// LSCTL_FASTEST_KMH.
std::vector<double> lsctl_speed_candidates(uint8_t speed_int, uint8_t speed_frac);

constexpr unsigned LSCTL_FASTEST_KMH = 1850; // 500 m/s, where receivers stop, and a little more

#endif
