// lsctl status and lsctl doctor: one look, its findings, one exit status.
#include "bundle.h"
#include "lsctl_text.h"
#include "report.h"

#include <CLI/CLI.hpp>

namespace {

using namespace diagnosis;

constexpr const char *FOOTER = "Exit status: 0 healthy, 1 degraded, 3 no answer, 4 degraded, and a "
                               "restart of the service mends it.";

struct status_command {
    bool quiet = false;

    void add_options(CLI::App &app) {
        app.footer(FOOTER);
        app.add_flag("-q,--quiet", quiet, "Nothing but the exit status");
    }
    int run(const lsctl_options &options) const;
};

struct doctor_command {
    std::string bundle;
    bool with_positions = false;

    void add_options(CLI::App &app);
    int run(const lsctl_options &options) const;
};

// Shown, and worth the worst finding's exit status; what cannot be written is a failure, as is a
// bundle that could not be made, which `bundle_failure` tells.
int show(const lsctl_options &options, const facts &found, const std::vector<finding> &findings,
         const std::string &text, const std::string &bundle_failure = "") {
    lsctl_json object = report_json(found, findings);
    if (!bundle_failure.empty())
        return lsctl_fail_with(options, "not_written", "no bundle: " + bundle_failure, object,
                               text);
    const severity worst = worst_of(findings);
    if (worst != severity::healthy) {
        object["error"] = findings.front().name;
        object["text"] = findings.front().cause;
    }
    const int shown = lsctl_show(options, object, text);
    return shown != LSCTL_OK ? shown : exit_of(worst);
}

bool ended() {
    return lsctl_signals_last() != 0;
}

int status_command::run(const lsctl_options &options) const {
    const facts found = look(options);
    if (ended())
        return lsctl_exit_of(LOCATION_CANCELLED);
    const std::vector<finding> findings = judge(found);
    if (quiet)
        return exit_of(worst_of(findings));
    std::string text = verdict_text(findings) + facts_text(found);
    for (const finding &each : findings)
        text += line_of(each);
    return show(options, found, findings, text);
}

void doctor_command::add_options(CLI::App &app) {
    app.footer(FOOTER);
    CLI::Option *file = app.add_option("--bundle", bundle,
                                       "Pack report, log, settings and configuration for support")
                            ->option_text("FILE.tar.gz");
    app.add_flag("--with-positions", with_positions,
                 "Put in what tells positions: history, static location, whole log")
        ->needs(file);
}

int doctor_command::run(const lsctl_options &options) const {
    // Found out before it takes time.
    if (const std::string error = bundle.empty() ? "" : bundle_refused(bundle); !error.empty())
        return lsctl_fail(options, LOCATION_FAILED, error);
    const facts found = look(options);
    if (ended())
        return lsctl_exit_of(LOCATION_CANCELLED);
    const std::vector<finding> findings = judge(found);
    std::string text = verdict_text(findings) + facts_text(found) + remedies_text(findings);
    if (findings.empty())
        text += "\nNothing is wrong.\n";
    if (bundle.empty())
        return show(options, found, findings, text);
    const std::string error = bundle_write(
        bundle, found, text, report_json(found, findings).dump(2) + "\n", with_positions);
    const int status = show(options, found, findings, text, error);
    if (!error.empty())
        return status;
    lsctl_complain("bundle written: " + bundle +
                   (with_positions ? ", with positions" : ", without positions"));
    return status;
}

} // namespace

lsctl_runner lsctl_status(CLI::App &app) {
    return lsctl_make<status_command>(app);
}

lsctl_runner lsctl_doctor(CLI::App &app) {
    return lsctl_make<doctor_command>(app);
}
