// lsctl history: its other two ways of telling, the lines as they come and a summary.
#ifndef LSCTL_HISTORY_H
#define LSCTL_HISTORY_H

#include <cstdio>

#include "lsctl_history_export.h"
#include "track.h"

// A point as one line with its line end.
using history_line = std::string (*)(const track_point &at);

// Prints what is recorded in the range, and what comes, until a signal or a closed output ends it.
// The export is asked for anew once an interval of the history, 2 to 30 s.
int history_follow(const lsctl_options &options, const history_source &source, history_line line,
                   const track_range &range);

void history_write_summary(const track &all, int64_t gap_s, bool json, FILE *out);

#endif
