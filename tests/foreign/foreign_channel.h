// Inside the foreign libraries: the test's memory, and the way an event goes to the test.
#ifndef FOREIGN_CHANNEL_H
#define FOREIGN_CHANNEL_H

#include "foreign.h"

#include <string_view>

foreign_state &foreign();
void foreign_report(int kind, int number, std::string_view first, std::string_view second = {});
inline void foreign_call(std::string_view function, int argument = 0) {
    foreign_report(EVENT_CALL, argument, function);
}
void foreign_pause(int ms);
void foreign_stack(int first); // 0 a message, 1 a log line, 2 a record of settings come first
// Does at `place` what the test wants done there: signals, and a look at the mask of a new thread.
void foreign_signals(int place);

#endif
