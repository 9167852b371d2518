"""A program in a pseudo-terminal, and what its screen shows.

Knows the sequences that ncurses writes for TERM=xterm and TERM=vt100, no others; one that it does not know
is an error, so that a picture is never silently wrong.
"""

import fcntl
import os
import pty
import re
import select
import signal
import struct
import termios
import time

SEQUENCE = re.compile(r"\x1b(\[[0-?]*[ -/]*[@-~]|[()][0AB]|[=>78M])|(.)", re.S)


class Screen:
    """Rows of [character, style]; a style is a frozenset of SGR numbers."""

    def __init__(self, rows, columns):
        self.resize(rows, columns)
        self.alternate = self.shown_cursor = None  # None: never touched
        self.pending = ""
        self.inserting = False

    def resize(self, rows, columns):
        self.rows, self.columns = rows, columns
        self.row = self.column = 0
        self.style = frozenset()
        self.last = " "
        self.cells = [self.blank() for _ in range(rows)]

    def blank(self):
        return [[" ", frozenset()] for _ in range(self.columns)]

    def text(self):
        return "\n".join("".join(cell[0] for cell in row).rstrip() for row in self.cells)

    def feed(self, text):
        text = self.pending + text
        at = 0
        while at < len(text):
            found = SEQUENCE.match(text, at)
            if text[at] == "\x1b" and (found is None or found[1] is None):
                break  # the rest of it is still to come
            at = found.end()
            if found[1] is None:
                self.character(found[2])
            elif found[1][0] == "[":
                self.control(found[1][1:-1], found[1][-1])
        self.pending = text[at:]

    def character(self, c):
        if c == "\r":
            self.column = 0
        elif c == "\n":
            self.row = min(self.row + 1, self.rows - 1)
        elif c == "\b":
            self.column = max(self.column - 1, 0)
        elif c >= " ":
            if self.column < self.columns:
                if self.inserting:
                    self.cells[self.row].insert(self.column, None)
                    self.cells[self.row].pop()
                self.cells[self.row][self.column] = [c, self.style]
            self.column += 1
            self.last = c

    def control(self, parameters, final):
        if parameters[:1] == "?":
            if "1049" in parameters:
                self.alternate = final == "h"
            if "25" in parameters.split(";")[0]:
                self.shown_cursor = final == "h"
            return
        if parameters[:1] in (">", "!"):
            return
        numbers = [int(n or 0) for n in parameters.split(";")]
        count = max(numbers[0], 1)
        here = self.cells[self.row]
        if final == "H":
            self.row = min(count, self.rows) - 1
            self.column = min(max((numbers + [1])[1], 1), self.columns) - 1
        elif final == "d":
            self.row = min(count, self.rows) - 1
        elif final == "G":
            self.column = count - 1
        elif final in "ABCD":
            self.row += {"A": -count, "B": count}.get(final, 0)
            self.column += {"C": count, "D": -count}.get(final, 0)
        elif final == "J":
            start = 0 if numbers[0] == 2 else self.row + 1
            if numbers[0] == 0:
                here[self.column:] = self.blank()[self.column:]
            self.cells[start:] = [self.blank() for _ in range(self.rows - start)]
        elif final == "K":
            span = slice(0, self.column + 1) if numbers[0] == 1 else slice(self.column, None)
            here[span] = self.blank()[span]
        elif final == "X":
            span = slice(self.column, min(self.column + count, self.columns))
            here[span] = self.blank()[span]
        elif final == "P":
            here[self.column:] = (here[self.column + count:] + self.blank())[:self.columns - self.column]
        elif final == "@":
            here[self.column:] = (self.blank()[:count] + here[self.column:])[:self.columns - self.column]
        elif final in "LM":
            kept = self.cells[self.row:]
            new = [self.blank() for _ in range(count)]
            self.cells[self.row:] = (new + kept if final == "L" else kept[count:] + new)[:len(kept)]
        elif final == "b":
            for _ in range(count):
                self.character(self.last)
        elif final == "m":
            for number in numbers:
                if number == 0:
                    self.style = frozenset()
                elif number in (22, 27):
                    self.style -= {1, 2} if number == 22 else {7}
                elif number in (39, 49):
                    self.style = frozenset(n for n in self.style if n // 10 != number // 10)
                else:
                    self.style = frozenset(n for n in self.style if n // 10 != number // 10 or n < 10) | {number}
        elif final in "hl" and numbers == [4]:
            self.inserting = final == "h"
        elif final not in "rtlhn":
            raise ValueError(f"unknown sequence ESC [ {parameters} {final}")


class Terminal:
    """`command` in a pseudo-terminal of its own."""

    def __init__(self, command, rows=24, columns=80, term="xterm", **environment):
        self.screen = Screen(rows, columns)
        self.output = ""
        self.pid, self.fd = pty.fork()
        if self.pid == 0:
            os.environ.update(environment, TERM=term)
            self.set_size(0, rows, columns)
            os.execvp(command[0], command)

    @staticmethod
    def set_size(fd, rows, columns):
        fcntl.ioctl(fd, termios.TIOCSWINSZ, struct.pack("HHHH", rows, columns, 0, 0))

    def resize(self, rows, columns):
        self.screen.resize(rows, columns)
        self.set_size(self.fd, rows, columns)

    def type(self, text):
        os.write(self.fd, text.encode())

    def signal(self, number):
        os.kill(self.pid, number)

    def read(self, seconds):
        """Takes what comes for so long. False: the program has ended."""
        deadline = time.monotonic() + seconds
        while (left := deadline - time.monotonic()) > 0:
            if not select.select([self.fd], [], [], left)[0]:
                break
            try:
                data = os.read(self.fd, 65536).decode("ascii")
            except OSError:
                return False
            self.output += data
            self.screen.feed(data)
        return True

    def wait_for(self, pattern, seconds=60):
        """Until the screen's text has `pattern`; the match, or None."""
        deadline = time.monotonic() + seconds
        while True:
            running = self.read(0.1)
            found = re.search(pattern, self.screen.text())
            if found or not running or time.monotonic() > deadline:
                return found

    def end(self, seconds=30):
        """Waits for the end; the exit status as a shell tells it."""
        deadline = time.monotonic() + seconds
        while self.read(0.2) and time.monotonic() < deadline:
            pass
        if time.monotonic() >= deadline:
            os.kill(self.pid, signal.SIGKILL)
        status = os.waitstatus_to_exitcode(os.waitpid(self.pid, 0)[1])
        os.close(self.fd)
        return status if status >= 0 else 128 - status
