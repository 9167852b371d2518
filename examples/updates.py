#!/usr/bin/env python3
"""Position updates in an event loop, beside whatever else it does: updates.py [COUNT] [SECONDS]

Here the loop is asyncio's; any other takes the client's descriptor (fileno) and poll_updates in the same way.
Without a loop, `for update in client.updates(interval_s=5)` is all.
"""

import asyncio
import json
import sys

import location_client


async def watch(client: location_client.Client, count: int, interval_s: int) -> None:
    loop = asyncio.get_running_loop()
    updates: asyncio.Queue[location_client.Update] = asyncio.Queue()

    def readable() -> None:
        for update in client.poll_updates():
            updates.put_nowait(update)

    loop.add_reader(client.fileno(), readable)
    # A request blocks the loop until its answer is there: hence a short time-out.
    client.register_periodic(count, interval_s, timeout=2)
    readable()  # the first update may have come with the answer
    try:
        for _ in range(count):
            # Three intervals without an update: the service was restarted and has forgotten us.
            update = await asyncio.wait_for(updates.get(), 3 * interval_s)
            print(json.dumps(update.as_dict()), flush=True)
    finally:
        loop.remove_reader(client.fileno())


def main() -> int:
    count = int(sys.argv[1]) if len(sys.argv) > 1 else 10
    interval_s = int(sys.argv[2]) if len(sys.argv) > 2 else 5
    try:
        with location_client.Client() as client:  # leaving it ends the registration, too
            asyncio.run(watch(client, count, interval_s))
    except (location_client.LocationError, asyncio.TimeoutError) as failure:
        print(f"no updates: {failure or 'none came in time'}", file=sys.stderr)
        return 1
    except KeyboardInterrupt:
        pass
    return 0


if __name__ == "__main__":
    sys.exit(main())
