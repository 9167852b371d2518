#include "terminal.h"

#include "faults.h"
#include "gpio_tree.h"
#include "line.h"
#include "line_pty.h"
#include "loop.h"
#include "printable.h"
#include "say.h"
#include "services.h"
#include "source.h"

#include <array>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <memory>
#include <optional>
#include <unistd.h>
#include <utility>
#include <vector>

namespace sim {
namespace {

// The hardware; the one thread of the loop owns it.
int board_type = 1;
std::string uart_path;            // where the serial device appears
std::unique_ptr<receiver> module; // null = the terminal is down
line wire;                        // between the serial device (or the TA) and the receiver
line_pty port;                    // the serial device
bool port_was_open = false;       // as last told to people
int port_watched = -1;            // master descriptor that the loop watches
gpio_tree gpio;
std::array<bool, 2> power_levels{}; // of TERMINAL_POWER_LINES, as the receiver knows them
ta_faults ta_is;                    // for the services

fault_targets targets() {
    return {wire.faults, module->faults(), ta_is};
}

void step_power(double now) {
    for (const std::string &event : gpio_tree_step(gpio))
        say_event("%s", event.c_str());
    const std::array<bool, 2> levels{gpio_tree_level(gpio, TERMINAL_POWER_LINES[0]),
                                     gpio_tree_level(gpio, TERMINAL_POWER_LINES[1])};
    if (board_type != 1 || levels == power_levels)
        return;
    power_levels = levels;
    const bool was_powered = module->powered();
    module->set_power(levels[0], levels[1], now);
    if (module->powered() != was_powered) {
        say_event("receiver power %s", was_powered ? "off" : "on");
        if (was_powered)
            line_drop_answers(wire);
    }
}

// A master without anybody at the other end is always "readable": it is watched only while the
// device is open.
void watch_port() {
    const int wanted = port.open ? port.master : -1;
    if (wanted == port_watched)
        return;
    if (port_watched >= 0)
        loop_forget(port_watched);
    port_watched = wanted;
    if (wanted >= 0)
        loop_watch(wanted, terminal_step);
}

void step_port_state() {
    line_pty_check(port);
    if (port.open != port_was_open) {
        port_was_open = port.open;
        say_event("serial device %s", port.open ? "opened" : "closed");
        if (!port.open)
            terminal_boot_lines();
    }
    watch_port();
}

// To whoever is at the other end of the line. False when nobody is.
bool hand_over(std::span<const uint8_t> answer) {
    if (board_type == 1)
        return line_pty_write(port, answer);
    return services_take_answer(answer);
}

void take_commands(double now) {
    const std::vector<uint8_t> command = line_pty_read(port);
    if (!command.empty()) {
        say_detail("to receiver:   %s", printable(command).c_str());
        line_send(wire, command, now);
    }
}

void step_line(double now) {
    for (const std::vector<uint8_t> &answer : line_step(wire, *module, now)) {
        if (hand_over(answer)) {
            say_detail("from receiver: %s", printable(answer).c_str());
        } else {
            wire.answer_bytes -= answer.size();
            wire.lost_bytes += answer.size();
        }
    }
}

void unplug() {
    if (port_watched >= 0) {
        loop_forget(port_watched);
        port_watched = -1;
    }
    if (port.notify >= 0)
        loop_forget(port.notify);
    line_pty_unplug(port);
}

bool plug(std::string &error) {
    if (!line_pty_plug(port, uart_path, error))
        return false;
    loop_watch(port.notify, terminal_step);
    watch_port();
    return true;
}

// The device follows the fault. Nothing to do on board 2: no serial device there.
bool follow_plug_fault(std::string &error) {
    if (board_type != 1 || wire.faults.unplugged == (port.master < 0))
        return true;
    if (!wire.faults.unplugged)
        return plug(error);
    unplug();
    step_port_state();
    return true;
}

} // namespace

bool terminal_check(const terminal_options &options, std::string &error) {
    receiver_options module_options;
    std::string source;
    if (!source_from_options(options, module_options, source, error))
        return false;
    line_faults on_line;
    receiver_faults in_receiver;
    ta_faults in_ta;
    for (const std::string &fault : options.faults)
        if (!fault_switch_on({on_line, in_receiver, in_ta}, fault, error))
            return false;
    if (!options.daemon.empty() && access(options.daemon.c_str(), X_OK) != 0) {
        error = "--daemon " + options.daemon + ": " + std::strerror(errno);
        return false;
    }
    return true;
}

bool terminal_up(const terminal_options &options, const terminal_paths &paths, int board,
                 std::string &error) {
    receiver_options receiver_is;
    std::string source;
    if (!source_from_options(options, receiver_is, source, error))
        return false;
    receiver_is.battery_file = paths.battery;
    // A terminal leaves production with its receiver configured once. A blank one talks while the
    // daemon sets it up, and its first words are then read as the first answers.
    receiver_is.preconfigured = !options.blank_receiver;
    if (options.blank_receiver && unlink(paths.battery.c_str()) != 0 && errno != ENOENT) {
        error = "removing " + paths.battery + ": " + std::strerror(errno);
        return false;
    }
    board_type = board;
    uart_path = paths.uart;
    wire = line{};
    wire.baud = options.baud;
    power_levels = {};
    ta_is = {};
    module = std::make_unique<receiver>(std::move(receiver_is));
    for (const std::string &fault : options.faults)
        if (!fault_switch_on(targets(), fault, error))
            return false;
    if (!gpio_tree_open(gpio, paths.gpio, error))
        return false;
    loop_watch(gpio.notify, terminal_step);
    if (board == 2)
        module->set_power(true, true, loop_now());
    else if (!wire.faults.unplugged && !plug(error))
        return false;
    terminal_boot_lines();
    loop_add_timer([] { return module == nullptr ? std::nullopt : line_next_event(wire, *module); },
                   terminal_step);
    say_plain("  receiver   %s, %s",
              board == 1 ? "on dev/ttymxc2, power by gpio 102 and 37" : "behind the TA, powered",
              source.c_str());
    if (options.baud == 0) {
        say_plain("  line       takes no time, faults: %s", fault_summary(targets()).c_str());
    } else {
        say_plain("  line       %u baud, faults: %s", options.baud,
                  fault_summary(targets()).c_str());
    }
    return true;
}

void terminal_down() {
    unplug();
    port_was_open = false;
    if (gpio.notify >= 0)
        loop_forget(gpio.notify);
    gpio_tree_close(gpio);
    if (module != nullptr) {
        // As when the supply goes: what is in battery-backed memory is kept.
        module->set_power(false, false, loop_now());
        module.reset();
    }
}

void terminal_boot_lines() {
    for (const int line : TERMINAL_POWER_LINES)
        if (!gpio_tree_export(gpio, line))
            say_error("exporting gpio %d failed", line);
}

void terminal_step() {
    if (module == nullptr)
        return;
    const double now = loop_now();
    // What is on the line already meets the old power. What is still to be read may have been
    // written after the change: a program that raises the lines and sends at once is served.
    step_line(now);
    step_power(now);
    take_commands(now);
    step_port_state();
    step_line(now);
}

void terminal_line_send(std::span<const uint8_t> command) {
    say_detail("to receiver:   %s", printable(command).c_str());
    line_send(wire, command, loop_now());
}

ta_faults &terminal_ta_faults() {
    return ta_is;
}

bool terminal_fault(std::string_view name, std::string_view argument, bool on, std::string &error) {
    terminal_step();
    if (!fault_switch(targets(), name, argument, on, error) || !follow_plug_fault(error))
        return false;
    say_event("faults: %s", fault_summary(targets()).c_str());
    return true;
}

std::string terminal_faults() {
    return fault_list(targets());
}

std::string terminal_power() {
    terminal_step();
    std::string text;
    for (const int line : TERMINAL_POWER_LINES)
        text += "gpio" + std::to_string(line) + "=" + (gpio_tree_level(gpio, line) ? "1 " : "0 ");
    return text + "receiver " + (module->powered() ? "on" : "off") + "\n";
}

std::string terminal_describe() {
    std::array<char, 256> text;
    std::snprintf(text.data(), text.size(),
                  "board     %d\n"
                  "line      %u baud, %s; %" PRIu64 " bytes to the receiver, %" PRIu64
                  " from it, %" PRIu64 " lost\n",
                  board_type, wire.baud,
                  board_type != 1   ? "behind the TA"
                  : port.master < 0 ? "unplugged"
                  : port.open       ? "open"
                                    : "not open",
                  wire.command_bytes, wire.answer_bytes, wire.lost_bytes);
    return text.data() + ("receiver  " + module->describe(loop_now()) + "\n") + "faults    " +
           fault_summary(targets()) + "\n";
}

} // namespace sim
