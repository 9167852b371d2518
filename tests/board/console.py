#!/usr/bin/env python3
"""Runs the emulated board once: from power-on until it restarts, by when its console has said "board-end STATUS".

The console goes to stdout as it comes. Exit status: that STATUS; 3 after a restart without it; 4 after the time-out.
With --serial FILE someone sits behind the third serial port who never answers. FILE gets what he heard, a line each
time that the port had been silent for a second: SECONDS since power-on and the bytes in hexadecimal."""
import argparse
import os
import re
import selectors
import socket
import subprocess
import sys
import time


def arguments():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--directory", required=True, help="of vmlinuz, board.dtb and initrd.gz")
    parser.add_argument("--card", required=True, help="SD card, its root file system; is written to")
    parser.add_argument("--serial", help="what was heard at the third serial port")
    parser.add_argument("--init", default="/sbin/init")
    parser.add_argument("--timeout", type=float, required=True, help="seconds")
    return parser.parse_args()


def emulator(args, port):
    here = args.directory
    return ["qemu-system-arm", "-M", "sabrelite", "-m", "1G", "-display", "none", "-no-reboot", "-monitor", "none",
            "-kernel", f"{here}/vmlinuz", "-dtb", f"{here}/board.dtb", "-initrd", f"{here}/initrd.gz",
            "-append", f"console=ttymxc1,115200 quiet panic=-1 init={args.init}",
            "-serial", "null", "-serial", "stdio", "-serial", f"unix:{port}",
            "-drive", f"file={args.card},format=raw,if=none,id=card,cache=unsafe", "-device", "sd-card,drive=card"]


def run(args, listener, port):
    start = time.monotonic()
    board = subprocess.Popen(emulator(args, port), stdin=subprocess.DEVNULL, stdout=subprocess.PIPE)
    waiting = selectors.DefaultSelector()
    waiting.register(board.stdout, selectors.EVENT_READ)
    waiting.register(listener, selectors.EVENT_READ)
    tail, heard, last, status = b"", [], 0.0, 3
    try:
        while time.monotonic() - start < args.timeout:
            for key, _ in waiting.select(1):
                if key.fileobj is listener:
                    waiting.register(listener.accept()[0], selectors.EVENT_READ)
                    continue
                data = os.read(key.fd, 65536)
                now = time.monotonic() - start
                if key.fileobj is not board.stdout:
                    if not data:
                        waiting.unregister(key.fileobj)
                    elif now - last > 1 or not heard:
                        heard.append([now, data])
                    else:
                        heard[-1][1] += data
                    last = now
                    continue
                if not data:  # the emulator has ended
                    return status
                sys.stdout.buffer.write(data)
                sys.stdout.buffer.flush()
                tail = (tail + data)[-4096:]
                if found := re.search(rb"board-end (\d+)\s", tail):
                    status = int(found[1])
                # The kernel's last words: all is written. What follows hangs, without a driver for the reset.
                if re.search(rb"reboot: Restarting system|Kernel panic", tail):
                    return status
        return 4
    finally:
        board.kill()
        board.wait()
        if args.serial:
            with open(args.serial, "w", encoding="ascii") as file:
                file.writelines(f"{when:.2f} {data.hex()}\n" for when, data in heard)


def main():
    args = arguments()
    port = f"{args.directory}/port"
    if os.path.exists(port):
        os.unlink(port)
    with socket.socket(socket.AF_UNIX) as listener:
        listener.bind(port)
        listener.listen(1)
        return run(args, listener, port)


sys.exit(main())
