"""The Python module and its examples against a simulated terminal.

Usage: python_client_test.py SOURCE_DIR DAEMON SIMTERM LSCTL
"""

import os
import pathlib
import signal
import socket
import struct
import subprocess
import sys
import threading
import time
import unittest
import xml.etree.ElementTree

source = pathlib.Path(sys.argv[1])
programs = dict(zip(("daemon", "simterm", "lsctl"), sys.argv[2:5]))
sys.dont_write_bytecode = True
sys.path[:0] = [str(source / "tests/support"), str(source / "client/python")]

import location_client as lc  # noqa: E402
from simulated_terminal import Terminal, wait_until  # noqa: E402


class Requests(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.terminal = Terminal(programs, "--place", "-33.85678,-70.5,12.5", "--history", "on", "--log-level", "debug",
                                "--history-interval", "1", "--no-services",
                                name="t" + "-" * 90)  # paths on its bus are too long for an address
        os.environ.update(cls.terminal.environment)
        cls.addClassCleanup(cls.terminal.__exit__, None)

    def test_records_are_those_of_lsctl(self):
        with lc.Client() as client:
            for ask, command in ((client.get_power, "power"), (client.get_position, "position"),
                                 (client.get_satellites, "satellites"), (client.get_speed, "speed"),
                                 (client.get_speed_record, "speed --raw"), (client.get_time, "time")):
                with self.subTest(command):  # each looks at a moment of its own: until they are of the same second
                    wait_until(lambda: ask().as_dict().items() <= self.terminal.lsctl(*command.split())[1][0].items())
            position = client.get_position()
            self.assertEqual((position.latitude_deg, position.longitude_deg), (-33.85678, -70.5))
        vtg = b"$GPVTG,77.52,T,,M,162.434,N,300.826,K,A*0"
        self.assertEqual(lc._records.speed(vtg + b"3\r\n", None), lc.Speed(None, 300.826, 83.563, 162.434, 77.52))
        self.assertIsNone(lc._records.speed(vtg + b"5\r\n", None))

    def test_commands_reach_the_receiver_and_a_notification_the_service(self):
        with lc.Client() as client:
            self.assertRegex(client.exec_nmea("PUBX,04"), rb"^\$PUBX,04,[^*]+\*[0-9A-F]{2}\r\n$")
            rate = lc.ubx_frame(6, 8)
            self.assertEqual(rate, bytes.fromhex("b56206080000 0e30"))
            answer = client.exec_ubx(rate)  # the rate, which start-up sets on board 1 alone, and an ACK
            self.assertEqual((answer[:6].hex(), answer[14:].hex()), ("b56206080600", "b562050102000608163f"))
            for wrong in (lambda: client.exec_nmea("PUBX*"), lambda: client.exec_ubx(rate[:-1]),
                          lambda: client.exec_ubx(lc.ubx_frame(6, 1, bytes(40))), lambda: client.set_power(3),
                          lambda: client.get_time(0), lambda: client.register_periodic(1, 3), client.get_lpp):
                self.assertRaises(lc.BadArgumentError, wrong)
            before = self.terminal.log().count("CONFIG_UPDATE")
            client.notify_history_settings()
        self.assertEqual(self.terminal.log().count("CONFIG_UPDATE"), before + 1)  # read before it left

    def test_updates(self):
        with lc.Client() as client:
            client.register_periodic(2, 4)
            self.assertRaises(lc.FailedError, client.register_periodic, 2, 4)
            self.assertEqual(client.next_update().latitude_deg, -33.85678)
            self.assertRaises(lc.NoReplyError, client.next_update, 0.01)
            self.assertEqual(client.poll_updates(), [])
            client.unregister_periodic()
            self.assertRaises(lc.FailedError, client.unregister_periodic)
        # One that was killed leaves its registration and its socket to the next of its id. The daemon must not send
        # to it any more: it keeps a header for each such send, a leak to the sanitizer.
        code = ("from location_client import *; c = Client(32); c.register_periodic(9, 600); c.next_update(); "
                "print('up'); input()")
        killed = subprocess.Popen([sys.executable, "-uc", code], stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                  env={**os.environ, "PYTHONPATH": str(source / "client/python")})
        self.assertEqual(killed.stdout.readline(), b"up\n")
        killed.send_signal(signal.SIGKILL)
        killed.communicate()
        with lc.Client(32) as client:
            self.assertEqual([update.fix_type for update in client.updates(4, 2)], ["3D"] * 2)
            next(client.updates(4))
        with lc.Client(32) as client:  # closing ended that one
            self.assertRaises(lc.FailedError, client.unregister_periodic)

    def test_examples(self):
        wait_until(lambda: "33.856780S,70.500000W" in self.terminal.run(programs["lsctl"], "history").stdout)
        out = {}
        for path in source.glob("examples/*.py"):
            self.assertLess(len(path.read_text().splitlines()), 60, path)
            done = self.terminal.run(sys.executable, path, *(("2", "4") if path.stem == "updates" else ()),
                                     PYTHONPATH=str(source / "client/python"))
            self.assertEqual(done.returncode, 0, done.stderr)
            out[path.stem] = done.stdout
        self.assertRegex(out["position"], r"^-33\.856780 -70\.500000 \+-\d+\.\d m, 12\.5 m high, 3D, 20")
        self.assertEqual(out["updates"].count('"latitude_deg": -33.85678'), 2)
        points = xml.etree.ElementTree.fromstring(out["history_gpx"])[0][0]
        self.assertEqual({(point.get("lat"), point.get("lon")) for point in points}, {("-33.856780", "-70.500000")})

    def test_lpp(self):
        with lc.Client(2) as client:
            found = client.get_lpp()
        self.assertEqual(self.terminal.lsctl("lpp"), (0, [found.as_dict()]))
        self.assertRegex(self.terminal.run(programs["lsctl"], "lpp").stdout,
                         r"^Latitude +33\.85\d* deg S \(.*\nLongitude +70\.[45]\d* deg W \(.*\nAccuracy +\d+ m vert")
        self.assertAlmostEqual(found.latitude_deg, -33.85678, 4)
        self.assertAlmostEqual(found.longitude_deg, -70.5, 4)

    def test_power_and_why_there_is_no_answer(self):
        with lc.Client() as tool, lc.Client(6) as ws:
            with self.assertRaises(lc.FailedError) as refused:
                tool.set_power(lc.PowerMode.OFF)
            self.assertEqual(refused.exception.power_mode, 2)
            self.assertFalse(ws.set_power(lc.PowerMode.OFF).receiver_on)
            start = time.monotonic()
            with self.assertRaises(lc.ReceiverOffError) as off:
                tool.get_position(60)
            self.assertEqual((off.exception.power_mode, off.exception.error), (0, "receiver_off"))
            self.assertLess(time.monotonic() - start, 30)
            self.assertTrue(ws.set_power(lc.PowerMode.ON).receiver_on)
            self.addCleanup(self.terminal.ctl, "fault", "silent", "off")
            self.terminal.ctl("fault", "silent", "on")
            self.assertRaises(lc.NoReplyError, tool.get_position, 0.1)
            self.assertRaises(lc.ReceiverTimeoutError, tool.get_position, 60)  # the history asks, too

    def test_a_peer_among_others(self):
        with lc.Client(45) as client, self.assertRaises(lc.IdTakenError):
            own = self.terminal.dir / "bus/45"
            self.assertEqual(own.stat().st_mode & 0o777, 0o660)
            child = os.fork()
            if child == 0:  # a copy that goes takes nothing with it
                client.close()
                os._exit(0)
            os.waitpid(child, 0)
            self.assertTrue(client.get_power().receiver_on and own.exists())
            lc.Client(45)
        lc.Client(45)  # nobody closed it: so it has left all the same
        self.assertFalse(own.exists())
        with lc.Client(45) as client:
            waiting = threading.Thread(target=lambda: self.assertRaises(lc.NoReplyError, client.next_update, 1))
            waiting.start()
            wait_until(client._reading.locked)
            self.assertRaises(RuntimeError, client.get_power)
            waiting.join()
        self.assertRaises(lc.BadArgumentError, client.get_power)  # closed

    @unittest.skipUnless(os.geteuid() == 0, "needs another user")
    def test_another_user_is_not_believed(self):
        with lc.Client(45) as client, self.assertLogs("location_client") as log:
            os.chmod(self.terminal.dir / "bus/45", 0o666)
            os.chmod(self.terminal.scratch.name, 0o755)
            child = os.fork()
            if child == 0:
                os.chdir(self.terminal.dir / "bus")
                os.setuid(65534)
                forged = struct.pack("<BBBBIIII", 2, 0, 8, 45, 1010, 1, 80, 0) + b"\1" + bytes(79)
                with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as forger:
                    forger.sendto(forged, "45")
                os._exit(0)
            self.assertEqual(os.waitpid(child, 0)[1], 0)
            self.assertEqual(client.poll_updates(), [])
        self.assertIn("belongs to another user", log.output[0])

    def test_nobody_there(self):
        for made, error in ((False, lc.NoBusError), (True, lc.NoDaemonError)):
            directory = self.terminal.dir / "other-bus"
            if made:
                directory.mkdir()
            with self.assertRaises(error):
                with lc.Client(directory=str(directory)) as client:
                    client.get_position()
        self.assertEqual(list(directory.iterdir()), [])


    def test_gate_closed(self):
        with Terminal(programs, "--board", "2", "--antenna", "0") as terminal:
            with lc.Client(directory=str(terminal.dir / "bus")) as client:
                for ask in (client.get_position, client.get_power, lambda: client.set_power(2)):
                    self.assertRaises(lc.GateClosedError, ask)


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
