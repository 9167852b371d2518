"""lsctl monitor as its user sees it: in a pseudo-terminal, on a simulated terminal.

Usage: monitor_test.py SOURCE_DIR LSCTL SIMTERM DAEMON
"""

import os
import signal
import subprocess
import sys

source, lsctl, simterm, daemon = sys.argv[1:5]
sys.path[:0] = [f"{source}/docs/pictures", f"{source}/tests/support"]
import simulated_terminal  # noqa: E402
from terminal_screen import Terminal  # noqa: E402


def comes(view, pattern):
    assert view.wait_for(pattern), f"'{pattern}' does not come. Seen:\n{view.screen.text()}"


def ends(view, status):
    assert (found := view.end()) == status, f"it ends with {found}"
    assert view.screen.alternate is not True and view.screen.shown_cursor is not False, view.output[-80:]


def refuses(arguments, **environment):
    done = subprocess.run(["script", "-qec", f"{lsctl} monitor {arguments}", "/dev/null"], text=True, timeout=60,
                          stdout=subprocess.PIPE, stdin=subprocess.DEVNULL, env={**os.environ, **environment})
    assert done.returncode == 2 and "\x1b" not in done.stdout and "monitor" in done.stdout, f"not refused: {done}"


with simulated_terminal.Terminal({"daemon": daemon, "simterm": simterm}, "--place", "-33.85678,-70.5,12.5") as terminal:
    os.environ.update(terminal.environment, LC_ALL="C")
    view = Terminal([lsctl, "monitor"])
    comes(view, r"33\.856780 deg S +70\.500000 deg W")
    comes(view, r"Altitude +12\.5 m")
    comes(view, r"Speed 0\.\d km/h")
    comes(view, r"System clock 0\.\d s")
    comes(view, r"\*\d\d \d\d #+")  # a bar
    comes(view, r"\.\..*\d\d\*")  # on the map
    view.type("d")
    comes(view, r"33 deg 51\.4068' S")
    view.type("?")
    comes(view, "Ctrl-C  end")
    view.type("?")
    view.resize(10, 40)
    comes(view, r"(?m)^33 deg 51\.4068' S 70 deg 30\.0000' W$")
    comes(view, r"(?m)^No error so far$")
    view.resize(24, 80)
    terminal.ctl("fault", "no-fix", "on")
    comes(view, r"(?s)the receiver has no fix.*\(last known\).*Now: the receiver answers")
    terminal.ctl("fault", "no-fix", "off")
    comes(view, "Last error")
    terminal.ctl("fault", "checksum", "on")
    comes(view, r"(?s)no word from the receiver.*\(last known\).*Now: .*damaged")
    terminal.ctl("fault", "checksum", "off")
    terminal.ctl("kill-daemon")
    comes(view, r"(?s)the location service is not there.*\(last known\)")
    terminal.ctl("start-daemon")
    comes(view, r"33 deg 51\.4068' S +70 deg 30\.0000' W\n")
    view.type("q")
    ends(view, 0)
    # Nothing that is 0 N 0 E before there is a fix; without colours; ended in the two other ways.
    terminal.ctl("fault", "no-fix", "on")
    for name, number in (("vt100", signal.SIGTERM), ("xterm", signal.SIGINT)):
        view = Terminal([lsctl, "monitor"], term=name)
        comes(view, "Position +none so far")
        comes(view, "the receiver has no fix")
        assert " deg" not in view.screen.text(), view.screen.text()
        view.signal(number) if number == signal.SIGTERM else view.type("\x03")
        ends(view, 128 + number)
    refuses("", TERM="dumb")
    refuses("| cat; exit ${PIPESTATUS[0]}", SHELL="/bin/bash", TERM="xterm")
    refuses("--json", TERM="xterm")
