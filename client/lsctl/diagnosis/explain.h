// Why a query of the receiver failed: found with one look of its own.
#ifndef LSCTL_DIAGNOSIS_EXPLAIN_H
#define LSCTL_DIAGNOSIS_EXPLAIN_H

#include "lsctl.h"

// As lsctl_fail; when the service answered that a query failed it first looks itself, once, and
// says what it found: one sentence of cause, one of remedy, and the finding's name as the error.
// The exit status is that of `result`. `also`: name of a finding that spoils this query alone.
int lsctl_fail_explained(const lsctl_options &options, location_result result,
                         location_client *client, std::string_view also = {});

#endif
