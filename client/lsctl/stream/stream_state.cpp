// lsctl stream: the turn of the questions, and the age of the answers.
#include "stream_state.h"

#include <cmath>
#include <span>

namespace {

// Between the positions, in turn. Sentences need no satellites.
constexpr std::array NMEA_TURNS = {stream_question::motion};
constexpr std::array ALL_TURNS = {stream_question::motion, stream_question::satellites,
                                  stream_question::motion, stream_question::sky};

// At once after the second place between two positions.
constexpr std::chrono::milliseconds POSITION_DUE = STREAM_SPACING * 3 / 2;

const stream_answer *fresh(const stream_state &state, stream_question question,
                           std::chrono::milliseconds life, stream_clock::time_point now) {
    const auto &answer = state.at(static_cast<size_t>(question));
    return answer && now - answer->asked < life ? &*answer : nullptr;
}

bool has_fix(const gps_pos_data &position) {
    return (position.fix_type == GPS_FIX_2D || position.fix_type == GPS_FIX_3D) &&
           (position.lat_dir == 'N' || position.lat_dir == 'S') &&
           (position.lon_dir == 'E' || position.lon_dir == 'W') && position.latitude >= 0 &&
           position.latitude <= 90 && position.longitude >= 0 && position.longitude <= 180 &&
           std::isfinite(position.altitude);
}

} // namespace

bool stream_is_answer(location_result result) {
    switch (result) {
    case LOCATION_ANSWERED:
    case LOCATION_FAILED:
    case LOCATION_RECEIVER_TIMEOUT:
    case LOCATION_GATE_CLOSED:
    case LOCATION_RECEIVER_OFF:
    case LOCATION_RECEIVER_BUSY:
        return true;
    default:
        return false;
    }
}

stream_report stream_report_of(const stream_state &state, stream_clock::time_point now) {
    stream_report report;
    const auto *position = fresh(state, stream_question::position, STREAM_POSITION_LIFE, now);
    if (position == nullptr) {
        report.why = "no answer from the location service yet";
        return report;
    }
    report.result = position->result;
    report.why = position->why;
    if (!stream_is_answer(report.result))
        return report;
    if (report.result == LOCATION_ANSWERED && has_fix(position->position)) {
        report.position = position->position;
    } else if (report.result == LOCATION_ANSWERED) {
        report.result = LOCATION_FAILED;
        report.why = "the receiver has no fix";
    }
    const auto *motion = fresh(state, stream_question::motion, STREAM_MOTION_LIFE, now);
    if (motion != nullptr && report.position)
        report.motion = motion->motion;
    const auto *satellites = fresh(state, stream_question::satellites, STREAM_SKY_LIFE, now);
    if (satellites != nullptr && satellites->result == LOCATION_ANSWERED)
        report.satellites = satellites->satellites;
    const auto *sky = fresh(state, stream_question::sky, STREAM_SKY_LIFE, now);
    if (sky != nullptr)
        report.sky = sky->sky;
    return report;
}

stream_clock::time_point stream_next_time(const stream_plan &plan, stream_clock::time_point now) {
    return plan.asked ? *plan.asked + STREAM_SPACING : now;
}

stream_question stream_next(stream_plan &plan, stream_clock::time_point now) {
    plan.asked = now;
    if (plan.lost || !plan.position_asked || now - *plan.position_asked >= POSITION_DUE) {
        plan.position_asked = now;
        return stream_question::position;
    }
    const std::span<const stream_question> turns =
        plan.form == stream_form::nmea ? std::span<const stream_question>(NMEA_TURNS)
                                       : std::span<const stream_question>(ALL_TURNS);
    return turns[plan.turn++ % turns.size()];
}

void stream_answered(stream_plan &plan, const stream_answer &answer) {
    if (answer.question == stream_question::position)
        plan.lost = !stream_is_answer(answer.result);
}
