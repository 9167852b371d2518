"""What the daemon must stand from libraries it has never met.

Usage: foreign_test.py DAEMON LIBRARIES [CLASS[.TEST]...], with the daemon's sanitizers in LS_SANITIZE"""

import contextlib
import os
import re
import resource
import signal
import struct
import sys
import threading
import time
import unittest

from bench import CLIENT, DAEMON, GET_POWER, HISTORY_CHANGED, NOTIFICATION, SET_POWER, WS, Bench, nmea, running
from location_client import ubx_frame
from simulated_terminal import wait_until

SIGNALS = 50
BURST = 20
POWER_OFF, POWER_ON, POWER_IS_ON = bytes(4), struct.pack("<I", 2), struct.pack("<II", 1, 2)
TO_TA, ALARM = "^send 0 1416 ", "^send 2 810 "


class Platform(unittest.TestCase):
    """Their signals, their stacks, their threads."""

    @unittest.skipIf("/emulated/" in DAEMON, "the numbers of an emulated program's real-time signals are others here")
    def test_signals_of_a_library_reach_it_and_the_daemon_blocks_only_its_own(self):
        own = sum(1 << number - 1 for number in (
            signal.SIGTERM, signal.SIGHUP, signal.SIGTSTP, *(signal.SIGRTMIN + offset for offset in (1, 10, 11, 12))))
        for place, name in ((1, "rtc_init_timers"), (2, "scm_conn_init")):
            with self.subTest(name), running(own_signals=place) as bench:
                state = bench.state
                self.assertEqual(hex(state.born_mask[place]), hex(own))
                for _ in range(SIGNALS):
                    bench.daemon.send_signal(signal.SIGRTMIN + 5)
                    time.sleep(0.002)
                bench.daemon.send_signal(signal.SIGIO)
                wait_until(lambda: not bench.reader.is_alive() or (
                    state.signals_taken, state.sigio_taken) == (SIGNALS, 1))
                self.assertEqual(bench.ask("A"), nmea("A"))

    def test_a_change_that_the_kernel_cannot_queue_is_still_read(self):
        with running() as bench:
            resource.prlimit(bench.daemon.pid, resource.RLIMIT_SIGPENDING, (0, 0))  # the kernel sends SIGIO instead
            bench.write_static_location("ON")
            bench.see("static location is ON")

    @unittest.skipIf("thread" in os.environ.get("LS_SANITIZE", ""), "it keeps its record of a thread on the stack")
    def test_every_thread_carries_a_librarys_stack(self):
        with running(stack_frames=5) as bench:  # as of two messages, log lines and records of settings in each other
            self.assertEqual(bench.reply(bench.deliver(GET_POWER)), POWER_IS_ON)
            self.assertEqual(bench.ask("A"), nmea("A"))
            self.assertEqual(bench.reply(bench.deliver(SET_POWER, WS, POWER_ON)), POWER_IS_ON)
            before = len(bench.events)
            bench.write_static_location("OF")
            bench.see("static location is OFF", before)

    def test_changed_history_settings_are_applied_in_the_callback(self):
        with running() as bench:
            before = last = len(bench.events)
            for _ in range(BURST):
                bench.deliver(HISTORY_CHANGED, WS, kind=NOTIFICATION)
            for _ in range(BURST):
                last = bench.see("call on_message returned", last) + 1
            events = bench.events[before:]
            self.assertEqual([event.line for event in events if event.line.startswith("call ")], BURST * [
                "call on_message 808", "call pm_system_state_disable", "call db_read_location_history_settings",
                "call pm_system_state_enable", "call on_message returned"])
            self.assertEqual(len({event.thread for event in events}), 1)

    def test_deletion_of_a_timer_whose_callback_waits_for_the_ta(self):
        for waits, name in enumerate(("returns at once", "waits for the callback")):
            with self.subTest(name), running(history=1, deletion_waits=waits, ta_silent=True) as bench:
                asked = bench.see(TO_TA)
                bench.deliver(HISTORY_CHANGED, WS, kind=NOTIFICATION)
                applied = bench.see("call on_message returned", asked)
                if waits:  # it ends by its wait time
                    self.assertLess(bench.see("semaphore timed out", asked), applied)
                bench.ta_silent = False
                bench.answer_ta(nmea("GPGPQ,GGA"))  # through the thread that deletes the timer, or late
                if not waits:  # the acquisition is not disturbed
                    bench.see(TO_TA, applied)
                    self.assertEqual(bench.count("semaphore timed out"), 0)
                bench.see("call timer callback returned", asked)
                self.assertEqual(bench.ask("A"), nmea("A"))


