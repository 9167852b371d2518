// From facts to what they mean: a pure table. Each finding has one sentence of cause and one of
// remedy, and a name that stays.
#ifndef LSCTL_DIAGNOSIS_FINDINGS_H
#define LSCTL_DIAGNOSIS_FINDINGS_H

#include "look.h"

namespace diagnosis {

// From harmless to bad; a restart outweighs what it mends besides.
enum class severity : uint8_t {
    healthy,   // worth a line, nothing is wrong
    degraded,  // something does not work
    restart,   // the same, and a restart of the service mends it
    no_answer, // nobody could be asked
};
const char *severity_name(severity level); // for JSON

struct finding {
    const char *name;
    severity level;
    std::string cause;  // a sentence without a full stop
    std::string remedy; // the same; empty: nothing is to be done
};

// In the order of their weight: the first one is what to begin with.
std::vector<finding> judge(const facts &found);
severity worst_of(const std::vector<finding> &findings);
int exit_of(severity level);

// The finding that explains why a query of the receiver failed; null: none of these does. `also`
// is one that explains this query besides.
const finding *explanation_in(const std::vector<finding> &findings, std::string_view also = {});

// "board type 1", or why the gate is closed.
std::string gate_text(const facts &found);
bool gate_is_open(const facts &found);

} // namespace diagnosis

#endif
