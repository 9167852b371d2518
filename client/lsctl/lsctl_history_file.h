// lsctl history: the exported file as it is read, and the file that is written.
#ifndef LSCTL_HISTORY_FILE_H
#define LSCTL_HISTORY_FILE_H

#include <chrono>
#include <functional>
#include <string>

// Reads all of a file that others may be writing anew at the same time: whole as one writer left
// it, or not at all. Empty `error`: *text is the file. `ended`: whether to give up early.
std::string history_read(const std::string &path, std::chrono::milliseconds limit,
                         const std::function<bool()> &ended, std::string *text);

// Hands a stream to `write`: standard output for an empty path, else a new file that takes the
// name's place when it is complete. Empty `error`: all of it was written, or nobody wanted to read
// any more of the standard output.
std::string history_write(const std::string &path, const std::function<void(FILE *)> &write);

// A line on stderr that shows how far long work is, on a terminal only.
class history_progress {
  public:
    // `size`: bytes of the work; little work shows nothing.
    explicit history_progress(size_t size);
    ~history_progress(); // wipes the line
    history_progress(const history_progress &) = delete;
    history_progress &operator=(const history_progress &) = delete;
    void show(const char *what, double part);

  private:
    bool wanted;
    int shown = -1; // percent
};

#endif
