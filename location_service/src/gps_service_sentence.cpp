// One poll answered by one sentence, checked up to its type.
#include "gps_nmea_parser.h"
#include "gps_service.h"

#include <cstring>

static constexpr char log_module[] = "gps_service";

bool gps_is_other_sentence(const char *type, const char *wanted) {
    return strlen(type) == GPS_SENTENCE_TYPE_SIZE && strcmp(type, wanted) != 0;
}

int32_t gps_query_sentence(const gps_sentence_query &query, char *body) {
    gps_answer answer = {};
    if (const int32_t result = gps_poll_nmea(query.poll, &answer); result != 0) {
        log_text(LS_LOG_ERROR, query.no_answer, query.name);
        return result;
    }
    return gps_check_sentence(query, answer.text, body) ? 0 : 1;
}

bool gps_check_sentence(const gps_sentence_query &query, const char *answer, char *body) {
    char type[NMEA_TOKEN_SIZE] = {};
    if (ls_hal_extract_nmea_msg(answer, body) != 0) {
        log_text(LS_LOG_ERROR, query.no_sentence, query.name);
        return false;
    }
    if (ls_hal_get_token(body, type, 0) != 0) {
        log_text(LS_LOG_ERROR, query.no_type, query.name);
        return false;
    }
    const bool is_other =
        query.is_strict ? strcmp(type, query.type) != 0 : gps_is_other_sentence(type, query.type);
    if (is_other)
        log_text(LS_LOG_ERROR, query.other_type, query.name);
    return !is_other;
}
