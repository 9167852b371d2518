// lsctl history: having the history exported, and reading the export; and why there is nothing.
#ifndef LSCTL_HISTORY_EXPORT_H
#define LSCTL_HISTORY_EXPORT_H

#include "lsctl.h"

struct history_source {
    std::string root;  // in front of the service's paths
    std::string input; // a file to be read instead; empty: the service is asked
};

// Has the history exported, unless it is in a file, and reads it whole. Returns LSCTL_OK, or the
// exit status of what has been told, or not told for `quiet`. *incomplete: the service could not
// write all of it.
int history_load(const lsctl_options &options, const history_source &source, std::string *text,
                 bool *incomplete, bool quiet = false);

// Why nothing is recorded and what to do, as one sentence.
std::string history_why_nothing(const history_source &source);

// Seconds between the lines as the settings have it; 0 when they cannot be read.
uint32_t history_interval_s();

#endif
