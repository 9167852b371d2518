// docs/wire.md against the daemon: its samples are what goes in here and what has to come out.
#include "daemon_fixture.h"
#include "gps_history.h"
#include "gps_main.h"

#include <regex>
#include <set>

namespace {

// By "ID TYPE" or "ID TYPE, VARIANT".
std::map<std::string, bytes> read_samples() {
    std::map<std::string, bytes> samples;
    std::istringstream page(scratch_dir::read(WIRE_PAGE));
    std::string key;
    for (std::string line; std::getline(page, line);) {
        if (line.starts_with("Sample ")) {
            key = line.substr(7, line.find(':') - 7);
            EXPECT_TRUE(samples.try_emplace(key).second) << key << " is there twice";
        } else if (!key.empty() && line.starts_with("    ")) {
            const auto more = from_hex<bytes>(line);
            samples[key].insert(samples[key].end(), more.begin(), more.end());
        } else if (!line.empty()) {
            key.clear();
        }
    }
    return samples;
}

uint8_t type_of(const std::string &key) {
    const char letters = key.at(key.find(' ') + 3); // reQuest, reSponse, noTification
    return letters == 'q' ? 0 : letters == 's' ? 1 : 2;
}

class wire : public daemon_fixture {
  protected:
    const bytes &sample(const std::string &key) {
        EXPECT_TRUE(samples.contains(key)) << "no sample of " << key;
        used.insert(key);
        return samples[key];
    }

    void deliver(const std::string &key, uint8_t from) {
        fake::deliver(type_of(key), static_cast<uint32_t>(std::stoul(key)), from, sample(key));
        fake::wait_for_votes_returned();
    }

    // Board 2: the samples of 1416 for the engineering commands, the usual answers for the queries.
    void receiver_behind_ta() {
        gps_board_type_g = 2;
        antenna_type = 4;
        fake::on_send([this](const fake::sent_message &sent) {
            if (sent.hdr.msg_id != TA_REQUEST_GPS_DATA)
                return;
            const std::string command(reinterpret_cast<const char *>(sent.payload.data() + 1));
            if (command.starts_with("$GPGPQ")) {
                const auto &answer = usual_answers.at(command.substr(1, command.find('*') - 1));
                return fake::deliver_ta_answer(answer, static_cast<uint32_t>(answer.size()));
            }
            const std::string key = command[0] == '$' ? "" : ", frame";
            EXPECT_EQ(sent.payload, sample("1416 request" + key));
            fake::deliver(1, TA_REQUEST_GPS_DATA, LS_SERV_TA, sample("1416 response" + key));
        });
    }

    // The first message of that id and type among what was sent has to be the sample.
    void expect_sent(const std::vector<fake::sent_message> &all, const std::string &key) {
        for (const fake::sent_message &sent : all) {
            if (sent.hdr.msg_id != std::stoul(key) || sent.hdr.msg_type != type_of(key))
                continue;
            bytes expected = sample(key);
            if (sent.hdr.msg_id == WS_NOTIFY_ALARM_UPDATE && expected.size() == sent.payload.size())
                std::copy_n(sent.payload.begin() + 80, 8, expected.begin() + 80); // the clock's
            EXPECT_EQ(sent.payload, expected) << key;
            return;
        }
        ADD_FAILURE() << key << " was not sent";
    }

    std::map<std::string, bytes> samples = read_samples();
    std::set<std::string> used;
};

TEST_F(wire, every_sample_is_what_the_daemon_takes_or_sends) {
    struct row {
        const char *given;
        uint8_t from;
        std::function<void()> prepare;
        std::vector<std::string> sent;
        std::function<bool()> taken = nullptr; // what shows that a message without answer arrived
    };
    const auto nothing = [] {};
    const auto fixed = static_location_on;
    const auto receiver = [this] { receiver_behind_ta(); };
    const auto history_on = [] { fake::database().history = {.status = 1, .interval = 30}; };
    const auto empty_history = [] { ls_hal_write_metadata_to_file(); };
    const auto registered = [this] {
        static_location_on();
        deliver("1007 request", 40);
    };
    const row rows[] = {
        {"1001 request", 40, nothing, {"1001 response"}},
        {"1002 request", 6, nothing, {"1002 response", "1014 notification"}},
        {"1003 request", 40, fixed, {"1003 response"}},
        {"1003 request", 40, [] { gps_board_type_g = 2; }, {"1003 response, gate closed"}},
        {"1003 request", 40, nothing, {"810 notification"}}, // there is no serial line
        {"1004 request", 40, receiver, {"1004 response"}},
        {"1005 request", 40, receiver, {"1005 response"}},
        {"1006 request", 40, receiver, {"1006 response"}},
        // With the timer's own request, four seconds later.
        {"1007 request", 40, fixed, {"1007 response", "1010 notification", "1008 request"}},
        {"1008 request", 8, fixed, {"1010 notification"}},
        {"1009 request", 40, registered, {"1009 response"}},
        {"1011 request", 40, receiver, {"1011 response"}},
        {"1012 request", 40, receiver, {"1012 response"}},
        {"1013 request", 40, empty_history, {"1013 response"}},
        {"201 notification", 7, nothing, {"18 request"}},
        {"208 notification", 2, fixed, {"19 request"}},
        {"18 response", 2, nothing, {}, [] { return fake::count_logged(6, "from SAL") == 1; }},
        {"407 response", 0, nothing, {}, [] { return fake::count_logged(6, "from SCM") == 1; }},
        {"808 notification", 6, history_on, {}, [] { return fake::timers.size() == 1; }},
        {"1418 notification", 12, nothing, {}, [] { return antenna_type == 4; }},
    };
    for (const row &r : rows) {
        fake::reset();
        r.prepare();
        deliver(r.given, r.from);
        fake::wait_for_sent(r.sent.size());
        for (const std::string &key : r.sent)
            expect_sent(fake::sent(), key);
        EXPECT_TRUE(!r.taken || r.taken()) << r.given;
    }

    fake::reset();
    static_location_on();
    deliver("1003 request", 40);
    const msg_hdr hdr = fake::sent().at(0).hdr;
    const bytes &header_bytes = sample("header");
    EXPECT_EQ(hex(&hdr, sizeof(hdr)), hex(header_bytes.data(), header_bytes.size()));

    // No message without a sample, no sample that nothing above has looked at.
    std::set<unsigned long> told;
    for (const auto &[key, payload] : samples) {
        EXPECT_EQ(used.count(key), 1u) << key;
        if (key != "header")
            told.insert(std::stoul(key));
    }
    const std::string header = scratch_dir::read(MESSAGES_HEADER);
    const std::regex id("\n    [A-Z_]+ = ([0-9]{2,}),");
    std::set<unsigned long> known;
    for (std::sregex_iterator it(header.begin(), header.end(), id), end; it != end; ++it)
        known.insert(std::stoul((*it)[1]));
    known.erase(LS_SERV_TA); // the one service id of two digits
    EXPECT_EQ(told, known);
}

} // namespace
