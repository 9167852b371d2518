// Engineering pass-through: a client's command to the receiver, the raw answer back.
#include "gps_nmea_parser.h"
#include "gps_service.h"
#include "ls_log.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>

static constexpr char log_module[] = "gps_service";

namespace {

constexpr size_t UBX_ANSWER_COPY = 80; // bytes of a UBX answer that are handed on, whatever came
constexpr size_t UBX_CHECKSUM_START = 2;
constexpr size_t UBX_OUTSIDE_CHECKSUM = 4; // two sync bytes, two checksum bytes

// The command text as a string, also when the client forgot its NUL.
std::array<char, LS_ENGG_CMD_SIZE + 1> command_text(const ls_engg_cmd &engg) {
    std::array<char, LS_ENGG_CMD_SIZE + 1> text = {};
    memcpy(text.data(), engg.command, sizeof(engg.command));
    return text;
}

// Reads hexadecimal pieces separated by commas, one byte each (the low one), into `frame`, a buffer
// of GPS_COMMAND_SIZE bytes. Returns the number of pieces.
size_t read_hex_pieces(char *text, uint8_t *frame) {
    size_t count = 0;
    char *rest = nullptr;
    for (char *piece = strtok_r(text, ",", &rest); piece != nullptr;
         piece = strtok_r(nullptr, ",", &rest)) {
        // Not strtoul: its long, at whose end it saturates, is not the same on every machine.
        const auto byte = static_cast<uint8_t>(strtoull(piece, nullptr, 16));
        log_debug("%x\n", byte);
        if (count < GPS_COMMAND_SIZE)
            frame[count] = byte;
        ++count;
    }
    return count;
}

} // namespace

int32_t gps_engg_exec_nmea(ls_engg_cmd *engg) {
    log_debug("%s\n", __func__);
    const auto body = command_text(*engg);
    gps_answer answer = {};
    if (const int32_t result = gps_poll_nmea(body.data(), &answer); result != 0) {
        log_error("%s: Failed To get GPS data \n", __func__);
        return result;
    }
    memset(engg->answer, 0, sizeof(engg->answer));
    memcpy(engg->answer, answer.text, std::min<size_t>(answer.length, sizeof(engg->answer)));
    return 0;
}

int32_t gps_engg_exec_ubx(ls_engg_cmd *engg) {
    auto text = command_text(*engg);
    log_debug("%s\n", __func__);
    log_debug("%s\n", text.data());
    // Text that fills its field without a NUL was cut somewhere, and would be a frame with its
    // checksum in the middle.
    if (memchr(engg->command, '\0', sizeof(engg->command)) == nullptr) {
        log_error("%s: failed to get GPS data", __func__);
        return 1;
    }
    std::array<uint8_t, GPS_COMMAND_SIZE> frame = {};
    const size_t count = read_hex_pieces(text.data(), frame.data());
    if (count > frame.size()) {
        // The wording names another operation; people who read these logs know it as it is.
        log_error("gps_get_sat_info fun bytes_read value crossed Max : bytes_read = %d\n",
                  static_cast<int>(frame.size()));
        return 1;
    }
    if (count < UBX_OUTSIDE_CHECKSUM) {
        log_error("%s: failed to get GPS data", __func__);
        return 1;
    }
    ls_hal_calculate_ubx_checksum(frame.data() + UBX_CHECKSUM_START,
                                  static_cast<uint8_t>(count - UBX_OUTSIDE_CHECKSUM));
    for (size_t i = 0; i < count; ++i)
        log_debug("%x\n", frame[i]);

    gps_answer answer = {};
    if (const int32_t result = gps_get_data_req(frame, &answer); result != 0) {
        log_error("%s: failed to get GPS data", __func__);
        return result;
    }
    memcpy(engg->answer, answer.text, UBX_ANSWER_COPY);
    return 0;
}
