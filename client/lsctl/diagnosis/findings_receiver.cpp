// lsctl: the findings about the receiver and the way to it.
#include "findings_rows.h"

#include "lsctl_text.h"

namespace diagnosis {
namespace {

bool is_asked(const facts &found) {
    return found.receiver.asked;
}

bool answered(const facts &found, lsctl_verdict verdict) {
    return is_asked(found) && found.receiver.result == LOCATION_ANSWERED &&
           found.receiver.verdict == verdict;
}

bool failed(const facts &found) {
    return is_asked(found) && found.receiver.result == LOCATION_FAILED;
}

// Whether an exchange through the TA failed because the time for its answer ran out.
bool waited_for_ta(const facts &found) {
    return found.receiver.took_s >= 0.9 * found.files.ta_wait_s && found.files.ta_wait_s > 0;
}

} // namespace

finding out_of_step(const facts &found) {
    if (!failed(found) || found.files.board != 2 || !waited_for_ta(found) ||
        found.receiver.arrival != ta_arrival::some)
        return NOTHING;
    return {
        "ta_out_of_step", severity::restart,
        "the TA answers, but since an answer was lost the service takes each for a late one and "
        "fails",
        "restart the service: systemctl restart location_service"};
}

finding line_lost(const facts &found) {
    if (!failed(found) || found.files.board != 1 || found.files.line_device == false)
        return NOTHING;
    return {"line_lost", severity::restart,
            "the service has lost its serial line, which it opens at its start only",
            "restart the service: systemctl restart location_service"};
}

finding line_gone(const facts &found) {
    if (!failed(found) || found.files.board != 1 || found.files.line_device != false)
        return NOTHING;
    return {"line_gone", severity::degraded,
            "the serial device /dev/ttymxc2 is gone, and the service has lost its line",
            "bring the device back, and then restart the service, which ends without it"};
}

finding board_unknown(const facts &found) {
    if (!failed(found) || found.files.board)
        return NOTHING;
    return {"board_unknown", severity::degraded,
            "the HAL's configuration " + found.where.hal + " names no board type, or is not read",
            "set [board] type to 1 or 2 there, and restart the service"};
}

finding ta_absent(const facts &found) {
    if (!failed(found) || found.files.board != 2 || found.bus.has(LS_SERV_TA))
        return NOTHING;
    return {"ta_absent", severity::degraded,
            "the TA, which carries all receiver traffic on board type 2, is not on the bus",
            "start the TA"};
}

finding antenna(const facts &found) {
    if (!failed(found) || found.files.board != 2 || !found.bus.has(LS_SERV_TA) ||
        waited_for_ta(found) || found.files.settings != settings_state::read ||
        found.files.stored_antenna == LS_ANTENNA_TYPE_GNSS)
        return NOTHING;
    return {"no_antenna", found.files.static_place ? severity::healthy : severity::degraded,
            lsctl_format("the receiver is not used: the antenna type is %d, and only 4 is GNSS",
                         found.files.stored_antenna),
            found.files.static_place
                ? ""
                : "with a GNSS antenna: lsctl settings --antenna 4, then restart the service"};
}

finding ta_silent(const facts &found) {
    if (!failed(found) || found.files.board != 2 || !found.bus.has(LS_SERV_TA) ||
        !waited_for_ta(found) || found.receiver.arrival == ta_arrival::some)
        return NOTHING;
    return {"ta_silent", severity::degraded,
            lsctl_format("the TA did not answer within %g s%s", found.files.ta_wait_s,
                         found.receiver.arrival == ta_arrival::none
                             ? ""
                             : ", or its answers are taken for late ones"),
            found.receiver.arrival == ta_arrival::none
                ? "look at the TA and at its log"
                : "look at the TA and at its log; when it answers others, restart the service"};
}

finding ta_bad_answer(const facts &found) {
    if (!failed(found) || found.files.board != 2 || !found.bus.has(LS_SERV_TA) ||
        waited_for_ta(found) ||
        (found.files.settings == settings_state::read &&
         found.files.stored_antenna != LS_ANTENNA_TYPE_GNSS))
        return NOTHING;
    return {"ta_bad_answer", severity::degraded,
            "what came from the TA is no answer that the service can use (too long, or not sent)",
            "look at the TA and at the service's log, which names the length"};
}

finding busy(const facts &found) {
    if (!is_asked(found) || (found.receiver.result != LOCATION_RECEIVER_BUSY &&
                             found.receiver.result != LOCATION_NO_REPLY))
        return NOTHING;
    if (found.files.settings == settings_state::read && found.files.stored_power != GPS_POWER_ON) {
        return {"power_not_stored", severity::degraded,
                "the receiver is on, but stored as off: the service answers no query",
                "switch it on as one of the services 3, 6 and 9: lsctl power on --as ID, where ID "
                "is one that is not on the bus"};
    }
    return {"receiver_busy", severity::degraded,
            lsctl_format("the service lives, but no answer of the receiver came in %.1f s",
                         found.receiver.took_s),
            "others may be asking, or the receiver is slow: try again with a longer --timeout"};
}

finding silent(const facts &found) {
    if (!answered(found, lsctl_verdict::nothing))
        return NOTHING;
    return {
        "receiver_silent", severity::degraded,
        lsctl_format("not one byte comes from the receiver (waited %.1f s)", found.receiver.took_s),
        "look at the receiver's power, its line and the line's plug"};
}

finding wrong_checksums(const facts &found) {
    if (!answered(found, lsctl_verdict::wrong_checksum))
        return NOTHING;
    return {"wrong_checksums", severity::degraded,
            "the receiver answers, but its sentences arrive with wrong checksums",
            "look at the line (length, shield, ground) and at the baud rate, 9600"};
}

finding damaged(const facts &found) {
    const bool cut = answered(found, lsctl_verdict::cut);
    if (!cut && !answered(found, lsctl_verdict::noise))
        return NOTHING;
    return {cut ? "cut_answers" : "noise", severity::degraded,
            cut ? "the receiver's sentences arrive cut" : "what arrives is no sentence, but noise",
            "look at the line (plug, shield, ground) and at the baud rate, 9600"};
}

finding late_answers(const facts &found) {
    if (!answered(found, lsctl_verdict::other))
        return NOTHING;
    return {"late_answers", severity::degraded,
            "the receiver answers another question than it was asked: its answers come late, or it "
            "talks unasked",
            "try again in a few seconds; when it stays, restart the service, which configures it"};
}

finding noisy(const facts &found) {
    if (!answered(found, lsctl_verdict::good) || !found.receiver.noise)
        return NOTHING;
    return {"noise", severity::degraded,
            "bytes that belong to no sentence arrive with the receiver's answers",
            "look at the line (plug, shield, ground) and at the baud rate, 9600"};
}

finding no_fix(const facts &found) {
    if (!found.receiver.navigation || found.receiver.navigation->has_fix())
        return NOTHING;
    if (found.receiver.navigation->status.empty()) {
        return {"empty_answers", severity::degraded, "the receiver answers, but with empty fields",
                "it may just have been started: wait a minute; else look at its configuration"};
    }
    // Clients get the static place whatever the receiver has.
    return {"no_fix", found.files.static_place ? severity::healthy : severity::degraded,
            lsctl_format("the receiver has no fix; it hears %u satellite%s", found.receiver.heard,
                         found.receiver.heard == 1 ? "" : "s"),
            found.receiver.heard == 0 ? "look at the antenna and its cable, and at the view of the "
                                        "sky"
                                      : "wait: a first fix takes half a minute under an open sky, "
                                        "minutes elsewhere; four satellites are needed"};
}

} // namespace diagnosis
