// What lsctl and the client library make of anything that the service may send, of any file in the
// place of an exported history, and what lsctl stream makes of what gpsd's clients send.
//
// Byte 0: bit 7 = --json, the rest chooses. Then messages, up to three for each that is sent: "r"
// a reply, "e" a receiver's answer, "u" an update, anything else an LPP record, each with its size
// (1 byte) and bytes. When they run out the gate is closed. Or the file, or the requests.
#include "fuzz_target.h"

#include "lsctl_rig.h"
#include "stream_gpsd.h"

#include <fcntl.h>
#include <sys/stat.h>

namespace {

fuzz_input messages; // what is left of them

// Between "|"; the last one stands for the requests of gpsd's clients, and for sentences.
constexpr std::string_view commands =
    "position|time|satellites|speed|speed --raw|power|power on --as ws|nmea PUBX,00|"
    "nmea GPGPQ,GSV|nmea GPGPQ,VTG|ubx CFG-RATE|ubx MON-VER|ubx NAV-POSECEF|lpp|watch -n 1 -i 4|"
    "history|history --input in|history --input in --summary|history --input in -f csv|"
    "history --input in -f gpx|history --input in -f kml|history --input in -f geojson|"
    "history --input in -f svg|";

// Everything that is asked is over at once.
void answer(const sent_message &asked) {
    for (int i = 0; i < 3 && !messages.rest.empty(); ++i) {
        const auto kind = messages.number<char>();
        const std::string_view text = messages.take(messages.number<uint8_t>());
        if (kind == 'r')
            fake_reply(asked.hdr, {text.begin(), text.end()});
        else if (kind == 'e' && text.size() <= LS_ENGG_ANSWER_SIZE)
            always(padded({1}, sizeof(ls_engg_cmd), {text.begin(), text.end()}, 84))(asked);
        else if (kind == 'u')
            fake_send(LS_MSG_NOTIFICATION, LS_NOTIFY_PERIODIC_UPDATE, {text.begin(), text.end()});
        else
            fake_send(LS_MSG_REQUEST, SAL_REQUEST_GNSS_LOCATION, {text.begin(), text.end()});
    }
    const bool registers = asked.hdr.msg_id == LS_REQUEST_REGISTER_PERIODIC_UPDATE;
    fake_reply(asked.hdr, registers ? bytes{1, 0, 0, 0} : bytes(LS_REFUSED_REPLY_SIZE));
    // Nobody minds those that were not asked for.
    fake_send(LS_MSG_NOTIFICATION, LS_NOTIFY_PERIODIC_UPDATE, bytes(sizeof(ls_position_reply)));
    fake_send(LS_MSG_REQUEST, SAL_REQUEST_GNSS_LOCATION, bytes(sizeof(gps_lpp_location)));
}

// One value, or one a line.
void expect_json(const std::string &text) {
    std::istringstream lines(text);
    for (std::string line; !lsctl_json::accept(text) && std::getline(lines, line);)
        fuzz_expect(lsctl_json::accept(line), "JSON is JSON");
}

void run(const std::string &command, bool json) {
    const bool is_json = json && command.find("-f") == std::string::npos;
    const int status = run_words(command + (is_json ? " --json" : ""));
    const std::string told = scratch_dir::read("out");
    fuzz_expect(ftruncate(STDOUT_FILENO, 0) == 0, "what was told is read");
    fuzz_expect(status == LSCTL_OK || status == LSCTL_FAILED || status == LSCTL_NO_ANSWER,
                "an answer is a success or a failure");
    fuzz_expect(!is_json || !told.empty(), "and is told");
    if (is_json)
        expect_json(told);
}

// What lsctl monitor and stream take from the receiver's own sentences.
void take_sentences(std::string_view text) {
    const std::span all(reinterpret_cast<const uint8_t *>(text.data()), text.size());
    const lsctl_heard heard = lsctl_judge_nmea(all, "");
    lsctl_sky_of(heard.sentences);
    for (const lsctl_fields &fields : heard.sentences) {
        lsctl_motion_of(fields);
        lsctl_navigation_of(fields);
        lsctl_field_time_s(fields, 2);
    }
}

void take_requests(std::string text) {
    gpsd_session session;
    while (const auto request = gpsd_take_request(text))
        expect_json(gpsd_reply(session, *request, "2024-01-01T12:00:00Z"));
}

bool prepare() {
    setenv("MQUTILS_DIR", ".", 1);
    setenv("DBHANDLER_FILE", "user/settings.db", 1);
    return freopen("out", "a", stdout) != nullptr;
}

} // namespace

void fuzz(fuzz_input input) {
    [[maybe_unused]] static const bool ready = prepare();
    messages = input;
    const auto choice = messages.number<uint8_t>();
    fuzz_input list{commands};
    for (int skipped = choice & 0x7F; skipped != 0; --skipped)
        list.until('|');
    const std::string command(list.until('|'));
    if (command.empty()) {
        take_sentences(messages.rest);
        take_requests(std::string(messages.rest));
        return;
    }
    scratch_dir::write("in", std::string(messages.rest));
    constexpr timespec settled[2] = {};
    utimensat(AT_FDCWD, "in", settled, 0);
    fake_reset();
    fake.service = answer;
    run(command, choice > 0x7F);
}
