// lsctl: the look at the service and, through it, at the receiver.
#include "look.h"

#include <algorithm>
#include <charconv>
#include <chrono>
#include <cmath>
#include <ctime>
#include <optional>

namespace diagnosis {
namespace {

using std::chrono::milliseconds;

constexpr double DAY_S = 86400;
constexpr double CLIENT_ASKS_S = 1.9; // by then the client may have asked for the power mode
// For what is answered at once, on a machine that is busy.
constexpr milliseconds ANSWER_PATIENCE{5000};
constexpr std::string_view ASK_ZDA = "GPGPQ,ZDA";

// What is left of the look's time; 1 ms at least, which the client wants.
class patience {
  public:
    explicit patience(const lsctl_options &options)
        : end(std::chrono::steady_clock::now() + lsctl_timeout(options)) {}
    milliseconds left() const {
        const auto rest = end - std::chrono::steady_clock::now();
        return std::max(milliseconds(1), std::chrono::duration_cast<milliseconds>(rest));
    }

  private:
    std::chrono::steady_clock::time_point end;
};

std::optional<int64_t> utc_of(const lsctl_fields &zda) {
    const auto seconds = lsctl_field_time_s(zda, 1);
    const auto day = lsctl_field_number(zda, 2);
    const auto month = lsctl_field_number(zda, 3);
    const auto year = lsctl_field_number(zda, 4);
    if (!seconds || !day || !month || !year)
        return std::nullopt;
    tm date{};
    date.tm_mday = static_cast<int>(*day);
    date.tm_mon = static_cast<int>(*month) - 1;
    date.tm_year = static_cast<int>(*year) - 1900;
    return timegm(&date) + static_cast<int64_t>(*seconds);
}

// Whether bytes lie outside the lines that begin with '$'.
bool has_noise(const location_client_answer &answer) {
    std::string_view rest(reinterpret_cast<const char *>(answer.data()), answer.size());
    rest = rest.substr(0, rest.find_last_not_of('\0') + 1);
    while (!rest.empty()) {
        const size_t feed = rest.find('\n');
        if (rest.front() != '$')
            return true;
        rest = feed == std::string_view::npos ? "" : rest.substr(feed + 1);
    }
    return false;
}

// Asks for the three sentences that say how the receiver is; a failure ends it.
void ask_receiver(location_client *client, const patience &wait, const facts &so_far,
                  receiver_facts &receiver) {
    location_client_answer answer{};
    const auto ask = [&] {
        receiver.result =
            location_client_exec_nmea(client, wait.left(), LSCTL_ASK_PUBX_00, &answer);
    };
    const auto before = std::chrono::steady_clock::now();
    receiver.asked = true;
    if (so_far.files.board == 2)
        receiver.arrival = watch_ta(so_far.process.pid, ask);
    else
        ask();
    const std::chrono::duration<double, std::milli> took =
        std::chrono::steady_clock::now() - before;
    receiver.took_s = std::round(took.count()) / 1000;
    if (receiver.result != LOCATION_ANSWERED)
        return;
    const lsctl_heard pubx = lsctl_judge_nmea(answer, LSCTL_ASK_PUBX_00);
    receiver.verdict = pubx.verdict;
    receiver.noise = has_noise(answer);
    if (pubx.verdict != lsctl_verdict::good)
        return;
    receiver.navigation = lsctl_navigation_of(pubx.sentences.front());

    lsctl_heard gsv;
    if (lsctl_ask_receiver(client, wait.left(), LSCTL_ASK_GSV, "GSV", gsv) == LOCATION_ANSWERED &&
        !gsv.sentences.empty()) {
        if (const auto in_view = lsctl_field_number(gsv.sentences.front(), 3))
            receiver.in_view = static_cast<unsigned>(std::clamp(*in_view, 0.0, 255.0));
        for (const lsctl_sky_satellite &satellite : lsctl_sky_of(gsv.sentences)) {
            ++receiver.told;
            receiver.heard += satellite.cn0_dbhz.value_or(0) > 0 ? 1 : 0;
        }
    }
    lsctl_heard zda;
    if (lsctl_ask_receiver(client, wait.left(), ASK_ZDA, "ZDA", zda) != LOCATION_ANSWERED ||
        zda.sentences.empty())
        return;
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    if (const auto utc = utc_of(zda.sentences.front()))
        receiver.clock_offset_s = static_cast<double>(*utc - now.tv_sec);
    const auto asked_at = lsctl_field_time_s(zda.sentences.front(), 1);
    const auto fixed_at = lsctl_field_time_s(pubx.sentences.front(), 2);
    if (asked_at && fixed_at && receiver.navigation->has_fix()) {
        // The solution that was current when the first sentence was asked for.
        const double age = std::fmod(*asked_at - *fixed_at + DAY_S, DAY_S);
        receiver.fix_age_s = age > DAY_S / 2 ? 0 : std::round(age * 10) / 10;
    }
}

void ask_service(location_client *client, const patience &wait, facts &found) {
    uint32_t mode = 0;
    found.power = location_client_get_power(client, wait.left(), &mode);
    if (found.power != LOCATION_ANSWERED)
        return;
    found.power_mode = mode;
    if (mode != GPS_POWER_ON)
        return;
    ask_receiver(client, wait, found, found.receiver);
    // In a long wait the client itself asks for the power mode, and gets the answer behind the one
    // that it waits for. Whoever leaves before that has the service log an error: so that is asked
    // once more, and its answer awaited.
    if (found.receiver.took_s >= CLIENT_ASKS_S)
        location_client_get_power(client, std::min(wait.left(), ANSWER_PATIENCE), &mode);
}

} // namespace

facts look(const lsctl_options &options, location_client *client) {
    facts found;
    found.seen_utc = time(nullptr);
    found.where = find_places();
    found.files = look_at_files(found.where);
    found.bus = look_at_bus(found.where);
    found.process = look_at_process(found.where);
    std::optional<lsctl_link> own;
    if (client == nullptr) {
        own.emplace(options.as);
        client = own->client;
        found.link = own->result;
    } else {
        found.link = LOCATION_ANSWERED;
    }
    // Questions during start-up would be held up by it, and hold it up.
    if (found.link == LOCATION_ANSWERED && found.process.ready.value_or(true))
        ask_service(client, patience(options), found);
    return found;
}

} // namespace diagnosis
