// lsctl: the receiver's own sentences, judged and taken apart.
#include "lsctl_sentence.h"

#include <algorithm>
#include <array>
#include <charconv>

namespace {

constexpr std::array<const char *, 6> VERDICT_NAMES = {"good", "nothing", "wrong_checksum",
                                                       "cut",  "other",   "noise"};

// Shortest thing that is a sentence at all: "$X*hh".
constexpr size_t SHORTEST_SENTENCE = 5;

bool is_wanted(std::string_view body, std::string_view wanted) {
    constexpr size_t talker = 2;
    return body.starts_with(wanted) ||
           (body.size() > talker && body.substr(talker).starts_with(wanted));
}

lsctl_fields split(std::string_view body) {
    lsctl_fields fields;
    while (true) {
        const size_t comma = body.find(',');
        fields.emplace_back(body.substr(0, comma));
        if (comma == std::string_view::npos)
            return fields;
        body.remove_prefix(comma + 1);
    }
}

// The value of two hexadecimal digits; none for anything else.
std::optional<uint8_t> hex_byte(std::string_view digits) {
    uint8_t value = 0;
    const auto [end, error] =
        std::from_chars(digits.data(), digits.data() + digits.size(), value, 16);
    if (error != std::errc() || digits.size() != 2 || end != digits.data() + digits.size())
        return std::nullopt;
    return value;
}

// One line that begins with '$', up to its line end or the end of what came.
lsctl_verdict judge_line(std::string_view line, std::string_view wanted, std::string_view &body) {
    const size_t star = line.find('*');
    if (star == std::string_view::npos || line.size() < SHORTEST_SENTENCE || line.size() < star + 3)
        return lsctl_verdict::cut;
    body = line.substr(1, star - 1);
    uint8_t sum = 0;
    for (const char c : body)
        sum = static_cast<uint8_t>(sum ^ static_cast<uint8_t>(c));
    if (hex_byte(line.substr(star + 1, 2)) != sum)
        return lsctl_verdict::wrong_checksum;
    return is_wanted(body, wanted) ? lsctl_verdict::good : lsctl_verdict::other;
}

// What one line that the service did not cut says about the whole answer.
void note_line(lsctl_verdict verdict, lsctl_heard &heard) {
    const bool is_wrong = verdict == lsctl_verdict::wrong_checksum;
    if (is_wrong || (verdict == lsctl_verdict::cut && heard.damage == lsctl_verdict::good))
        heard.damage = verdict;
    if (verdict != lsctl_verdict::cut)
        heard.checksum_good = heard.checksum_good.value_or(true) && !is_wrong;
}

// How much a verdict says about the line: the first of these in an answer is the answer's.
constexpr std::array BEST_FIRST = {lsctl_verdict::good, lsctl_verdict::other,
                                   lsctl_verdict::wrong_checksum, lsctl_verdict::cut,
                                   lsctl_verdict::noise};

} // namespace

const char *lsctl_verdict_name(lsctl_verdict verdict) {
    return VERDICT_NAMES.at(static_cast<size_t>(verdict));
}

lsctl_heard lsctl_judge_nmea(std::span<const uint8_t> answer, std::string_view wanted) {
    lsctl_heard heard;
    std::string_view rest(reinterpret_cast<const char *>(answer.data()), answer.size());
    rest = rest.substr(0, rest.find_last_not_of('\0') + 1);
    const bool is_full = answer.size() == LS_ENGG_ANSWER_SIZE && rest.size() == answer.size();
    std::array<bool, VERDICT_NAMES.size()> seen{};
    if (!rest.empty())
        seen[static_cast<size_t>(lsctl_verdict::noise)] = true;
    for (size_t start = rest.find('$'); start != std::string_view::npos; start = rest.find('$')) {
        rest.remove_prefix(start);
        const std::string_view line = rest.substr(0, rest.find_first_of("\r\n"));
        std::string_view body;
        lsctl_verdict verdict = judge_line(line, wanted, body);
        if (verdict == lsctl_verdict::cut && is_full && line.size() == rest.size()) {
            heard.cut_by_room = true;
            if (!is_wanted(line.substr(1), wanted))
                verdict = lsctl_verdict::other;
        } else {
            note_line(verdict, heard);
        }
        seen[static_cast<size_t>(verdict)] = true;
        if (verdict == lsctl_verdict::good)
            heard.sentences.push_back(split(body));
        rest.remove_prefix(1);
    }
    for (const lsctl_verdict verdict : BEST_FIRST) {
        if (seen[static_cast<size_t>(verdict)]) {
            heard.verdict = verdict;
            break;
        }
    }
    return heard;
}

