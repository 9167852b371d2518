#include "terminal_fake_receiver.h"

#include <deque>
#include <utility>

namespace sim {

double fake_receiver_delay_s = 0;

struct receiver::state {
    receiver_options options;
    receiver_faults faults;
    bool powered = false;
    std::string collected;
    std::deque<std::pair<double, std::string>> answers;
};

receiver::receiver(receiver_options options) : self(std::make_unique<state>()) {
    self->options = std::move(options);
}
receiver::~receiver() = default;

void receiver::set_power(bool gpio102, bool gpio37, double) {
    self->powered = gpio102 && gpio37;
    self->collected.clear();
    self->answers.clear();
}

bool receiver::powered() const {
    return self->powered;
}

void receiver::input(std::span<const uint8_t> bytes, double now) {
    for (const uint8_t byte : bytes) {
        if (byte == '\n') {
            self->answers.emplace_back(now + fake_receiver_delay_s,
                                       "<" + std::exchange(self->collected, {}) + ">");
        } else {
            self->collected.push_back(static_cast<char>(byte));
        }
    }
}

std::vector<std::vector<uint8_t>> receiver::take_output(double now) {
    std::vector<std::vector<uint8_t>> said;
    while (!self->answers.empty() && self->answers.front().first <= now) {
        if (!self->faults.silent) {
            said.push_back(as_bytes(self->answers.front().second));
        }
        self->answers.pop_front();
    }
    return said;
}

std::optional<double> receiver::next_event() const {
    return self->answers.empty() ? std::nullopt
                                 : std::optional<double>(self->answers.front().first);
}

receiver_faults &receiver::faults() {
    return self->faults;
}

std::string receiver::describe(double) const {
    return self->powered ? "fake, on" : "fake, off";
}

// The signatures are the real ones; the clock is not needed here.
// NOLINTBEGIN(performance-unnecessary-value-param)
truth_source make_fixed_place(double, double, double, std::function<double()>) {
    return [](double) { return epoch{}; };
}

truth_source load_route(const std::string &, std::string &error, std::function<double()>) {
    error = "no routes here";
    return {};
}

truth_source load_recording(const std::string &, std::string &error, recording_summary *) {
    error = "no recordings here";
    return {};
}

// NOLINTEND(performance-unnecessary-value-param)

} // namespace sim
