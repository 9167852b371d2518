// Satellites in view (GSV) and in use (GSA).
#include "gps_nmea_parser.h"
#include "gps_service.h"
#include "ls_log.h"

#include <algorithm>
#include <array>
#include <cstring>

static constexpr char log_module[] = "gps_service";

namespace {

constexpr size_t MOST_SENTENCES = 4;
constexpr int SATELLITES_PER_SENTENCE = 4;
constexpr int FIRST_SATELLITE_FIELD = 4;
constexpr int FIELDS_PER_SATELLITE = 4; // number, elevation, azimuth, C/N0
constexpr int FIRST_GSA_SLOT_FIELD = 3;
constexpr int HIGHEST_GPS_PRN = 32; // above are augmentation and other systems

using body_buffer = std::array<char, NMEA_BUFFER_SIZE>;

int32_t request(const char *poll, gps_answer *answer) {
    gps_sentence sentence = {};
    if (const uint32_t created = gps_build_poll(poll, &sentence); created != 0) {
        log_error("Failed: To create nmea sentence \n");
        return static_cast<int32_t>(created);
    }
    const int32_t result = gps_get_data_req(gps_sentence_bytes(sentence), answer);
    if (result != 0)
        log_error("Failed: To get gps data \n");
    return result;
}

bool extract(const char *message, body_buffer &body) {
    if (ls_hal_extract_nmea_msg(message, body.data()) == 0)
        return true;
    log_error("Failed To extract NMEA msg \n");
    return false;
}

// Field n as a string, "" when it is missing or empty.
struct field {
    std::array<char, NMEA_TOKEN_SIZE> text = {};
    bool found = false;

    field(const body_buffer &body, int32_t n) {
        found = ls_hal_get_token(body.data(), text.data(), n) == 0;
    }
    int32_t number() const { return gps_leading_integer(text.data()); }
};

// Cuts the next line off `rest`: up to its line feed, to the end of what was received, or to what a
// body can be extracted from.
body_buffer next_line(const char *&rest) {
    body_buffer line = {};
    const char *feed = strchr(rest, '\n');
    const size_t size = feed == nullptr ? strlen(rest) : static_cast<size_t>(feed - rest) + 1;
    memcpy(line.data(), rest, std::min(size, line.size() - 1));
    rest += size;
    return line;
}

// The satellites of the GSV bodies, in their order.
bool read_satellites(const std::array<body_buffer, MOST_SENTENCES> &bodies, size_t sentences,
                     gps_sat_info *info) {
    size_t count = 0;
    for (size_t i = 0; i < sentences; ++i) {
        for (int block = 0; block < SATELLITES_PER_SENTENCE; ++block) {
            if (count == info->num_sat_in_view)
                return true;
            const int first = FIRST_SATELLITE_FIELD + FIELDS_PER_SATELLITE * block;
            const field prn(bodies[i], first);
            if (!prn.found) {
                log_error("Failed To get token at line : %d \n", __LINE__);
                return false;
            }
            const field cn0(bodies[i], first + 3);
            info->sat_prn[count] = static_cast<uint8_t>(prn.number());
            info->sat_snr[count] = static_cast<uint8_t>(cn0.number());
            ++count;
        }
    }
    return true;
}

int32_t read_gsv(gps_sat_info *info) {
    gps_answer answer = {};
    const int32_t result = request("GPGPQ,GSV", &answer);
    if (result != 0)
        return result;

    const char *rest = answer.text;
    std::array<body_buffer, MOST_SENTENCES> bodies = {};
    if (!extract(next_line(rest).data(), bodies[0]))
        return 1;
    const field type(bodies[0], 0);
    if (!type.found) {
        log_error("Failed To get token at line : %d \n", __LINE__);
        return 1;
    }
    if (gps_is_other_sentence(type.text.data(), "GPGSV")) {
        log_error("ERROR: Incorrect Response message was read back \n");
        return 1;
    }
    const field total(bodies[0], 1);
    if (!total.found) {
        log_error("Failed To get token at line : %d \n", __LINE__);
        return 1;
    }
    const size_t sentences = std::min<size_t>(static_cast<uint8_t>(total.number()), MOST_SENTENCES);
    for (size_t i = 1; i < sentences; ++i)
        if (!extract(next_line(rest).data(), bodies[i]))
            return 1;

    memset(info->sat_prn, 0, sizeof(info->sat_prn));
    memset(info->sat_snr, 0, sizeof(info->sat_snr));
    memset(info->sat_used_prn, 0, sizeof(info->sat_used_prn));
    const field in_view(bodies[0], 3);
    if (!in_view.found) {
        log_error("Failed To get token at line : %d \n", __LINE__);
        return 1;
    }
    // Clients walk the arrays by this count: it never says more than they hold.
    info->num_sat_in_view = static_cast<uint8_t>(
        std::min<size_t>(static_cast<uint8_t>(in_view.number()), GPS_SAT_SLOTS));
    return read_satellites(bodies, sentences, info) ? 0 : 1;
}

int32_t read_gsa(gps_sat_info *info) {
    gps_answer answer = {};
    const int32_t result = request("GPGPQ,GSA", &answer);
    if (result != 0)
        return result;
    body_buffer body = {};
    if (!extract(answer.text, body))
        return 1;
    const field type(body, 0);
    if (!type.found) {
        log_error("Failed To get token at line : %d \n", __LINE__);
        return 1;
    }
    if (gps_is_other_sentence(type.text.data(), "GPGSA")) {
        log_error("%s: Incorrect token found\n", "gps_get_sat_info");
        return 1;
    }
    uint8_t used = 0;
    for (size_t slot = 0; slot < GPS_SAT_SLOTS; ++slot) {
        const int32_t prn = field(body, FIRST_GSA_SLOT_FIELD + static_cast<int32_t>(slot)).number();
        if (prn > 0 && prn <= HIGHEST_GPS_PRN) {
            info->sat_used_prn[slot] = static_cast<uint8_t>(prn);
            ++used;
        }
    }
    info->num_sat_usable = used;
    return 0;
}

} // namespace

int32_t gps_get_sat_info(gps_sat_info *sat_info) {
    log_debug("%s: Creating Sat Info request\n", __func__);
    if (sat_info == nullptr) {
        log_error("%s: sat_info found NULL\n", __func__);
        return 1;
    }
    if (const int32_t result = read_gsv(sat_info); result != 0)
        return result;
    if (const int32_t result = read_gsa(sat_info); result != 0)
        return result;
    log_debug("sat_info->num_sat_in_view = %d  sat_info->num_sat_usable = %d\n",
              sat_info->num_sat_in_view, sat_info->num_sat_usable);
    if (gps_get_time(&sat_info->time) != 0) {
        log_error("Failed to get time \n");
        return 1;
    }
    return 0;
}
