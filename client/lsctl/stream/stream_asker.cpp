// lsctl stream: one question after the other.
#include "stream_asker.h"

#include <algorithm>

#include <sys/eventfd.h>

#include "ls_signals_blocked.h"

namespace {

// A position is three exchanges with the receiver. A question that a service took down with it is
// not waited for longer.
constexpr double LONGEST_QUESTION_S = 5;

// A connection is made anew when the service was not heard: the bus may be another one by now.
bool is_lost(location_result result) {
    return !stream_is_answer(result) || result == LOCATION_RECEIVER_BUSY;
}

} // namespace

stream_asker::stream_asker(const lsctl_options &given, stream_form form)
    : options(given), told(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    options.timeout_s = std::min(options.timeout_s, LONGEST_QUESTION_S);
    link.emplace(options.as);
    plan.form = form;
}

bool stream_asker::start() {
    if (told.fd < 0)
        return false;
    asked = link->client;
    const ls_signals_blocked blocked;
    thread = std::thread([this] { run(); });
    return true;
}

stream_asker::~stream_asker() {
    {
        const std::lock_guard guard(stream_lock);
        stopping = true;
        if (asked != nullptr)
            location_client_cancel(asked);
    }
    changed.notify_all();
    if (thread.joinable())
        thread.join();
}

void stream_asker::want(bool listened_to) {
    {
        const std::lock_guard guard(stream_lock);
        wanted = listened_to;
    }
    changed.notify_all();
}

std::vector<stream_answer> stream_asker::take() {
    const std::lock_guard guard(stream_lock);
    uint64_t count = 0;
    [[maybe_unused]] const ssize_t size = read(told.fd, &count, sizeof count);
    return std::exchange(answers, {});
}

void stream_asker::open_again() {
    {
        const std::lock_guard guard(stream_lock);
        asked = nullptr;
    }
    link.reset();
    link.emplace(options.as);
    const std::lock_guard guard(stream_lock);
    asked = link->client;
    if (stopping && asked != nullptr)
        location_client_cancel(asked);
}

stream_answer stream_asker::ask(stream_question question, stream_clock::time_point now) {
    stream_answer answer;
    answer.question = question;
    answer.asked = now;
    if (must_open)
        open_again();
    answer.result = link->result;
    if (answer.result == LOCATION_ANSWERED) {
        location_client *client = link->client;
        const auto timeout = lsctl_timeout(options);
        lsctl_heard heard;
        switch (question) {
        case stream_question::position:
            answer.result = location_client_get_position(client, timeout, &answer.position);
            break;
        case stream_question::motion:
            answer.result = lsctl_ask_receiver(client, timeout, LSCTL_ASK_VTG, "VTG", heard);
            if (heard.verdict == lsctl_verdict::good)
                answer.motion = lsctl_motion_of(heard.sentences.front());
            break;
        case stream_question::satellites:
            answer.result = location_client_get_satellites(client, timeout, &answer.satellites);
            break;
        case stream_question::sky:
            answer.result = lsctl_ask_receiver(client, timeout, LSCTL_ASK_GSV, "GSV", heard);
            answer.sky = lsctl_sky_of(heard.sentences);
            break;
        }
    }
    must_open = is_lost(answer.result);
    if (answer.result != LOCATION_ANSWERED)
        answer.why = lsctl_sentence(options, answer.result, link->client);
    return answer;
}

void stream_asker::run() {
    std::unique_lock held(stream_lock);
    while (!stopping) {
        if (!wanted) {
            changed.wait(held); // no deadline: ended by the destructor
            must_open = true;   // much may have happened meanwhile
            continue;
        }
        const auto now = stream_clock::now();
        const auto next = stream_next_time(plan, now);
        if (now < next) {
            changed.wait_until(held, next);
            continue;
        }
        const stream_question question = stream_next(plan, now);
        held.unlock();
        stream_answer answer = ask(question, now);
        held.lock();
        stream_answered(plan, answer);
        answers.push_back(std::move(answer));
        const uint64_t one = 1;
        [[maybe_unused]] const ssize_t written = write(told.fd, &one, sizeof one);
    }
}
