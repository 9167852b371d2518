// What a look found, as text for people and as JSON. No coordinates are in it.
#ifndef LSCTL_DIAGNOSIS_REPORT_H
#define LSCTL_DIAGNOSIS_REPORT_H

#include "findings.h"

namespace diagnosis {

// "Bus  /run/terminal-bus: ..." and so on, a line a fact.
std::string facts_text(const facts &found);
// "degraded: no_fix", and a line for each finding.
std::string verdict_text(const std::vector<finding> &findings);
// Cause and remedy of each, in a paragraph.
std::string remedies_text(const std::vector<finding> &findings);
// "no_fix: cause; remedy", one line.
std::string line_of(const finding &each);
lsctl_json report_json(const facts &found, const std::vector<finding> &findings);

} // namespace diagnosis

#endif
