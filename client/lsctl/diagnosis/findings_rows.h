// The rows of the table of findings that look at one exchange with the receiver.
#ifndef LSCTL_DIAGNOSIS_FINDINGS_ROWS_H
#define LSCTL_DIAGNOSIS_FINDINGS_ROWS_H

#include "findings.h"

namespace diagnosis {

// The finding of a row that found nothing has no name.
inline const finding NOTHING{"", severity::healthy, "", ""};
using row = finding (*)(const facts &found);

finding out_of_step(const facts &found);
finding line_lost(const facts &found);
finding line_gone(const facts &found);
finding board_unknown(const facts &found);
finding ta_absent(const facts &found);
finding antenna(const facts &found);
finding ta_silent(const facts &found);
finding ta_bad_answer(const facts &found);
finding busy(const facts &found);
finding silent(const facts &found);
finding wrong_checksums(const facts &found);
finding damaged(const facts &found);
finding late_answers(const facts &found);
finding noisy(const facts &found);
finding no_fix(const facts &found);

} // namespace diagnosis

#endif
