// lsctl stream: from the options to the end.
#ifndef LSCTL_STREAM_LOOP_H
#define LSCTL_STREAM_LOOP_H

#include <cstdint>
#include <optional>

#include "stream_state.h"

// Speaks `form` to stdout, or to whoever connects to `port` of the loopback, until a signal comes
// or stdout is closed; says on stderr what is wrong. The exit status. gpsd's form needs a port.
int stream_serve(const lsctl_options &options, stream_form form, std::optional<uint16_t> port);

#endif
