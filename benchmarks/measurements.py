#!/usr/bin/env -S python3 -B
"""Replaces one section of docs/measurements.md by standard input.

    benchmarks/measurements.py SECTION < TABLE

A section is what stands between the line "<!-- SECTION -->" and the next "<!-- end -->". Its first line becomes
the machine and the date; the method is told by the text above it. Exit status 1: there is no such section, and the
page stays as it was.
"""
import datetime
import os
import pathlib
import platform
import sys

PAGE = pathlib.Path(__file__).resolve().parents[1] / "docs/measurements.md"


def processor():
    for line in pathlib.Path("/proc/cpuinfo").read_text().splitlines():
        if line.startswith("model name"):
            return line.split(":", 1)[1].strip()
    return "unknown processor"


def main(section):
    page, begin, end = PAGE.read_text(), f"<!-- {section} -->\n", "<!-- end -->"
    if begin not in page:
        sys.exit(f"{PAGE.name}: no section {section}")
    head, rest = page.split(begin)
    kernel = ".".join(platform.release().split(".")[:2])
    machine = f"{datetime.date.today()}, {processor()}, {os.cpu_count()} cores, Linux {kernel}"
    written = PAGE.with_suffix(".new")
    written.write_text(f"{head}{begin}{machine}\n\n{sys.stdin.read().strip()}\n{rest[rest.index(end):]}")
    written.replace(PAGE)


if len(sys.argv) != 2:
    sys.exit(__doc__)
main(sys.argv[1])
