// lsctl monitor: the thread that asks.
//
// A round of questions every MONITOR_ROUND: the power mode, which the service answers itself, and
// two to the receiver, a second apart: the position, and one of those that take turns. On a line of
// 9600 baud they take half a second of the two at most. Nothing goes to the receiver while the
// service may still be configuring it, or while it is off. Each waits for its answer as long as
// --timeout says: with less than the service's own wait they would pile up in it.
#ifndef MONITOR_ASKER_H
#define MONITOR_ASKER_H

#include <chrono>

#include "monitor_model.h"

constexpr std::chrono::seconds MONITOR_ROUND{2};

// Starts the thread. The client is the caller's, and outlives it. One asker a process.
void monitor_asker_start(const lsctl_options &options, location_client *client);
// Ends its waits (the client is cancelled) and joins it.
void monitor_asker_stop();

// The model as it is at `now`. Any thread.
monitor_model monitor_asker_model(monitor_time now);

#endif
