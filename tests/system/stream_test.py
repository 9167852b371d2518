"""lsctl stream, read by the programs that read gpsd, and a service that goes away.

Usage: stream_test.py SOURCE_DIR DAEMON SIMTERM LSCTL
"""
import os
import re
import signal
import sys
import time

programs = dict(zip(("daemon", "simterm", "lsctl"), sys.argv[2:5]))
sys.dont_write_bytecode = True
sys.path.insert(0, sys.argv[1] + "/tests/support")

from simulated_terminal import LIMIT_S, Terminal, wait_until  # noqa: E402

STREAM = programs["lsctl"], "stream"
PLACE = "--no-services", "--place", "47.2852,8.5653,499"  # in grid square JN47gg78
PYTHON_CLIENT = """
import gps, sys
session = gps.gps(host="127.0.0.1", port=sys.argv[1], mode=gps.WATCH_ENABLE | gps.WATCH_JSON)
for report in session:
    with open(sys.argv[2], "a") as out:
        print("fix", session.fix.mode, session.fix.latitude, [sat.azimuth for sat in session.satellites], file=out)
"""

with Terminal(programs, *PLACE, "--log-level", "debug") as terminal:
    with terminal.background(*STREAM, "--format", "gpsd", "--listen", "0") as stream:
        port = re.fullmatch(r"listening on port (\d+) of this machine\n", stream.stdout.readline())[1]
        assert "Case LS_" not in terminal.log(), "asked while nobody listened"
        piped = terminal.run("gpspipe", "-w", "-r", "-n", "9", f"127.0.0.1:{port}").stdout
        for text in ('"mode":3,"time":"20', '"lat":47.2852,"lon":8.5653,"altMSL":499.0',
                     ",A,4717.11200,N,00833.91800,E,"):
            assert text in piped, piped
        assert terminal.lsctl("stream", "--listen", port)[0] == 1, "a port in use"
        stream.terminate()
        assert stream.wait(LIMIT_S) == 128 + signal.SIGTERM

    ended = terminal.run("bash", "-c", '"$@" | head -n 1; exit ${PIPESTATUS[0]}', "bash", *STREAM)
    assert (ended.returncode, ended.stdout[:7], ended.stderr) == (128 + signal.SIGPIPE, "$GPGGA,", ""), ended

    seen = terminal.dir / "seen"  # by two clients
    seen.touch()
    with terminal.background(*STREAM, "--format", "gpsd", "--listen", port) as stream:
        assert stream.stdout.readline() == f"listening on port {port} of this machine\n"
        before, start = terminal.log().count("Case LS_"), time.monotonic()
        with terminal.background("/usr/bin/python3", "-c", PYTHON_CLIENT, port, seen):
            with terminal.background("script", "-qfeac", f"TERM=xterm cgps -s 127.0.0.1:{port}", seen):
                for text in "47.28520000 N", "JN47gg78", r"fix 3 47\.2852 \[[1-9]":
                    wait_until(lambda: re.search(text, seen.read_text()))
            assert terminal.log().count("Case LS_") - before <= time.monotonic() - start + 1
            # Nothing is left of the position when the service dies, and it comes back with the service.
            os.kill(terminal.daemon(), signal.SIGKILL)
            terminal.end_of_daemon()
            wait_until(lambda: "fix 0 nan" in seen.read_text())
            assert "47.2852" not in seen.read_text().partition("fix 0")[2]
            with terminal.background(programs["simterm"], "run", terminal.dir, "--daemon", programs["daemon"],
                                     "--instant-fix", *PLACE):
                wait_until(lambda: "fix 3 47.2852" in seen.read_text().partition("fix 0")[2])
