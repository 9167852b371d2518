// lsctl lpp: the LPP location record in people's units. Pure functions.
#ifndef LSCTL_LPP_H
#define LSCTL_LPP_H

#include "lsctl.h"

// Coded uncertainties of TS 23.032, metres.
double lpp_uncertainty_m(uint8_t code);
double lpp_altitude_uncertainty_m(uint8_t code);

// Signed degrees, north and east positive.
double lpp_latitude_deg(const gps_lpp_location &lpp);
double lpp_longitude_deg(const gps_lpp_location &lpp);

// What the service sends for a receiver that does not answer it. A record with something in it says
// how confident it is, and so is never all zero.
bool lpp_is_empty(const gps_lpp_location &lpp);

std::string lpp_text(const gps_lpp_location &lpp);
lsctl_json lpp_json(const gps_lpp_location &lpp);

#endif
