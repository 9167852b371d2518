#!/usr/bin/env -S python3 -B
"""Runs the benchmarks and prints the tables of docs/measurements.md in Markdown.

    benchmarks/figures.py [--brief] [TABLE...]

TABLE: codec, log, worker, history, exchange, buffered, instructions, start_up, at_rest; all of them without one.
--brief takes each figure once and shortly: to see that all still runs. Needs the target figures_programs of preset sim
and, for instructions, location_service of preset armhf-sim (./bench builds both). Exit status 1: something did not run.
--check runs nothing and ends with 0 when the tables named are there.
"""
import functools
import json
import subprocess
import sys
import textwrap

import figures_buffered
import figures_terminal
from figures_table import row, table

PROGRAMS = figures_buffered.BUILD / "benchmarks"
HEAD = ["figure", "here", "reference", "ratio"]


@functools.cache
def google_benchmark(program, brief):
    """Its results by name, "log_written" or "get_token/9"; the shortest of the repetitions, or the run itself."""
    options = ["--benchmark_min_time=0.01"] if brief else []
    output = subprocess.run([PROGRAMS / program, "--benchmark_format=json", *options],
                            check=True, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True).stdout
    found = {}
    for result in json.loads(output)["benchmarks"]:
        if result.get("error_occurred"):
            raise RuntimeError(f"{result['name']}: {result['error_message']}")
        if "aggregate_name" not in result or result.get("aggregate_name") == "shortest":
            parts = [part for part in result["run_name"].split("/")
                     if not part.startswith(("min_time", "repeats", "real_time", "manual_time"))]
            found["/".join(parts)] = result
    return found


def beside(title, unit, results, name, reference, value="cpu_time", of_what=""):
    return row(title, unit, [results[name][value]], [results[reference][value]], of_what)


def codec(brief):
    results = google_benchmark("codec_benchmark", brief)
    return """
        Codec, processor time, the shortest of many runs, beside the same by calls of the C library (snprintf,
        strchr, strtoul). None of them may use the heap.""", table(HEAD, [
        beside("build a poll", "ns", results, "create_poll", "create_poll_reference"),
        beside("take an answer out, checksum checked", "ns", results, "extract_gga", "extract_gga_reference"),
        beside("read field 2", "ns", results, "get_token/2", "get_token_reference/2"),
        beside("read field 9", "ns", results, "get_token/9", "get_token_reference/9")])


def log(brief):
    results = google_benchmark("log_benchmark", brief)
    syslog = google_benchmark("syslog_benchmark", brief)["log_to_syslog"]
    return """
        Log call through the library's boundary. Below the level and to a file: processor time, the shortest
        of many runs. To syslog: time that passes, median, with a reader that waits for each line.""", table(HEAD, [
        beside("below the level", "ns", results, "log_switched_off", "call_across_the_boundary",
               of_what="a call that does nothing"),
        beside("to a file", "ns", results, "log_written", "write_alone", of_what="write() of as many bytes"),
        row("to syslog", "us", [syslog["own_us"]], [syslog["reference_us"]], "send() of as many bytes")])


def worker(brief):
    results = google_benchmark("worker_benchmark", brief)
    return """
        A worker for each request, as the system's rules want it: a detached thread with the daemon's stack,
        started and handed its request, beside waking a thread that waits. Time that passes, the shortest of
        many runs.""", table(HEAD, [
        beside("a thread for a request", "ns", results, "start_worker/stack_kib:1024", "wake_a_thread_that_waits",
               "real_time", "a thread that waits")])


def history(brief):
    results = google_benchmark("history_benchmark", brief)
    append, export = results["append_line"], results["export_full_ring"]
    return """
        History on a file of this machine's TMPDIR: a line appended and made to last, and the whole ring of 2
        MiB exported. Time that passes, in turns with the reference, medians.""", table(HEAD, [
        row("append a line", "us", [append["own_us"]], [append["reference_us"]], "the same calls by hand"),
        row("export the ring", "us", [export["own_us"]], [export["reference_us"]], "cp of it")])


TABLES = {
    "codec": codec, "log": log, "worker": worker, "history": history,
    "exchange": figures_terminal.exchange, "buffered": figures_buffered.buffered,
    "instructions": figures_buffered.instructions,
    "start_up": figures_terminal.start_up, "at_rest": figures_terminal.at_rest,
}


def main(words):
    brief = "--brief" in words
    names = [word for word in words if word not in ("--brief", "--check")] or list(TABLES)
    if not set(names) <= set(TABLES):
        sys.exit(__doc__)
    if "--check" in words:
        return
    for name in names:
        try:
            method, text = TABLES[name](brief)
        except (OSError, RuntimeError, ValueError, subprocess.SubprocessError, figures_terminal.LocationError) as error:
            sys.exit(f"{name}: {type(error).__name__}: {error}")
        told = textwrap.fill(" ".join(f"{method} Again: `./bench {name}`.".split()), 118)
        print(f"### {name}\n\n{told}\n\n{text}\n", flush=True)


main(sys.argv[1:])
