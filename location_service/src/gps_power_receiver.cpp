// Brings the receiver into the one configuration the rest relies on: it speaks when asked, in
// NMEA 4.0 and UBX, from GPS alone at 10 Hz, with ON/OFF power save by EXTINT0, all of it saved.
#include "gps_nmea_parser.h"
#include "gps_power.h"
#include "gps_uart.h"
#include "ls_log.h"
#include "ls_state.h"

#include <algorithm>
#include <cstring>
#include <ctime>

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

// Silencing the line. No answer is read; a sentence has `body`, the frame has none.
struct silencing_step {
    const char *log_text;
    const char *what; // in messages of failure
    const char *body;
    long wait_us;
};

constexpr ubx_frame inf_off = {0x06, 0x02, 10, {0x01}};

constexpr std::array silencing_steps = {
    silencing_step{"Disabling NMEA outputs", "disable NMEA & UBX", "PUBX,41,1,0007,0000,9600,0",
                   100000},
    silencing_step{"Disabling all INF message ouput", nullptr, nullptr, 100000},
    silencing_step{"Disabling GGA", "disable GGA output", "PUBX,40,GGA,0,0,0,0,0,0", 50000},
    silencing_step{"Disabling GSV", "disable GSV output", "PUBX,40,GSV,0,0,0,0,0,0", 50000},
    silencing_step{"Disabling GSA", "disable GSA output", "PUBX,40,GSA,0,0,0,0,0,0", 50000},
    silencing_step{"Disabling GLL", "disable GLL output", "PUBX,40,GLL,0,0,0,0,0,0", 50000},
    silencing_step{"Disabling RMC", "disable RMC output", "PUBX,40,RMC,0,0,0,0,0,0", 50000},
    silencing_step{"Disabling VTG", "disable VTG output", "PUBX,40,VTG,0,0,0,0,0,0", 50000},
    silencing_step{"Disabling TXT", "disable TXT output", "PUBX,40,TXT,0,0,0,0,0,0", 50000},
    silencing_step{"Enabling NMEA and UBX", "enable NMEA & UBX", "PUBX,41,1,0007,0003,9600,0",
                   50000},
};

// A frame that is to be acknowledged. A negative acknowledge counts as no answer.
struct configuration_step {
    const char *log_text;
    const char *write_failed;
    const char *not_acknowledged;
    int attempts;
    ubx_frame frame;
};

