// One poll answered by one sentence, checked up to its type.
#include "gps_nmea_parser.h"
#include "gps_service.h"
#include "ls_log.h"

#include <cstring>

static constexpr char log_module[] = "gps_service";

int32_t gps_query_sentence(const gps_sentence_query &query, char *body) {
    char answer[GPS_ANSWER_SIZE] = {};
    char type[NMEA_TOKEN_SIZE] = {};
    uint32_t length = GPS_COMMAND_SIZE;

    const int32_t result = gps_poll_nmea(query.poll, answer, &length);
    if (result != 0) {
        log_error("%s%s", query.name, query.no_answer);
        return result;
    }
    if (ls_hal_extract_nmea_msg(answer, body) != 0) {
        log_error("%s%s", query.name, query.no_sentence);
        return 1;
    }
    if (ls_hal_get_token(body, type, 0) != 0) {
        log_error("%s%s", query.name, query.no_type);
        return 1;
    }
    if ((query.is_strict || strlen(type) == strlen(query.type)) && strcmp(type, query.type) != 0) {
        log_error("%s%s", query.name, query.other_type);
        return 1;
    }
    return 0;
}
