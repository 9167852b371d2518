// A sentence of NMEA 0183: "$", a body of fields, "*", two checksum digits. Pure functions.
#ifndef SIMULATOR_TRUTH_SENTENCE_H
#define SIMULATOR_TRUTH_SENTENCE_H

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace sim {

// The text between $ and * when the line ($...*CC, without line end) has the right checksum.
std::optional<std::string_view> verified_nmea_body(std::string_view line);

std::vector<std::string_view> nmea_fields(std::string_view body);

// "$" body "*CC\r\n".
std::string nmea_sentence(std::string_view body);

} // namespace sim

#endif
