// Dispatch of bus messages, and the workers that serve them.
//
// Byte 0: bit 0 = board type 2, bit 1 = gate open, bit 2 = receiver off, bit 3 = history on, bit 4
// = static location on. Then messages: type, sender, id (2 bytes), payload size (255 = all the
// rest), payload. No receiver answers: board type 1 has no line, and behind the TA nobody waits.
#include "fuzz_target.h"

#include "fake_platform.h"
#include "gps_history.h"
#include "gps_main.h"
#include "gps_message_handler.h"
#include "ls_state.h"

#include <sched.h>
#include <span>

// Read by the leak checker. A worker leaves the payload of a request with an unknown id to
// nobody, on purpose.
extern "C" __attribute__((visibility("default"))) const char *__lsan_default_suppressions();
const char *__lsan_default_suppressions() {
    return "leak:ls_msg_req_handler_thread\n";
}

namespace {

void configure(uint8_t bits) {
    fake::reset();
    gps_board_type_g = (bits & 1) != 0 ? 2 : 1;
    antenna_type = (bits & 2) != 0 ? LS_ANTENNA_TYPE_GNSS : 0;
    mt_gps_status = (bits & 4) != 0 ? 0 : 2;
    fake::database().history = {.status = static_cast<uint8_t>((bits & 8) >> 3), .interval = 60};
    stub_location_on_g = (bits & 16) >> 4;
    rffe_req_sem_wait_time = 0;
}

// What has been sent since the first `before` messages.
void expect_answers(const bus_msg &msg, size_t before) {
    const std::vector<fake::sent_message> all = fake::sent();
    for (const fake::sent_message &sent : std::span(all).subspan(before))
        fuzz_expect(sent.hdr.msg_type != 1 ||
                        (msg.hdr.msg_type == 0 && sent.hdr.msg_id == msg.hdr.msg_id &&
                         sent.hdr.txn_id == msg.hdr.txn_id &&
                         sent.hdr.dst_serv_id == msg.hdr.src_serv_id),
                    "only requests have responses, which go back to where they came from");
}

} // namespace

void fuzz(fuzz_input input) {
    configure(input.number<uint8_t>());
    int messages = 0;
    while (!input.rest.empty()) {
        const auto type = input.number<uint8_t>();
        const auto from = input.number<uint8_t>();
        const uint32_t id = input.number<uint16_t>();
        const auto length = input.number<uint8_t>();
        const std::string_view text = input.take(length == 255 ? input.rest.size() : length);
        std::vector<uint8_t> payload(text.begin(), text.end());
        bus_msg msg = fake::make_message(type, id, from, payload);
        const size_t before = fake::sent().size();
        ls_hal_process_message(fake::connection(), &msg);
        while (ls_activities() != 0)
            sched_yield();
        expect_answers(msg, before);
        ++messages;
    }
    // A request for LPP parameters as a notification gives its vote back twice: as a worker does at
    // its end, and as a notification does.
    const fake::votes votes = fake::system_state_votes();
    fuzz_expect(votes.enabled >= votes.disabled && votes.enabled <= votes.disabled + messages,
                "the terminal may sleep again");
    ls_delete_all_periodic_requests();
    ls_hal_deinit_gps_history();
}
