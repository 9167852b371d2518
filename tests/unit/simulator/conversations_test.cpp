// The conversations of conversations.txt: each section is a test.
#include "faults.h"
#include "line.h"
#include "scratch_dir.h"
#include "sentence.h"
#include "ubx.h"

#include <deque>
#include <functional>
#include <gtest/gtest.h>
#include <iomanip>
#include <optional>
#include <sstream>

namespace {

using bytes = std::vector<uint8_t>;

// A message as it is written in conversations.txt.
bytes message(const std::string &text) {
    if (const size_t plus = text.find(" + "); plus != text.npos) {
        bytes both = message(text.substr(0, plus));
        const bytes second = message(text.substr(plus + 3));
        both.insert(both.end(), second.begin(), second.end());
        return both;
    }
    if (text[0] == '$' || std::isupper(text[0]) != 0) {
        const std::string sentence = text[0] != '$'                       ? sim::nmea_sentence(text)
                                     : text.rfind('*') == text.size() - 3 ? text + "\r\n"
                                                                          : text;
        return {sentence.begin(), sentence.end()};
    }
    bytes data;
    std::istringstream in(text);
    for (unsigned one; in >> std::hex >> one;)
        data.push_back(static_cast<uint8_t>(one));
    return text.starts_with("b5") ? data
                                  : sim::ubx_frame(static_cast<uint16_t>(data[0] << 8 | data[1]),
                                                   std::span(data).subspan(2));
}

// When and what, for people.
std::string stamped(double time, const bytes &data) {
    std::ostringstream out;
    out << time << ' ' << std::hex << std::setfill('0');
    if (data[0] == '$')
        return out.str().append(data.begin(), data.end());
    for (const uint8_t one : data)
        out << std::setw(2) << int{one} << ' ';
    return out.str();
}

// What a receiver without a route or recording of its own tells.
std::string recording;

struct section {
    std::string name;
    int number; // of its first line, that with the name
    std::vector<std::string> lines;
};

struct conversation : testing::Test {
    const section told;
    scratch_dir scratch;
    double now = 0;
    // 2024-01-01 12:00:00 at first.
    const std::function<double()> wall_clock = [this] { return 1704110400 + now; };
    std::optional<sim::receiver> receiver;
    sim::line wire;
    sim::ta_faults ta;
    std::deque<std::string> said; // when and what
    std::string error;

    explicit conversation(section all) : told(std::move(all)) { wire.baud = 0; }

    void look(double when) {
        now = when;
        for (const bytes &one : sim::line_step(wire, *receiver, now))
            said.push_back(stamped(now, one));
    }
    void listen(double until) {
        while (receiver && sim::line_next_event(wire, *receiver).value_or(until + 1) <= until)
            look(*sim::line_next_event(wire, *receiver));
    }
    sim::truth_source truth() {
        if (std::filesystem::exists("route"))
            return sim::load_route("route", error, wall_clock);
        if (!std::filesystem::exists("record"))
            scratch_dir::write("record", recording);
        return sim::load_recording("record", error);
    }
    void start(const std::string &how) {
        sim::receiver_options options;
        options.truth = truth();
        options.wall_clock = wall_clock;
        options.battery_file = "battery";
        options.startup_s = 0.5;
        options.preconfigured = how != "blank";
        options.instant_fix = how != "searching";
        receiver.emplace(options).set_power(true, true, now);
    }
    void go(const std::string &what, const std::string &with) {
        if (what == "start") {
            start(with);
        } else if (what == "power") {
            receiver->set_power(with.find("102") != with.npos, with.find("37") != with.npos, now);
        } else if (what == "baud") {
            wire.baud = static_cast<unsigned>(std::stoul(with));
        } else if (what == "fault") {
            EXPECT_TRUE(sim::fault_switch_on({wire.faults, receiver->faults(), ta}, with, error));
        } else if (what == "sleep") {
            look(std::stod(with));
        } else if (what == "record" || what == "route") {
            const std::string line = what == "route" ? with + "\r\n" : sim::nmea_sentence(with);
            std::ofstream(what, std::ios::app) << line;
        } else if (what == "refuse") {
            EXPECT_FALSE(truth());
            EXPECT_EQ(error, with);
        } else if (what == "damage") {
            std::string battery = scratch_dir::read("battery");
            battery.at(battery.find(with)) ^= 1;
            scratch_dir::write("battery", battery);
        } else if (what == "send") {
            sim::line_send(wire, message(with), now);
        } else {
            FAIL() << "nobody knows what this is";
        }
    }
    void TestBody() override {
        constexpr double blink = 1e-6; // sums of periods are rounded
        double time = 0;
        for (int number = told.number; const std::string &line : told.lines) {
            const testing::ScopedTrace here(CONVERSATIONS, ++number, line);
            if (line.empty() || line[0] == '#')
                continue;
            std::istringstream words(line);
            std::string what, with;
            std::getline(words >> time >> what >> std::ws, with);
            listen(time + (what == "receive" ? blink : -blink));
            if (what == "receive") {
                ASSERT_FALSE(said.empty()) << "nothing was said";
                EXPECT_EQ(said[0], stamped(time, message(with)));
                said.pop_front();
            } else {
                ASSERT_TRUE(said.empty()) << "before that, " << said[0];
                now = time;
                go(what, with);
            }
        }
        listen(time + blink);
        EXPECT_TRUE(said.empty()) << "at the end, " << said[0];
    }
};

const bool registered = [] {
    std::vector<section> all;
    std::ifstream in(CONVERSATIONS);
    std::string text;
    for (int number = 1; std::getline(in, text); ++number)
        if (text.starts_with('['))
            all.push_back({text.substr(1, text.find(']') - 1), number, {}});
        else if (!all.empty())
            all.back().lines.push_back(text);
        else if (!text.starts_with('#'))
            recording += sim::nmea_sentence(text);
    if (all.empty())
        std::abort(); // else all would pass
    for (const section &one : all)
        testing::RegisterTest("conversation", one.name.c_str(), nullptr, nullptr, CONVERSATIONS,
                              one.number, [one] { return new conversation(one); });
    return true;
}();

} // namespace
