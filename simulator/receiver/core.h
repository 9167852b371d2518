// The inside of the receiver: its state, and the steps its files share. One thread, the caller's.
#ifndef SIMULATOR_RECEIVER_CORE_H
#define SIMULATOR_RECEIVER_CORE_H

#include "battery.h"
#include "config.h"
#include "input.h"
#include "nmea.h"
#include "receiver.h"

#include <deque>
#include <limits>

namespace sim {

enum class power_phase { off, starting, listening, backup };

// Everything the receiver is. Times are the caller's clock, seconds.
struct receiver_core {
    receiver_options options;
    receiver_faults faults;

    power_phase phase = power_phase::off;
    double now = 0.0;       // of the latest call
    double listen_at = 0.0; // end of start-up
    receiver_config config = fresh_config();
    battery_memory battery;
    input_splitter input;
    std::deque<std::vector<uint8_t>> output;

    // The satellite part, which may be stopped while the rest listens.
    bool gnss_running = false;
    double gnss_start = 0.0;
    double fix_at = 0.0;      // first fix, if the world allows one
    bool cold = false;        // started without almanac: satellites have no place yet
    bool clock_valid = false; // time and date are known without satellites
    double note_fix_at = 0.0; // when the battery memory next takes down that there is a fix

    // Epochs stand on a grid on which the source's times are whole periods.
    std::optional<double> origin; // the source's second 0
    double grid_phase = 0.0;
    int64_t last_epoch = 0; // number of the newest epoch whose periodic messages are out
};

// Power-on, or a reset of everything but the battery memory.
void receiver_boot(receiver_core &core);

void receiver_power_off(receiver_core &core);

// Starts the satellite part, hot, warm or cold as the battery memory allows; stops it.
void gnss_start(receiver_core &core);
void gnss_stop(receiver_core &core);

// Lets time pass up to core.now: start-up ends, periodic messages go out.
void receiver_advance(receiver_core &core);

// After the epoch period changed: periodic messages begin with the next epoch of the new grid.
void receiver_regrid(receiver_core &core);

// When receiver_advance will have periodic output; empty = never by itself.
std::optional<double> next_periodic(const receiver_core &core);

// Sends the periodic messages of the epoch that core.now is in, once.
void send_periodic(receiver_core &core);

// What the receiver knows at the epoch that `now` is in.
nav_report report_at(const receiver_core &core, double now);

nmea_style current_style(const receiver_core &core);

// One message out, if its protocol may go out.
void send_nmea(receiver_core &core, const std::string &text);
void send_frame(receiver_core &core, const std::vector<uint8_t> &frame);

// Does what one command says.
void handle_command(receiver_core &core, const command &received);

// One line for people.
std::string describe_receiver(const receiver_core &core, double now);

// Saves the battery memory; true where there is nowhere to save.
bool store_battery(const receiver_core &core);

} // namespace sim

#endif
