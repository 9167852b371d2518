// The terminal's end of the serial line: a pseudo terminal behind a symbolic link.
//
// As on a real port, nothing is kept for a reader that is not there: what arrives while nobody has
// the device open is lost. One thread.
#ifndef SIMULATOR_LINE_PTY_H
#define SIMULATOR_LINE_PTY_H

#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace sim {

struct line_pty {
    std::string link;  // the device path that programs open
    std::string slave; // what it points to
    int master = -1;   // non-blocking; -1 = unplugged
    int notify = -1;   // inotify on the slave: readable when somebody opened or closed it
    bool open = false; // somebody has the device open
};

// Creates the pty, raw, and points the link at it (an old link is replaced). False: `error` says
// which step failed and nothing is left open.
bool line_pty_plug(line_pty &port, const std::string &link, std::string &error);

// Closes the pty and removes the link: whoever has it open sees its line hung up. Harmless twice.
void line_pty_unplug(line_pty &port);

// Drains `notify` and looks whether anybody has the device open now; the answer is also in `open`.
bool line_pty_check(line_pty &port);

// What the other end has written since the last call; empty = nothing.
std::vector<uint8_t> line_pty_read(line_pty &port);

// One write. False when nobody listens or the reader's buffer is full: the bytes are lost.
bool line_pty_write(line_pty &port, std::span<const uint8_t> bytes);

} // namespace sim

#endif
