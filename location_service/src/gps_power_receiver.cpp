// Brings the receiver into the one configuration the rest relies on: it speaks when asked, in
// NMEA 4.0 and UBX, from GPS alone at 10 Hz, with ON/OFF power save by EXTINT0, all of it saved.
#include "gps_nmea_parser.h"
#include "gps_power.h"
#include "gps_uart.h"
#include "ls_clock.h"
#include "ls_log.h"
#include "ls_state.h"

#include <algorithm>
#include <cstring>
#include <variant>

static constexpr char log_module[] = "gps_power";

namespace {

constexpr char name[] = "ls_hal_power_on_gps"; // in log lines

constexpr size_t ANSWER_SIZE = 200;
constexpr size_t ACK_SIZE = 10;
constexpr size_t UBX_HEADER_SIZE = 6;
constexpr size_t UBX_OVERHEAD = 8;
constexpr size_t UBX_ID_OFFSET = 3;
constexpr size_t LARGEST_PAYLOAD = 44;
constexpr long FRAME_WAIT_US = 50000;

struct ubx_frame {
    uint8_t ubx_class;
    uint8_t id;
    uint8_t payload_size;
    std::array<uint8_t, LARGEST_PAYLOAD> payload; // rest zero
};

// The steps of the configuration, of three kinds. Texts with "%s" are given the operation's name.

// A sentence that silences the line, or lets it speak again. No answer is read.
struct unanswered_sentence {
    ls_log_text announced;
    const char *body;
    ls_log_text not_created;
    ls_log_text not_written;
    long wait_us;
};

// The same as a frame.
struct unanswered_frame {
    ls_log_text announced;
    ubx_frame frame;
    ls_log_text not_written;
    long wait_us;
};

// A frame that is to be acknowledged. A negative acknowledge counts as no answer.
struct acknowledged_frame {
    ls_log_text announced;
    ubx_frame frame;
    ls_log_text not_written;
    ls_log_text not_acknowledged;
    int attempts;
};

using configuration_step = std::variant<unanswered_sentence, unanswered_frame, acknowledged_frame>;

constexpr configuration_step configuration_steps[] = {
    unanswered_sentence{"%s: Disabling NMEA outputs on UART\n", "PUBX,41,1,0007,0000,9600,0",
                        "Create NMEA sentence to disable NMEA & UBX on UART failed",
                        "Write NMEA sentence to disable NMEA & UBX on UART failed", 100000},
    unanswered_frame{"%s: Disabling all INF message ouput on UART\n",
                     {0x06, 0x02, 10, {0x01}}, // of NMEA, all masks 0
                     "Write disabling INFO msg UBX sentence on UART failed",
                     100000},
    unanswered_sentence{"%s: Disabling GGA on UART\n", "PUBX,40,GGA,0,0,0,0,0,0",
                        "Create NMEA sentence to disable GGA output on UART failed",
                        "Write NMEA sentence to disable GGA output on UART failed", 50000},
    unanswered_sentence{"%s: Disabling GSV on UART\n", "PUBX,40,GSV,0,0,0,0,0,0",
                        "Create NMEA sentence to disable GSV output on UART failed",
                        "Write NMEA sentence to disable GSV output on UART failed", 50000},
    unanswered_sentence{"%s: Disabling GSA on UART\n", "PUBX,40,GSA,0,0,0,0,0,0",
                        "Create NMEA sentence to disable GSA output on UART failed",
                        "Write NMEA sentence to disable GSA output on UART failed", 50000},
    unanswered_sentence{"%s: Disabling GLL on UART\n", "PUBX,40,GLL,0,0,0,0,0,0",
                        "Create NMEA sentence to disable GLL output on UART failed",
                        "Write NMEA sentence to disable GLL output on UART failed", 50000},
    unanswered_sentence{"%s: Disabling RMC on UART\n", "PUBX,40,RMC,0,0,0,0,0,0",
                        "Create NMEA sentence to disable RMC output on UART failed",
                        "Write NMEA sentence to disable RMC output on UART failed", 50000},
    unanswered_sentence{"%s: Disabling VTG on UART\n", "PUBX,40,VTG,0,0,0,0,0,0",
                        "Create NMEA sentence to disable VTG output on UART failed",
                        "Write NMEA sentence to disable VTG output on UART failed", 50000},
    unanswered_sentence{"%s: Disabling TXT on UART\n", "PUBX,40,TXT,0,0,0,0,0,0",
                        "Create NMEA sentence to disable TXT output on UART failed",
                        "Write NMEA sentence to disable TXT output on UART failed", 50000},
    unanswered_sentence{"%s: Enabling NMEA and UBX on UART\n", "PUBX,41,1,0007,0003,9600,0",
                        "Create NMEA sentence to enable NMEA & UBX on UART failed",
                        "Write NMEA sentence to enable NMEA & UBX on UART failed", 50000},
    acknowledged_frame{
        "%s:Configure the measurement rate as 100 ms\n",
        // 100 ms a measurement, one a solution, GPS time
        {0x06, 0x08, 6, {0x64, 0x00, 0x01, 0x00, 0x01, 0x00}},
        "Write Measurment rate UBX sentence on UART failed",
        "Negative ack for measurement rate config sentence\n",
        4,
    },
    acknowledged_frame{
        "%s:Configuring GNSS system\n",
        // 32 channels; one block: GPS, 8 to 32 channels, enabled with L1 C/A
        {0x06, 0x3E, 12, {0x00, 0x00, 0x20, 0x01, 0x00, 0x08, 0x20, 0x00, 0x01, 0x00, 0x01, 0x00}},
        "Write configuring GNSS system on UART failed",
        "Negative ack for configuring GNSS system\n",
        4,
    },
    acknowledged_frame{
        "%s:Configuring NMEA protocol\n",
        // NMEA 4.0, any number of satellites, GPS only, talker GP, GSV with the main talker
        {0x06, 0x17, 20, {0x00, 0x40, 0x00, 0x00, 0x72, 0x00, 0x00, 0x00, 0x00, 0x01, 0x01, 0x01}},
        "Write configuring NMEA protocol on UART failed",
        "Negative ack for configuring NMEA protocol\n",
        4,
    },
    acknowledged_frame{
        "Receiver's Power state configuration to start GNSS",
        {0x06, 0x57, 8, {0x01, 0x00, 0x00, 0x00, 'R', 'U', 'N', ' '}},
        "Write configuring Power state on UART failed",
        "Negative ack for configuring power state\n",
        4,
    },
    acknowledged_frame{
        "Configure ON/OFF power save mode and enable EXTINT0 control",
        // ON/OFF mode, wake and backup on EXTINT0, ephemeris update, all periods 0
        {0x06, 0x3B, 44, {0x01, 0x00, 0x00, 0x00, 0x60, 0x10, 0x00, 0x00}},
        "Write Power management sentence on UART failed",
        "Negative ack for power management sentence\n",
        6,
    },
    acknowledged_frame{
        "Store customized configuration into battery backup memory",
        // clear nothing, save and load the sections of mask 0x1F, battery-backed memory
        {0x06,
         0x09,
         13,
         {0x00, 0x00, 0x00, 0x00, 0x1F, 0x00, 0x00, 0x00, 0x1F, 0x00, 0x00, 0x00, 0x01}},
        "Write configuring cfg-cfg on UART failed",
        "Negative ack for configuring cfg-cfg sentence\n",
        4,
    },
};

// A frame as it goes on the line, its checksum in place.
struct wire_frame {
    std::array<uint8_t, LARGEST_PAYLOAD + UBX_OVERHEAD> bytes;
    int32_t size;
};

wire_frame on_the_wire(const ubx_frame &frame) {
    wire_frame wire = {};
    wire.bytes = {0xB5, 0x62, frame.ubx_class, frame.id, frame.payload_size, 0};
    std::copy_n(frame.payload.begin(), frame.payload_size, wire.bytes.begin() + UBX_HEADER_SIZE);
    ls_hal_calculate_ubx_checksum(wire.bytes.data() + 2,
                                  static_cast<uint8_t>(frame.payload_size + 4));
    wire.size = static_cast<int32_t>(frame.payload_size + UBX_OVERHEAD);
    return wire;
}

int32_t write_frame(const wire_frame &wire) {
    return ls_hal_tty_write(wire.bytes.data(), wire.size);
}

bool run(const unanswered_sentence &step) {
    log_text(LS_LOG_INFO, step.announced, name);
    std::array<char, NMEA_BUFFER_SIZE> sentence = {};
    if (ls_hal_create_nmea_sentence(step.body, sentence.data()) != 0) {
        log_text(LS_LOG_ERROR, step.not_created, name);
        return false;
    }
    if (ls_hal_tty_write(reinterpret_cast<const uint8_t *>(sentence.data()),
                         static_cast<int32_t>(strlen(sentence.data()))) == 1) {
        log_text(LS_LOG_ERROR, step.not_written, name);
        return false;
    }
    ls_sleep_us(step.wait_us);
    return true;
}

bool run(const unanswered_frame &step) {
    log_text(LS_LOG_INFO, step.announced, name);
    if (write_frame(on_the_wire(step.frame)) == 1) {
        log_text(LS_LOG_ERROR, step.not_written, name);
        return false;
    }
    ls_sleep_us(step.wait_us);
    return true;
}

using frame_answer = std::array<uint8_t, ANSWER_SIZE>;

// Writes the frame once and reads what comes. A request that has run out of patience may use the
// line between two of these, but not inside. False: it could not be written.
bool exchange(const wire_frame &wire, frame_answer &answer) {
    answer.fill(0);
    const std::lock_guard guard(ls_uart_lock);
    ls_hal_clear_rx_buffer();
    ls_hal_tty_discard_doubtful();
    gps_ubx_cmd_pending_g = 1;
    if (write_frame(wire) == 1)
        return false;
    int32_t length = ANSWER_SIZE;
    ls_hal_tty_read(answer.data(), &length);
    return true;
}

// The answer that the frame is to have.
std::array<uint8_t, ACK_SIZE> acknowledge_of(const ubx_frame &frame) {
    std::array<uint8_t, ACK_SIZE> expected = {
        0xB5, 0x62, 0x05, 0x01, 0x02, 0x00, frame.ubx_class, frame.id};
    ls_hal_calculate_ubx_checksum(expected.data() + 2, ACK_SIZE - 4);
    return expected;
}

// Writes the frame until it is answered with a message id that is not 0, or the attempts are used
// up. False: it could not be written; a missing acknowledge is passed over.
bool run(const acknowledged_frame &step) {
    log_text(LS_LOG_INFO, step.announced, name);
    const wire_frame wire = on_the_wire(step.frame);
    frame_answer answer;
    for (int attempt = 0; attempt < step.attempts; ++attempt) {
        ls_sleep_us(FRAME_WAIT_US);
        if (!exchange(wire, answer)) {
            log_text(LS_LOG_ERROR, step.not_written, name);
            return false;
        }
        if (answer[UBX_ID_OFFSET] != 0)
            break;
    }
    const auto expected = acknowledge_of(step.frame);
    for (size_t i = 0; i < ACK_SIZE; ++i) {
        if (answer[i] == expected[i])
            continue;
        log_text(LS_LOG_WARNING, step.not_acknowledged, name);
        ls_hal_tty_doubt(); // not the answer to this frame, whose own may still come
    }
    return true;
}

} // namespace

int32_t ls_hal_power_on_gps() {
    log_info("%s: Powering ON GPS\n", name);
    ls_hal_tty_doubt(); // until it is silenced a fresh receiver talks
    for (const configuration_step &step : configuration_steps)
        if (!std::visit([](const auto &kind) { return run(kind); }, step))
            return 1;
    ls_sleep_us(FRAME_WAIT_US);
    log_info("GPS device Powered ON\n");
    return 0;
}
