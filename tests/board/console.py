#!/usr/bin/env python3
"""Runs the emulated board once: from power-on until it restarts, by when its console has said "board-end STATUS".

The console goes to stdout as it comes. Exit status: that STATUS; 3 after a restart without it; 4 after the time-out.
With --serial FILE someone sits behind the third serial port who never answers. FILE gets what he heard, a line each
time that the port had been silent for a second: SECONDS since power-on and the bytes in hexadecimal."""
import argparse
import os
import re
import socket
import subprocess
import sys
import threading
import time

parser = argparse.ArgumentParser(description=__doc__)
parser.add_argument("--directory", required=True, help="of vmlinuz, board.dtb and initrd.gz")
parser.add_argument("--card", required=True, help="SD card, its root file system; is written to")
parser.add_argument("--serial", help="what was heard at the third serial port")
parser.add_argument("--init", default="/sbin/init")
parser.add_argument("--timeout", type=float, required=True, help="seconds")
args = parser.parse_args()
here, port = args.directory, f"{args.directory}/port"
emulator = ["qemu-system-arm", "-M", "sabrelite", "-m", "1G", "-display", "none", "-no-reboot", "-monitor", "none",
            "-kernel", f"{here}/vmlinuz", "-dtb", f"{here}/board.dtb", "-initrd", f"{here}/initrd.gz",
            "-append", f"console=ttymxc1,115200 quiet panic=-1 init={args.init}",
            "-serial", "null", "-serial", "stdio", "-serial", f"unix:{port}",
            "-drive", f"file={args.card},format=raw,if=none,id=card,cache=unsafe", "-device", "sd-card,drive=card"]
start, heard = time.monotonic(), []


def hear(listener):
    last, connection = 0.0, listener.accept()[0]
    while data := connection.recv(65536):
        now = time.monotonic() - start
        if now - last > 1 or not heard:
            heard.append([now, b""])
        heard[-1][1] += data
        last = now


def console(board):
    """The status that it has said; 3 when it has not."""
    status, tail = 3, b""
    while data := os.read(board.stdout.fileno(), 65536):
        sys.stdout.buffer.write(data)
        sys.stdout.buffer.flush()
        tail = (tail + data)[-4096:]
        if found := re.search(rb"board-end (\d+)\s", tail):
            status = int(found[1])
        # The kernel's last words: all is written. What follows hangs, without a driver for the reset.
        if re.search(rb"reboot: Restarting system|Kernel panic", tail):
            return status
    return 4 if time.monotonic() - start > args.timeout else status


if os.path.exists(port):
    os.unlink(port)
with socket.create_server(port, family=socket.AF_UNIX) as listener:
    hearing = threading.Thread(target=hear, args=(listener,), daemon=True)
    hearing.start()
    board = subprocess.Popen(emulator, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE)
    limit = threading.Timer(args.timeout, board.kill)
    limit.start()
    try:
        status = console(board)
    finally:
        limit.cancel()
        board.kill()
        board.wait()
    hearing.join(1)  # without an emulator nobody came
if args.serial:
    with open(args.serial, "w", encoding="ascii") as file:
        file.writelines(f"{when:.2f} {data.hex()}\n" for when, data in heard)
sys.exit(status)
