// lsctl: the names of UBX messages.
#include "lsctl_ubx.h"

#include <algorithm>
#include <strings.h>

#include "lsctl_text.h"

namespace {

struct ubx_known {
    uint8_t msg_class;
    uint8_t id;
    const char *name;
    bool silent = false; // not acknowledged
};

// F0 and F1 are how a receiver's configuration names its NMEA sentences.
constexpr ubx_known KNOWN[] = {
    {0x01, 0x01, "NAV-POSECEF"}, {0x01, 0x02, "NAV-POSLLH"}, {0x01, 0x03, "NAV-STATUS"},
    {0x01, 0x04, "NAV-DOP"},     {0x01, 0x06, "NAV-SOL"},    {0x01, 0x07, "NAV-PVT"},
    {0x01, 0x11, "NAV-VELECEF"}, {0x01, 0x12, "NAV-VELNED"}, {0x01, 0x20, "NAV-TIMEGPS"},
    {0x01, 0x21, "NAV-TIMEUTC"}, {0x01, 0x22, "NAV-CLOCK"},  {0x01, 0x30, "NAV-SVINFO"},
    {0x01, 0x32, "NAV-SBAS"},    {0x01, 0x35, "NAV-SAT"},    {0x02, 0x10, "RXM-RAW"},
    {0x02, 0x11, "RXM-SFRB"},    {0x02, 0x20, "RXM-SVSI"},   {0x04, 0x00, "INF-ERROR"},
    {0x04, 0x01, "INF-WARNING"}, {0x04, 0x02, "INF-NOTICE"}, {0x04, 0x04, "INF-DEBUG"},
    {0x05, 0x00, "ACK-NAK"},     {0x05, 0x01, "ACK-ACK"},    {0x06, 0x00, "CFG-PRT"},
    {0x06, 0x01, "CFG-MSG"},     {0x06, 0x02, "CFG-INF"},    {0x06, 0x04, "CFG-RST", true},
    {0x06, 0x06, "CFG-DAT"},     {0x06, 0x07, "CFG-TP"},     {0x06, 0x08, "CFG-RATE"},
    {0x06, 0x09, "CFG-CFG"},     {0x06, 0x11, "CFG-RXM"},    {0x06, 0x13, "CFG-ANT"},
    {0x06, 0x16, "CFG-SBAS"},    {0x06, 0x17, "CFG-NMEA"},   {0x06, 0x1B, "CFG-USB"},
    {0x06, 0x23, "CFG-NAVX5"},   {0x06, 0x24, "CFG-NAV5"},   {0x06, 0x31, "CFG-TP5"},
    {0x06, 0x32, "CFG-PM"},      {0x06, 0x39, "CFG-ITFM"},   {0x06, 0x3B, "CFG-PM2"},
    {0x06, 0x3E, "CFG-GNSS"},    {0x06, 0x57, "CFG-PWR"},    {0x0A, 0x02, "MON-IO"},
    {0x0A, 0x04, "MON-VER"},     {0x0A, 0x06, "MON-MSGPP"},  {0x0A, 0x07, "MON-RXBUF"},
    {0x0A, 0x08, "MON-TXBUF"},   {0x0A, 0x09, "MON-HW"},     {0x0A, 0x0B, "MON-HW2"},
    {0x0B, 0x01, "AID-INI"},     {0x0B, 0x02, "AID-HUI"},    {0x0B, 0x30, "AID-ALM"},
    {0x0B, 0x31, "AID-EPH"},     {0x0D, 0x01, "TIM-TP"},     {0x0D, 0x03, "TIM-TM2"},
    {0xF0, 0x00, "NMEA-GGA"},    {0xF0, 0x01, "NMEA-GLL"},   {0xF0, 0x02, "NMEA-GSA"},
    {0xF0, 0x03, "NMEA-GSV"},    {0xF0, 0x04, "NMEA-RMC"},   {0xF0, 0x05, "NMEA-VTG"},
    {0xF0, 0x08, "NMEA-ZDA"},    {0xF0, 0x41, "NMEA-TXT"},   {0xF1, 0x00, "PUBX-00"},
    {0xF1, 0x03, "PUBX-03"},     {0xF1, 0x04, "PUBX-04"},
};

const ubx_known *find_known(uint8_t msg_class, uint8_t id) {
    const auto *found = std::find_if(std::begin(KNOWN), std::end(KNOWN), [&](const ubx_known &row) {
        return row.msg_class == msg_class && row.id == id;
    });
    return found == std::end(KNOWN) ? nullptr : found;
}

} // namespace

std::string ubx_name(uint8_t msg_class, uint8_t id) {
    const ubx_known *known = find_known(msg_class, id);
    return known == nullptr ? lsctl_format("%02X %02X", msg_class, id)
                            : lsctl_format("%s (%02X %02X)", known->name, msg_class, id);
}

std::optional<ubx_message> ubx_named(const std::string &name) {
    for (const ubx_known &row : KNOWN)
        if (strcasecmp(name.c_str(), row.name) == 0)
            return ubx_message{row.msg_class, row.id};
    return std::nullopt;
}

bool ubx_expects_answer(uint8_t msg_class, uint8_t id) {
    const ubx_known *known = find_known(msg_class, id);
    return known == nullptr || !known->silent;
}