class Line(Bench):
    """With the receiver on its serial line: it answers neither what sets rates and protocols nor, `mute`, any frame."""

    def __init__(self, mute=False, **state):
        super().__init__(board=1, **state)
        self.mute, self.commands = mute, []
        self.line, self.far_end = os.openpty()
        (self.dir / "dev/ttymxc2").symlink_to(os.ttyname(self.far_end))
        threading.Thread(target=self.serve_line, daemon=True).start()

    def __exit__(self, *failure):
        super().__exit__(*failure)
        os.close(self.far_end)

    def serve_line(self):
        pending, command = b"", rb"(?s)\xb5b.*?(?=\xb5b|\$[A-Z]{4}|\Z)|\$[^\n]*\n"  # a frame comes as a whole
        with contextlib.suppress(OSError):  # the far end is closed
            while True:
                pending += os.read(self.line, 1024)
                for received in re.findall(command, pending):
                    self.commands.append(received)
                    os.write(self.line, self.answer_on_line(received))
                pending = re.sub(command, b"", pending)

    def answer_on_line(self, command):
        if command[:1] == b"\xb5":
            return b"" if self.mute else ubx_frame(5, 1, command[2:4])
        return b"" if command.startswith(b"$PUBX,4") else command


class Exchange(unittest.TestCase):
    """Who gets which answer, under libraries that call back from several threads."""

    def test_sixty_four_clients_at_once_each_get_their_own(self):
        with running(history=1, callback_threads=3, ta_delay_s=0.02) as bench:
            bench.see("call timer callback")
            clients = {bench.deliver_command(f"CLIENT{i}", CLIENT + i): i for i in range(64)}
            for transaction, i in clients.items():
                self.assertEqual(bench.answer(transaction), nmea(f"CLIENT{i}"))
                self.assertEqual(bench.count(f"^send 1 1011 to {CLIENT + i} in {transaction}$"), 1)
            # Of the exchanges each ends before the next.
            turns = [event.line[:4] for event in bench.events if re.search(f"{TO_TA}|call on_message 1416", event.line)]
            self.assertEqual(turns, (["send", "call"] * len(turns))[:len(turns)])
            self.assertEqual(bench.count("LH: Invalid|timed out"), 0)

    def test_requests_wait_until_the_receiver_is_configured(self):
        bench = Line(init_ms=300)
        requests, asked = {bench.deliver_command("EARLY"): "EARLY"}, time.monotonic()  # before the line is open
        with bench:
            bench.see("Disabling GGA")
            requests[bench.deliver_command("AMIDST")] = "AMIDST"
            configured, took_s = bench.see("GPS device Powered ON"), time.monotonic() - asked
            for transaction, body in requests.items():
                self.assertEqual(bench.answer(transaction), nmea(body))
            if took_s < 3:  # longer, on a machine that is very busy, they do not wait
                self.assertGreater(bench.see("^send 1 "), configured)
            self.assertEqual(len(bench.commands), 10 + 6 + 2)  # no frame had to be repeated
            self.assertEqual(bench.count(ALARM), 0)
            bench.see("call rtc_reinit")
            self.assertEqual(bench.end(), 0)

    def test_requests_wait_three_seconds_at_most(self):
        with Line(mute=True) as bench:  # whose configuration takes more than a minute
            bench.see("Configure the measurement rate")
            asked = time.monotonic()
            bench.reply(bench.deliver_command("A"))
            self.assertGreaterEqual(time.monotonic() - asked, 2.9)
            self.assertEqual(bench.count(f"GPS device Powered ON|{ALARM}"), 0)


class Stop(unittest.TestCase):
    """The end of the daemon while somebody is inside a library."""

    def test_waits_for_a_change_of_power_and_its_reply_inside_the_bus(self):
        with running() as bench:
            bench.state.store_ms = bench.state.send_ms = 400
            bench.deliver(SET_POWER, WS, POWER_OFF)
            bench.see("call db_set_gps_power_on_status")
            self.assertEqual(bench.end(), 0)
            self.assertEqual(bench.count("send_msg returns 1002"), 1)
            self.assertEqual(bench.count("call unload"), 1)

    def test_leaves_the_connection_to_a_timers_callback(self):
        with running(history=1, deletion_ms=1500) as bench:  # rtc_exit does not wait: it is the callback's to the end
            bench.state.send_ms = 900
            bench.see(TO_TA)
            bench.daemon.terminate()
            bench.see("Signal handler called")
            bench.deliver(GET_POWER)
            bench.see("call on_message 1001")
            self.assertEqual(bench.end(), 0)
            self.assertGreaterEqual(bench.count("send_msg returns 1416"), 1)
            self.assertEqual(bench.count("^send 1 1001 "), 0)  # too late to be served

    def test_that_is_asked_for_before_the_main_loop_runs_comes(self):
        with Bench(reinit_ms=500) as bench:
            bench.see("call rtc_reinit")
            self.assertEqual(bench.end(), 0)

    def test_does_not_wait_for_ever_and_says_so(self):
        with running() as bench:
            bench.state.send_ms = 20000
            bench.deliver(GET_POWER)
            bench.see("^send 1 1001 ")
            before = time.monotonic()
            self.assertEqual(bench.end(), 0)
            self.assertLess(time.monotonic() - before, 15)
            self.assertEqual(bench.count("call unload"), 0)  # somebody is inside
            # Without a history its own line is there at every end.
            ending = bench.see("Signal handler called")
            self.assertGreater(bench.count("^log [0-4] (?!.*g_timer_id found 0)", ending), 0)


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1] + sys.argv[3:])
