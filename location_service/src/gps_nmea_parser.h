// NMEA sentence codec and the UBX checksum: the only place where receiver sentences are built or
// taken apart.
//
// Stateless and lock-free; no heap, no I/O but the log. Reads the static-location flag. Any thread.
// Results: 0 success, 1 failure (logged at error level). Outputs are NUL-terminated.
#ifndef GPS_NMEA_PARSER_H
#define GPS_NMEA_PARSER_H

#include <cstddef>
#include <cstdint>

// Size of every sentence and body buffer, and the least size of a received buffer.
constexpr size_t NMEA_BUFFER_SIZE = 200;
constexpr size_t NMEA_CHECKSUM_SIZE = 3;
constexpr size_t NMEA_TOKEN_SIZE = 21;

// Checksum of a sentence body (without "$" and "*", shorter than 256 characters) as two upper-case
// hex digits. `checksum` holds NMEA_CHECKSUM_SIZE bytes; it is left untouched when `cmd` is null.
void ls_hal_calculate_nmea_checksum(const char *cmd, char *checksum);

// 8-bit Fletcher sum of the n bytes at `frame` (the class byte of a UBX frame); writes CK_A and
// CK_B to frame[n] and frame[n + 1].
void ls_hal_calculate_ubx_checksum(uint8_t *frame, uint8_t n);

// Builds "$<body>*<checksum>\r\n". `nmea_sent` holds NMEA_BUFFER_SIZE bytes; a body that does not
// fit is a failure.
uint32_t ls_hal_create_nmea_sentence(const char *nmea_msg, char *nmea_sent);

// Finds the sentence in a received buffer, checks it and stores its body. `nmea_msg` is a string in
// a buffer of at least NMEA_BUFFER_SIZE bytes, `nmea_sent` holds NMEA_BUFFER_SIZE bytes. The
// checksum is not compared while the static location is on.
uint32_t ls_hal_extract_nmea_msg(const char *nmea_msg, char *nmea_sent);

// Field n (from 0) of a sentence body, cut to 20 characters. `token` holds NMEA_TOKEN_SIZE bytes.
// An empty field is a failure.
uint32_t ls_hal_get_token(const char *nmea_msg, char *token, int32_t n);

#endif
