// The bundle for support: report, log, settings and configuration in one tar.gz.
#ifndef LSCTL_DIAGNOSIS_BUNDLE_H
#define LSCTL_DIAGNOSIS_BUNDLE_H

#include "look.h"

namespace diagnosis {

// Why nothing can be written as `path`: it exists, or its directory does not. Empty: it can.
std::string bundle_refused(const std::string &path);

// Writes it, mode 0600, under its name only when it is complete, and over nothing. Empty, or what
// went wrong; nothing is left then. Runs tar, and journalctl where the log is the system's.
std::string bundle_write(const std::string &path, const facts &found, const std::string &report,
                         const std::string &report_json, bool with_positions);

// The lines of a log that tell no position: none of the level debug, none with a sentence of the
// receiver, bytes, coded coordinates, or a number that could be one.
std::string without_positions(const std::string &log);

} // namespace diagnosis

#endif
