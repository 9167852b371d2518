// lsctl: a failed query, explained.
#include "explain.h"

#include "findings.h"
#include "lsctl_text.h"

int lsctl_fail_explained(const lsctl_options &options, location_result result,
                         location_client *client, std::string_view also) {
    if (result != LOCATION_FAILED && result != LOCATION_RECEIVER_TIMEOUT)
        return lsctl_fail(options, result, client);
    const diagnosis::facts found = diagnosis::look(options, client);
    if (lsctl_signals_last() != 0)
        return lsctl_fail(options, LOCATION_CANCELLED);
    const std::vector<diagnosis::finding> findings = diagnosis::judge(found);
    const diagnosis::finding *why = diagnosis::explanation_in(findings, also);
    const int status = lsctl_exit_of(result);
    if (why == nullptr) {
        return lsctl_fail(options, result,
                          lsctl_sentence(options, result, client) +
                              "; asked again, the receiver answers well: try again");
    }
    const std::string sentence =
        why->cause + (why->remedy.empty() ? "" : ". What to do: " + why->remedy);
    return lsctl_fail_as(options, why->name, status, sentence);
}
