#!/usr/bin/env python3
"""Holds the installed policy of the bus against the two tables of messages in docs/wire.md.

Usage: policy_test.py SOURCE_DIRECTORY
"""
import pathlib
import re
import sys

source = pathlib.Path(sys.argv[1])
SERVICES = {"daemon": "8", "itself": "8", "SAL": "2", "VoIP": "3", "WS": "6", "TA": "12", "modem": "any",
            "WS or a tool": "6,32-63", "a registered client": "1-7,9-255"}
OTHERS = "1-7,9-255"


def ids(text):
    bounds = (part.split("-") for part in text.split(","))
    return {each for part in bounds for each in range(int(part[0]), int(part[-1]) + 1)}


# One tuple for each message, type, receivers and senders.
told = set()
for line in (source / "docs/wire.md").read_text().splitlines():
    cells = [cell.strip() for cell in line.strip("|").split("|")]
    if (named := re.match(r"(\d+) [a-z]", cells[0], re.I)) and len(cells) == 3:
        told |= {(int(named[1]), "request", "8", "any"), (int(named[1]), "response", OTHERS, "8")}
    elif re.match(r"\d+$", cells[0]) and len(cells) == 4 and " to " in cells[2]:
        ways = [way.split(" to ") for way in cells[2].split(", ")]
        types = re.split(", | or ", cells[1])
        for kind, (sender, receiver) in zip(types, ways if len(ways) == len(types) else ways[:1] * len(types)):
            if sender != "bus":  # the library's own word, never a datagram
                told.add((int(cells[0]), kind, SERVICES[receiver], SERVICES[sender]))

allowed = set()
for line in (source / "packaging/bus/policy").read_text().splitlines():
    line = line.partition("#")[0].strip()
    if not line or line == OTHERS + ": other any from any":
        continue
    receivers, messages, types, senders = re.fullmatch(r"(\S+): (\S+) (\S+) from (\S+)", line).groups()
    allowed |= {(message, kind, receivers, senders) for message in ids(messages) for kind in types.split(",")}

for row in sorted(told ^ allowed):
    print("message %d, %s, to %s from %s: " % row + ("not in the policy" if row in told else "not in docs/wire.md"))
sys.exit(told != allowed or len(told) < 30)
