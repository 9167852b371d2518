#!/usr/bin/env python3
"""The location history as a GPX track on standard output.

LOCATION_TERMINAL_ROOT is the directory of a simulated terminal, which simterm sets; a terminal has none. A line that
cannot be read, as the oldest one of a full history, is left out.
"""

import os
import re
import sys
import time
from typing import Iterable, Iterator, Tuple

import location_client

LINE = re.compile(r"([\d-]{10} [\d:]{8}),2D,([\d.]+)([NS]),([\d.]+)([EW]),")


def points(lines: Iterable[str]) -> Iterator[Tuple[str, float, float]]:
    """Time in UTC, latitude and longitude of each line with a fix; the lines' clock is the terminal's own."""
    for line in lines:
        found = LINE.match(line)
        if found:
            local, lat, north_south, lon, east_west = found.groups()
            utc = time.gmtime(time.mktime(time.strptime(local, "%Y-%m-%d %H:%M:%S")))
            yield (time.strftime("%Y-%m-%dT%H:%M:%SZ", utc), float(lat) * (-1 if north_south == "S" else 1),
                   float(lon) * (-1 if east_west == "W" else 1))


def main() -> int:
    try:
        with location_client.Client() as client:
            export = client.get_history_path()
        with open(os.environ.get("LOCATION_TERMINAL_ROOT", "") + export.path, encoding="ascii", errors="replace") as file:
            found = list(points(file))
    except (location_client.LocationError, OSError) as failure:
        print(f"no history: {failure}", file=sys.stderr)
        return 1
    print('<?xml version="1.0" encoding="UTF-8"?>')
    print('<gpx version="1.1" creator="history_gpx.py" xmlns="http://www.topografix.com/GPX/1/1"><trk><trkseg>')
    for utc, latitude, longitude in found:
        print(f'<trkpt lat="{latitude:.6f}" lon="{longitude:.6f}"><time>{utc}</time></trkpt>')
    print("</trkseg></trk></gpx>")
    return 0 if export.complete else 1


if __name__ == "__main__":
    sys.exit(main())
