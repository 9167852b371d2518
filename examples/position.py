#!/usr/bin/env python3
"""Where the terminal is, once: a line for people, or what went wrong.

On a simulated terminal: simterm run DIR --daemon DAEMON -- examples/position.py
"""

import sys

import location_client


def main() -> int:
    try:
        with location_client.Client(timeout=10) as client:
            here = client.get_position()
    except location_client.AnsweredError as failure:
        print(f"no position: {failure} ({failure.error})", file=sys.stderr)
        return 1
    except location_client.LocationError as failure:
        print(f"nobody to ask: {failure} ({failure.error})", file=sys.stderr)
        return 3
    when = here.time_utc.isoformat() if here.time_utc else "at an unknown time"
    print(f"{here.latitude_deg:.6f} {here.longitude_deg:.6f} +-{here.horizontal_accuracy_m:.1f} m, "
          f"{here.altitude_m:.1f} m high, {here.fix_type}, {when}")
    return 0


if __name__ == "__main__":
    sys.exit(main())
