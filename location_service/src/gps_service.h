// Receiver queries: one command-and-answer exchange over either path, the numeric conversions, and
// the queries that turn answers into time, position, satellites, speed and LPP parameters.
//
// Queries run on the caller's thread and may block for the receiver (3 s an exchange on the serial
// line, the wait time of the control parameters through the TA). Result of a query: 0 success,
// 1 failure, or the non-zero result of the exchange (2 = receiver time-out, -1 = no memory).
#ifndef GPS_SERVICE_H
#define GPS_SERVICE_H

#include "gps_data.h"
#include "ls_log.h"
#include "ls_messages.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

// The largest answer accepted from the serial line, and the buffer that takes it as a string.
constexpr uint32_t GPS_UART_ANSWER_MAX = 205;
constexpr size_t GPS_ANSWER_SIZE = GPS_UART_ANSWER_MAX + 1;
// Every command buffer: a sentence as a string, or a UBX frame.
constexpr size_t GPS_COMMAND_SIZE = 200;

// --- gps_service_request.cpp: the exchange

using gps_bytes = std::span<const uint8_t>;
using gps_sentence = std::array<char, GPS_COMMAND_SIZE>; // a whole sentence, as a string

inline gps_bytes gps_sentence_bytes(const gps_sentence &sentence) {
    return {reinterpret_cast<const uint8_t *>(sentence.data()), sentence.size()};
}

// An answer as it came: text or a UBX frame, followed by a NUL. Zeroed by whoever declares it.
struct gps_answer {
    char text[GPS_ANSWER_SIZE];
    // Bytes of the answer. Through the TA also when the exchange failed because they were too many.
    uint32_t length;
};

// Sends one command to the receiver and takes its answer. `command` is the buffer of a sentence
// (string) or of a UBX frame with its checksum, which says by itself how long it is; a frame that
// says that it is longer than its buffer is refused. Exchanges are one at a time on either path.
int32_t gps_get_data_req(gps_bytes command, gps_answer *answer);

// Empties the receive buffer and builds the sentence for `body`. 0, or what building it gave.
uint32_t gps_build_poll(const char *body, gps_sentence *sentence);

// Both in one: builds the sentence and exchanges it.
int32_t gps_poll_nmea(const char *body, gps_answer *answer);

// --- gps_service_sentence.cpp

// A poll that one sentence answers, and what the log says when it fails.
struct gps_sentence_query {
    const char *name; // of the query, for those of the texts that have a "%s"
    const char *poll; // body of the poll
    const char *type; // first field of the answer
    bool is_strict;   // false: a first field of another length passes, too
    ls_log_text no_answer;
    ls_log_text no_sentence;
    ls_log_text no_type;
    ls_log_text other_type;
};

// Characters of a first field that is held against the wanted one; receivers that write others are
// believed.
constexpr size_t GPS_SENTENCE_TYPE_SIZE = 5;

// Whether a first field has the usual length and is not the wanted one.
bool gps_is_other_sentence(const char *type, const char *wanted);

// Asks and leaves the sentence in `body` (NMEA_BUFFER_SIZE bytes). 0; else the result of the
// exchange, or 1 for an answer that is not the sentence (logged).
int32_t gps_query_sentence(const gps_sentence_query &query, char *body);

// The second half of it: whether `answer`, GPS_ANSWER_SIZE bytes, is the sentence; logs.
bool gps_check_sentence(const gps_sentence_query &query, const char *answer, char *body);

// --- gps_service_convert.cpp: numbers from fields. 0 success, 1 failure (logged).

// Decimal digits of str[start..end] (end inclusive). Signs are refused.
uint32_t gps_string_to_number(const char *str, int32_t *result, uint8_t start, uint8_t end);

// "12.0034" into 12 and 34. The fraction does not keep its leading zeros; bytes are not checked.
uint32_t gps_string_to_dec_frac(const char *str, uint32_t *dec, uint32_t *frac);

// The same, and count the zeros right behind the point in the global count of their own.
uint32_t gps_str_to_dec_frac_latitude(const char *str, uint32_t *dec, uint32_t *frac);
uint32_t gps_str_to_dec_frac_longitude(const char *str, uint32_t *dec, uint32_t *frac);
uint32_t gps_latitude_leading_zeros();
uint32_t gps_longitude_leading_zeros();

// NMEA ddmm.mmmm or dddmm.mmmm into decimal degrees.
void gps_ddmm_to_degrees(double value, double *out);

// Leading decimal integer of a field, with sign; 0 without digits, limits of int32 on overflow.
int32_t gps_leading_integer(const char *str);

// --- gps_service_time.cpp

// UTC date and time (ZDA). On failure the fields read so far are filled.
int32_t gps_get_time(gps_time_fields *time);

// UTC time of week in whole seconds (PUBX 04).
int32_t gps_get_tow(int32_t *tow);

// --- gps_service_position.cpp

// One position fix (GGA, GSA, ZDA), or the static location. On failure the record may be partly
// filled. On board type 2 a good fix becomes the buffered position.
int32_t gps_get_pos(gps_pos_data *pos);

// The buffered position, when it may be served: board type not 1, and stored fewer than
// GPS_GET_POS_BUFFER_TIME whole seconds ago. Fills the record and the result of the last query.
bool gps_get_buffered_pos(gps_pos_data *pos, int32_t *result);

// --- gps_service_satellites.cpp

// Satellites in view (at most 12, from at most four GSV sentences) and in use (GSA), and the time.
int32_t gps_get_sat_info(gps_sat_info *sat_info);

// --- gps_service_speed.cpp

// Speed over ground (VTG) and the time.
int32_t gps_get_speed(gps_speed_data *speed);

// --- gps_service_engineering.cpp

// Sends the command text as a sentence; up to 200 bytes of the raw answer go into the record.
int32_t gps_engg_exec_nmea(ls_engg_cmd *engg);

// Sends the command text, hexadecimal bytes separated by commas, as a frame whose last two bytes
// are overwritten by its checksum; the first 80 bytes of the answer go into the record.
int32_t gps_engg_exec_ubx(ls_engg_cmd *engg);

// --- gps_service_lpp.cpp

// Earth-centred coordinates in centimetres (NAV-POSECEF).
struct gps_ecef_sample {
    int32_t x, y, z;
};

// What the cellular side takes for an uncertainty ellipse, from two samples: lengths in
// centimetres, angle in degrees. Unsigned 32-bit arithmetic, a division by zero gives 0.
struct gps_lpp_ellipse {
    uint32_t semi_major;
    uint32_t semi_minor;
    uint8_t angle;
};
gps_lpp_ellipse gps_make_lpp_ellipse(const gps_ecef_sample &first, const gps_ecef_sample &second);

// LPP location parameters. Asks for a position (or takes the buffered one), two ECEF samples, a
// second position and PUBX 00. Non-zero results of the exchange come back in 8 bits.
int32_t gps_get_lpp_paramas(gps_lpp_location *location);

#endif
