// lsctl stream: the thread that asks the service.
//
// A question may take seconds; meanwhile the thread that owns this serves its readers. It takes
// the answers from here when the descriptor says that there are some.
#ifndef LSCTL_STREAM_ASKER_H
#define LSCTL_STREAM_ASKER_H

#include <condition_variable>
#include <mutex>
#include <optional>
#include <thread>
#include <vector>

#include "ls_descriptor.h"
#include "stream_state.h"

class stream_asker {
  public:
    // Opens the connection; start() is for one that is open.
    stream_asker(const lsctl_options &options, stream_form form);
    ~stream_asker(); // ends a question that is under way
    stream_asker(const stream_asker &) = delete;
    stream_asker &operator=(const stream_asker &) = delete;

    location_result opened() const { return link->result; }
    // False: no descriptor.
    bool start();
    // Whether anything is to be asked. Nothing is, until this says so.
    void want(bool listened_to);
    // Readable while there are answers; take() makes it unreadable.
    int descriptor() const { return told.fd; }
    std::vector<stream_answer> take();

  private:
    void run();
    stream_answer ask(stream_question question, stream_clock::time_point now);
    void open_again();

    lsctl_options options; // with a time-out that suits a stream
    ls_descriptor told;    // eventfd
    std::thread thread;
    std::optional<lsctl_link> link; // after start() the thread's own
    bool must_open = false;         // the thread's

    std::mutex stream_lock; // guards everything below
    std::condition_variable changed;
    bool wanted = false;
    bool stopping = false;
    location_client *asked = nullptr; // whose wait the destructor ends
    stream_plan plan;
    std::vector<stream_answer> answers; // not taken yet
};

#endif
