"""lsctl status, doctor and wait: what they find besides the faults of tests/faults/matrix.py.

Usage: status_test.py SOURCE_DIR DAEMON SIMTERM LSCTL"""

import sys
import unittest

programs = dict(zip(("daemon", "simterm", "lsctl"), sys.argv[2:5]))
sys.dont_write_bytecode = True
sys.path[:0] = [f"{sys.argv[1]}/tests/support"]

from simulated_terminal import LIMIT_S, Terminal, wait_until  # noqa: E402


def started(*options):
    return Terminal(programs, "--no-services", *options).until_ready()


# Of the tests that leave it as it was. A position is in its log at level debug, and coded at level info.
terminal = started("--log-level", "debug", "--place", "-33.85678,-70.5,12.5")
unittest.addModuleCleanup(terminal.__exit__, None)


class StatusTest(unittest.TestCase):
    def expect_error(self, where, error, *statuses, **environment):
        """What the doctor, status and position end with, as far as told: the position long before its time is out."""
        for command, status in zip(("doctor", "status", f"position --timeout {10 * LIMIT_S}"), statuses):
            found, said = where.lsctl(*command.split(), **environment)
            self.assertEqual((found, said[0].get("error")), (status, error), command)

    def test_finds_what_is_wrong_with_files_and_processes(self):
        # Only the bytes of the place count, whose columns are fixed.
        (terminal.dir / "user/stub_location/stub_loc.gps").write_text("STATIC_LOCATION = ON\nsomewhere\n")
        wait_until(lambda: terminal.lsctl("status", "--quiet") == (1, []))
        self.expect_error(terminal, "static_no_place", 1, 1, 1)
        terminal.lsctl("static", "off")
        wait_until(lambda: terminal.lsctl("status", "--quiet") == (0, []))
        other = terminal.dir.parent / "other"
        other.write_text("no database")
        self.expect_error(terminal, "settings_damaged", 1, 1, DBHANDLER_FILE=str(other))
        self.assertEqual(other.read_text(), "no database")
        terminal.ctl("kill-daemon")
        self.expect_error(terminal, "no_daemon", 3, 3, 3)
        self.assertEqual(terminal.lsctl("wait", "--timeout", "0.3")[0], 3)
        terminal.ctl("start-daemon")
        terminal.until_ready()

    def test_receiver_off_is_said_long_before_the_timeout(self):
        with started("--power-status", "0") as own:
            self.expect_error(own, "receiver_off", 1, 1, 3)

    def test_gate_closed_until_the_static_location_opens_it(self):
        with started("--board", "2", "--antenna", "0") as own:
            self.expect_error(own, "gate_closed", 1, 1, 1)
            self.assertIn("this terminal has no GNSS antenna and no static location", own.lsctl("time")[1][0]["text"])
            for place in ([70.25, 11.5], [-1.5, -2]):
                own.lsctl("static", "on", *place)
                wait_until(lambda: list(own.lsctl("position")[1][0].values())[3:5] == place)
            self.expect_error(own, "ta_absent", 1, 1)
            own.lsctl("static", "off")
            wait_until(lambda: own.lsctl("position")[1][0].get("error") == "gate_closed")

    def test_packs_a_bundle_without_positions(self):
        scratch = terminal.dir.parent
        for command in ("position", "lpp", f"doctor --bundle {scratch}/one",
                        f"doctor --bundle {scratch}/all --with-positions"):
            self.assertEqual(terminal.lsctl(*command.split())[0], 0, command)
        one, both = (terminal.run("tar", "-xzOf", scratch / name).stdout for name in ("one", "all"))
        # In degrees, in minutes, coded, and as a step on the way to that; with so many digits none is a time of day.
        self.assertNotRegex(one, r"33\.8567|70\.5|3351\.406|07030\.0|3155680|176990225")
        self.assertIn("Location Service Version: ", one)
        self.assertIn("3351.406", both)
        self.assertEqual((scratch / "one").stat().st_mode & 0o7777, 0o600)
        status, said = terminal.lsctl("doctor", "--bundle", scratch / "one")
        self.assertTrue(status == 1 and "exists, and is not overwritten" in said[0]["text"], said)

    @unittest.skipIf("/emulated/" in programs["daemon"], "by what a process catches: that is the emulator's")
    def test_asks_nothing_before_the_service_is_ready(self):
        before = terminal.daemon()
        with terminal.background(programs["simterm"], "ctl", terminal.dir, "restart-daemon") as restart:
            wait_until(lambda: terminal.daemon() != before)
            status, said = terminal.lsctl("wait", "--for", "fix", "--timeout", "25")
            self.assertEqual((status, said[0].get("waited_for"), restart.wait(LIMIT_S)), (0, "fix", 0))
        start = terminal.log().rpartition("Location Service Version")[2]
        self.assertLess(start.index("Location Service initialization sucessful"),
                        start.index("Processing request message"))

        def is_too_bad():
            status, said = terminal.lsctl("wait", "--for", "accuracy=0.1", "--timeout", "0.9")
            return status == 1 and "the fix is not good enough" in said[0]["text"]

        wait_until(is_too_bad)


unittest.main(argv=sys.argv[:1])