location_result lsctl_ask_receiver(location_client *client, std::chrono::milliseconds timeout,
                                   std::string_view body, std::string_view wanted,
                                   lsctl_heard &heard) {
    location_client_answer answer{};
    const location_result result = location_client_exec_nmea(client, timeout, body, &answer);
    if (result == LOCATION_ANSWERED)
        heard = lsctl_judge_nmea(answer, wanted);
    return result;
}

std::optional<double> lsctl_field_number(const lsctl_fields &fields, size_t index) {
    if (index >= fields.size() || fields[index].empty())
        return std::nullopt;
    const std::string &text = fields[index];
    double value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc() || end != text.data() + text.size())
        return std::nullopt;
    return value;
}

std::optional<double> lsctl_field_time_s(const lsctl_fields &fields, size_t index) {
    const std::optional<double> packed = lsctl_field_number(fields, index);
    if (!packed || *packed < 0 || *packed >= 240000)
        return std::nullopt;
    const unsigned clock = static_cast<unsigned>(*packed) / 100; // "hhmm"
    const unsigned minutes = clock / 100 * 60 + clock % 100;
    return minutes * 60.0 + (*packed - clock * 100.0);
}

lsctl_motion lsctl_motion_of(const lsctl_fields &vtg) {
    return {.course_deg = lsctl_field_number(vtg, 1),
            .speed_knots = lsctl_field_number(vtg, 5),
            .speed_kmh = lsctl_field_number(vtg, 7)};
}

lsctl_navigation lsctl_navigation_of(const lsctl_fields &pubx_00) {
    // $PUBX,00,time,lat,N,long,E,altitude,status,hAcc,vAcc,...,HDOP,VDOP,TDOP,satellites,...
    constexpr size_t status = 8;
    constexpr size_t satellites = 18;
    lsctl_navigation navigation;
    if (pubx_00.size() > status)
        navigation.status = pubx_00[status];
    navigation.horizontal_accuracy_m = lsctl_field_number(pubx_00, 9);
    navigation.vertical_accuracy_m = lsctl_field_number(pubx_00, 10);
    navigation.satellites_used = static_cast<unsigned>(
        std::clamp(lsctl_field_number(pubx_00, satellites).value_or(0), 0.0, 255.0));
    return navigation;
}

std::vector<lsctl_sky_satellite> lsctl_sky_of(std::span<const lsctl_fields> gsv) {
    constexpr size_t first = 4; // behind the count of sentences, their number and that in view
    constexpr size_t width = 4;
    std::vector<lsctl_sky_satellite> sky;
    for (const lsctl_fields &sentence : gsv) {
        for (size_t at = first; at + width <= sentence.size(); at += width) {
            const auto prn = lsctl_field_number(sentence, at);
            if (!prn || *prn < 1 || *prn > 255)
                continue;
            sky.push_back({.prn = static_cast<unsigned>(*prn),
                           .elevation_deg = lsctl_field_number(sentence, at + 1),
                           .azimuth_deg = lsctl_field_number(sentence, at + 2),
                           .cn0_dbhz = lsctl_field_number(sentence, at + 3)});
        }
    }
    return sky;
}
