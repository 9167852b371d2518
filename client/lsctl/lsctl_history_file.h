// lsctl history: the exported file as it is read, and the file that is written.
#ifndef LSCTL_HISTORY_FILE_H
#define LSCTL_HISTORY_FILE_H

#include <chrono>
#include <functional>
#include <string>

// What went wrong: an errno, EAGAIN when time was up, and a sentence with the file's name.
struct history_error {
    int code = 0;
    std::string text;
    bool none() const { return code == 0; }
};

// Reads all of a file that others may be writing anew at the same time: whole as one writer left
// it, or not at all. No error: *text is the file. `ended`: whether to give up early.
history_error history_read(const std::string &path, std::chrono::milliseconds limit,
                           const std::function<bool()> &ended, std::string *text);

// Hands a stream to `write`: standard output for an empty path, else a new file that takes the
// name's place when it is complete. EPIPE: nobody wants to read any more.
history_error history_write(const std::string &path, const std::function<void(FILE *)> &write);

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
