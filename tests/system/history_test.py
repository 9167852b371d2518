"""The location history as people use it: recorded on a terminal, exported, read by programs that are not this
project's own; a disk that is full meanwhile.

Usage: history_test.py SOURCE_DIR DAEMON SIMTERM LSCTL
"""
import shutil
import struct
import sys

programs = dict(zip(("daemon", "simterm", "lsctl"), sys.argv[2:5]))
sys.dont_write_bytecode = True
sys.path.insert(0, sys.argv[1] + "/tests/support")

from simulated_terminal import Terminal, wait_until  # noqa: E402

# Five lines: two, a pause, two across the antimeridian, one without a place; and a cut one.
EXPORT = """+2.25m,08
2019-02-05 10:51:05,2D,17.100000S,179.900000E,+2.25m,08
2019-02-05 10:51:10,2D,17.110000S,179.950000E,+2.25m,08
2019-02-05 11:51:05,2D,17.120000S,179.990000E,+2.25m,08
2019-02-05 11:51:10,2D,17.130000S,179.990000W,+2.25m,12
2019-02-05 11:51:15,ER,0.000000X,0.000000Y,+0.00m,00
"""
PLACES = "-17.10000, 179.90000", "-17.11000, 179.95000", "-17.12000, 179.99000", "-17.13000, -179.99000"
LINE = b"2019-02-05 10:51:05,2D,70.132317N,11.516667E,+2.25m,08\n"
RING = struct.pack("<II", 8, 8 + 74 * len(LINE)) + 74 * LINE  # the next one needs a page more


def output_of(*command):
    done = terminal.run(*command, TZ="UTC0")
    assert done.returncode == 0, done.stderr
    return done.stdout


for program, package in ("gpsbabel", "gpsbabel"), ("xmllint", "libxml2-utils"):
    assert shutil.which(program), f"apt-get install {package}"
with Terminal(programs, "--no-services", "--place", "47.5,8.25") as terminal:
    history, out = terminal.dir / "export.txt", terminal.dir / "out"
    # KML and GeoJSON have two points more, where the track is cut, and KML its two marks.
    for form, points in ("gpx", 4), ("kml", 8), ("geojson", 6), ("svg", 0):
        for text in EXPORT, "":
            history.write_text(text)
            output_of(programs["lsctl"], "history", "--input", history, "--format", form, "-o", out)
            if form != "geojson":
                output_of("xmllint", "--noout", "--nonet", out)
            if form != "svg":
                kind = "-r" if form == "geojson" else "-t"
                read = output_of("gpsbabel", kind, "-i", form, "-f", out, "-o", "csv", "-F", "-")
                assert read.count("\n") == (points if text else 0), (form, read)
                assert not text or all(place in read for place in PLACES), (form, read)

    disk = terminal.dir / "user/location"
    if terminal.run("mount", "-t", "tmpfs", "-o", "size=64k", "tmpfs", disk).returncode == 0:
        try:
            (disk / "location_history").write_bytes(RING)
            assert terminal.run("sh", "-c", 'cat /dev/zero >"$0"', disk / "filler").returncode != 0, "it fits"
            assert terminal.lsctl("settings", "--history", "on", "--interval", "1")[0] == 0
            wait_until(lambda: terminal.log().count("LH: ls_write_to_file, ") >= 2)
            assert terminal.lsctl("position")[0] == 0
            assert terminal.lsctl("history")[0] == 1, "no room for the export"
            (disk / "filler").unlink()
            wait_until(lambda: terminal.run(programs["lsctl"], "history").stdout.count("\n") >= 76)
        finally:
            output_of("umount", "-l", disk)
    else:
        print("Not tested: a full disk. To mount a small tmpfs needs root.")
