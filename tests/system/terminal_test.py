"""The terminal as its users see it: start and end of the daemon, power, periodic updates, the alarm for a lost line.

Usage: terminal_test.py SOURCE_DIR DAEMON SIMTERM LSCTL"""

import os
import signal
import struct
import sys
import time
import unittest

programs = dict(zip(("daemon", "simterm", "lsctl"), sys.argv[2:5]))
sys.dont_write_bytecode = True
sys.path[:0] = [f"{sys.argv[1]}/tests/support", f"{sys.argv[1]}/client/python"]

import location_client as lc  # noqa: E402
from simulated_terminal import LIMIT_S, Terminal, wait_until  # noqa: E402

ALARM, POWER_MODE = 810, 1014  # to WS and to VoIP


def started(*options):
    return Terminal(programs, "--no-services", *options).until_ready()


def told(client, msg_id):
    """What the next such notification holds; a client takes no notice of what is for one service alone."""
    while (message := client._bus.receive(time.monotonic() + LIMIT_S))[:2] != (lc._bus.NOTIFICATION, msg_id):
        pass
    return message.payload


# Of the tests that leave it as it was.
terminal = started("--place", "-33.85678,-70.5,12.5")
unittest.addModuleCleanup(terminal.__exit__, None)
os.environ.update(terminal.environment)


class TerminalTest(unittest.TestCase):
    def test_each_signal_ends_it_in_order(self):
        for number in (signal.SIGTERM, signal.SIGHUP, signal.SIGTSTP):
            with self.subTest(number), started() as own:
                os.kill(own.daemon(), number)
                self.assertEqual(own.end_of_daemon(), "exit status 0")
                self.assertFalse((own.dir / "bus/8").exists())

    def test_sigterm_during_a_slow_start_kills_it(self):
        with Terminal(programs, "--no-services", "--fault", "silent") as own:  # the start then takes 80 s
            wait_until(lambda: "Configure the measurement rate" in own.log())
            os.kill(own.daemon(), signal.SIGTERM)
            self.assertEqual(own.end_of_daemon(), "signal 15 (Terminated)")

    def test_a_second_daemon_on_the_bus_gives_up_and_disturbs_nothing(self):
        self.assertEqual(terminal.run("env", "-C", terminal.dir, programs["daemon"]).returncode, 255)
        self.assertEqual(terminal.log().count("Scm registration failed"), 1)
        self.assertIn(" 33.856780 deg S", terminal.run(programs["lsctl"], "position").stdout)

    def test_outlives_its_daemon_when_that_is_wanted(self):
        with started("--keep") as own:
            os.kill(own.daemon(), signal.SIGKILL)
            wait_until(lambda: own.lsctl("power")[0] == 3)
            own.ctl("start-daemon")
            self.assertEqual(own.until_ready().lsctl("position")[0], 0)

    def test_an_option_that_is_wrong_makes_nothing(self):
        scratch = terminal.dir.parent
        (scratch / "damaged").write_text("$GPGGA*00\n")
        for options in ("--place 91,0", "--ttff 1,2", "--fault cut=0", "--fault ta-silent=twice", "--replay damaged",
                        "--route damaged", "--daemon damaged", "--history-interval 0", "--antenna -1", "--board 3"):
            done = terminal.run("env", "-C", scratch, programs["simterm"], "run", "new", *options.split())
            self.assertEqual((done.returncode, (scratch / "new").exists()), (2, False), options)

    def test_a_change_by_voip_reaches_the_lines_the_settings_and_voip(self):
        with lc.Client(3) as voip:
            for mode, line, word in ((0, "0", "off"), (2, "1", "on")):
                self.assertEqual(voip.set_power(mode), lc.Power(mode == 2, mode))
                self.assertEqual(told(voip, POWER_MODE), bytes([mode, 0, 0, 0]))
                for gpio in ("gpio102", "gpio37"):
                    self.assertEqual(terminal.file(f"sys/class/gpio/{gpio}/value")[0], line)
                # The next daemon comes up as this one was left, and says so to VoIP.
                terminal.ctl("restart-daemon")
                self.assertEqual(told(voip, POWER_MODE), bytes([mode, 0, 0, 0]))
                shown = terminal.until_ready().run(programs["lsctl"], "power").stdout
                self.assertEqual(shown, f"Receiver  {word} (power mode {mode})\n")

    def test_a_fourth_is_refused_until_an_interrupted_one_has_gone(self):
        with lc.Client(40) as first, lc.Client(41) as second:
            first.register_periodic(1000, 4)
            second.register_periodic(1000, 4)
            with terminal.background(programs["lsctl"], "watch", "-i", "4") as third:
                self.assertIn(" 33.856780 S ", third.stdout.readline())
                status, said = terminal.lsctl("watch", "-n", "1")
                self.assertEqual(status, 1)
                self.assertIn("refused: three other services are registered already", said[0]["text"])
                third.send_signal(signal.SIGINT)
                self.assertEqual(third.wait(LIMIT_S), 0)
            next_one = terminal.run(programs["lsctl"], "watch", "-n", "1")
            self.assertEqual((next_one.returncode, next_one.stderr), (0, ""))  # nothing was left behind

    def test_goes_on_with_a_restarted_daemon(self):
        with terminal.background(programs["lsctl"], "watch", "-n", "3", "-i", "4", "--reconnect") as watched:
            self.assertIn(" 33.856780 S ", watched.stdout.readline())
            terminal.ctl("restart-daemon")
            out, errors = watched.communicate(timeout=LIMIT_S)
            self.assertEqual((watched.returncode, out.count("\n"), errors), (0, 2, "lsctl: registered again\n"))

    def test_an_unplugged_line_raises_the_alarm(self):
        with started() as own, lc.Client(6, directory=own.environment["MQUTILS_DIR"]) as ws:
            own.ctl("fault", "unplugged", "on")
            self.assertEqual(own.lsctl("position")[0], 1)
            text, at = struct.unpack("<80sq8x", told(ws, ALARM))
            self.assertEqual(text.rstrip(b"\0"), b"GPS Communication (RX/TX) error")
            self.assertAlmostEqual(at, time.time(), delta=30)


unittest.main(argv=sys.argv[:1])