constexpr std::array configuration_steps = {
    configuration_step{
        "ls_hal_power_on_gps:Configure the measurement rate as 100 ms\n",
        "Write Measurment rate UBX sentence on UART failed",
        "Negative ack for measurement rate config sentence\n",
        4,
        // 100 ms a measurement, one a solution, GPS time
        {0x06, 0x08, 6, {0x64, 0x00, 0x01, 0x00, 0x01, 0x00}},
    },
    configuration_step{
        "ls_hal_power_on_gps:Configuring GNSS system\n",
        "Write configuring GNSS system on UART failed",
        "Negative ack for configuring GNSS system\n",
        4,
        // 32 channels; one block: GPS, 8 to 32 channels, enabled with L1 C/A
        {0x06, 0x3E, 12, {0x00, 0x00, 0x20, 0x01, 0x00, 0x08, 0x20, 0x00, 0x01, 0x00, 0x01, 0x00}},
    },
    configuration_step{
        "ls_hal_power_on_gps:Configuring NMEA protocol\n",
        "Write configuring NMEA protocol on UART failed",
        "Negative ack for configuring NMEA protocol\n",
        4,
        // NMEA 4.0, any number of satellites, GPS only, talker GP, GSV with the main talker
        {0x06, 0x17, 20, {0x00, 0x40, 0x00, 0x00, 0x72, 0x00, 0x00, 0x00, 0x00, 0x01, 0x01, 0x01}},
    },
    configuration_step{
        "Receiver's Power state configuration to start GNSS",
        "Write configuring Power state on UART failed",
        "Negative ack for configuring power state\n",
        4,
        {0x06, 0x57, 8, {0x01, 0x00, 0x00, 0x00, 'R', 'U', 'N', ' '}},
    },
    configuration_step{
        "Configure ON/OFF power save mode and enable EXTINT0 control",
        "Write Power management sentence on UART failed",
        "Negative ack for power management sentence\n",
        6,
        // ON/OFF mode, wake and backup on EXTINT0, ephemeris update, all periods 0
        {0x06, 0x3B, 44, {0x01, 0x00, 0x00, 0x00, 0x60, 0x10, 0x00, 0x00}},
    },
    configuration_step{
        "Store customized configuration into battery backup memory",
        "Write configuring cfg-cfg on UART failed",
        "Negative ack for configuring cfg-cfg sentence\n",
        4,
        // clear nothing, save and load the sections of mask 0x1F, battery-backed memory
        {0x06,
         0x09,
         13,
         {0x00, 0x00, 0x00, 0x00, 0x1F, 0x00, 0x00, 0x00, 0x1F, 0x00, 0x00, 0x00, 0x01}},
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

void wait_us(long microseconds) {
    timespec left = {.tv_sec = 0, .tv_nsec = microseconds * 1000};
    while (nanosleep(&left, &left) != 0) {
    }
}

int32_t write_frame(const wire_frame &wire) {
    return ls_hal_tty_write(wire.bytes.data(), wire.size);
}

bool silence(const silencing_step &step) {
    log_info("%s: %s on UART\n", name, step.log_text);
    if (step.body == nullptr) {
        if (write_frame(on_the_wire(inf_off)) == 1) {
            log_error("Write disabling INFO msg UBX sentence on UART failed");
            return false;
        }
    } else {
        std::array<char, NMEA_BUFFER_SIZE> sentence = {};
        if (ls_hal_create_nmea_sentence(step.body, sentence.data()) != 0) {
            log_error("Create NMEA sentence to %s on UART failed", step.what);
            return false;
        }
        if (ls_hal_tty_write(reinterpret_cast<const uint8_t *>(sentence.data()),
                             static_cast<int32_t>(strlen(sentence.data()))) == 1) {
            log_error("Write NMEA sentence to %s on UART failed", step.what);
            return false;
        }
    }
    wait_us(step.wait_us);
    return true;
}

// Writes the frame until it is answered with a message id that is not 0, or the attempts are used
// up. False: it could not be written.
bool exchange(const configuration_step &step, std::array<uint8_t, ANSWER_SIZE> &answer) {
    const wire_frame wire = on_the_wire(step.frame);
    for (int attempt = 0; attempt < step.attempts; ++attempt) {
        wait_us(FRAME_WAIT_US);
        answer.fill(0);
        ls_hal_clear_rx_buffer();
        ls_hal_tty_discard(); // a fresh receiver talked until it was silenced
        gps_ubx_cmd_pending_g = 1;
        if (write_frame(wire) == 1) {
            log_error("%s", step.write_failed);
            return false;
        }
        int32_t length = ANSWER_SIZE;
        ls_hal_tty_read(answer.data(), &length);
        if (answer[UBX_ID_OFFSET] != 0)
            break;
    }
    return true;
}

void check_acknowledge(const configuration_step &step,
                       const std::array<uint8_t, ANSWER_SIZE> &answer) {
    std::array<uint8_t, ACK_SIZE> expected = {
        0xB5, 0x62, 0x05, 0x01, 0x02, 0x00, step.frame.ubx_class, step.frame.id};
    ls_hal_calculate_ubx_checksum(expected.data() + 2, ACK_SIZE - 4);
    for (size_t i = 0; i < ACK_SIZE; ++i) {
        if (answer[i] != expected[i])
            log_warning("%s", step.not_acknowledged);
    }
}

} // namespace

int32_t ls_hal_power_on_gps() {
    log_info("%s: Powering ON GPS\n", name);
    for (const silencing_step &step : silencing_steps) {
        if (!silence(step))
            return 1;
    }
    for (const configuration_step &step : configuration_steps) {
        log_info("%s", step.log_text);
        std::array<uint8_t, ANSWER_SIZE> answer;
        if (!exchange(step, answer))
            return 1;
        check_acknowledge(step, answer);
    }
    wait_us(FRAME_WAIT_US);
    log_info("GPS device Powered ON\n");
    return 0;
}
