// lsctl nmea and ubx: arguments and answers. Pure functions.
#ifndef LSCTL_ENGINEERING_H
#define LSCTL_ENGINEERING_H

#include <cstdint>
#include <span>
#include <string>
#include <string_view>

#include "lsctl.h"
#include "lsctl_ubx.h"

// What is wrong with the body of an NMEA sentence, or "".
std::string nmea_problem(std::string_view body);

// False for a sentence that a receiver obeys without a word.
bool nmea_expects_answer(std::string_view body);

// What the answer to this body begins with, as lsctl_judge_nmea takes it; "" for anything.
std::string nmea_wanted(std::string_view body);

// The answer as lines of text, or as a dump when it is not text; "" when it is all zero.
std::string nmea_answer_text(std::span<const uint8_t> answer);
lsctl_json nmea_answer_json(std::span<const uint8_t> answer);

std::string ubx_answer_text(std::span<const ubx_piece> pieces);
lsctl_json ubx_answer_json(std::span<const ubx_piece> pieces);

#endif
