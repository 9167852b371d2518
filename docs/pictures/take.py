"""The screen of lsctl monitor as SVG. Run by docs/pictures.sh inside a simulated terminal.

Usage: take.py DIR OUTPUT   (DIR of the simulated terminal; OUTPUT: the SVG file)
"""

import subprocess
import sys
from itertools import groupby
from xml.sax.saxutils import escape

from terminal_screen import Terminal

directory, output = sys.argv[1:3]
WIDTH, HEIGHT, MARGIN = 8, 17, 10  # of a character; around the screen
INK, PAPER = "#d8d8d8", "#16191d"
COLOURS = {31: "#ff6b5e", 32: "#6fd08c", 33: "#e5c05c"}


def svg(screen):
    width, height = screen.columns * WIDTH + 2 * MARGIN, screen.rows * HEIGHT + 2 * MARGIN
    parts = [f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {width} {height}" width="{width}" height="{height}">',
             f'<rect width="{width}" height="{height}" rx="6" fill="{PAPER}"/>',
             f'<g font-family="DejaVu Sans Mono,Menlo,Consolas,monospace" font-size="13" fill="{INK}">']
    for row, cells in enumerate(screen.cells):
        y, column = MARGIN + row * HEIGHT, 0
        for style, run in groupby(cells, key=lambda cell: cell[1]):
            text = "".join(cell[0] for cell in run)
            x, length = MARGIN + column * WIDTH, len(text) * WIDTH
            column += len(text)
            if 7 in style:
                parts.append(f'<rect x="{x}" y="{y}" width="{length}" height="{HEIGHT}" fill="{INK}"/>')
            start = len(text) - len(text.lstrip())
            shown = text.strip()
            if shown:
                colour = PAPER if 7 in style else next((COLOURS[n] for n in style if n in COLOURS), None)
                look = (f' fill="{colour}"' if colour else "") + (' font-weight="bold"' if 1 in style else "") + \
                    (' opacity=".5"' if 2 in style else "")
                parts.append(f'<text xml:space="preserve" x="{x + start * WIDTH}" y="{y + 13}" '
                             f'textLength="{len(shown) * WIDTH}"{look}>{escape(shown)}</text>')
    return "\n".join(parts + ["</g>", "</svg>", ""])


def fault(state):
    subprocess.run(["simterm", "ctl", directory, "fault", "no-fix", state], check=True)


# A drive of two minutes, with a loss of the fix on the way, so that every part has something to show.
view = Terminal(["lsctl", "monitor"], term="xterm-256color", LC_ALL="C")
view.read(60)
fault("on")
view.read(12)
fault("off")
view.read(60)
if not view.wait_for(r"(?s)Speed \d.*\d\d\*"):
    sys.exit("the monitor shows no drive:\n" + view.screen.text())
with open(output, "w", encoding="ascii") as file:
    file.write(svg(view.screen))
view.type("q")
sys.exit(view.end())
