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

std::string lpp_text(const gps_lpp_location &lpp);
lsctl_json lpp_json(const gps_lpp_location &lpp);

#endif
