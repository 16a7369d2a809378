#!/usr/bin/env python3
"""
Draws a sequence picture, SVG, from lines of text:

    tool | library | server         the columns, from left to right
    tool > library: BSAInit         an arrow with its label
    server ~ library: a block       a thick arrow: data
    = Store one object              a headline across the picture
    library: opens the log          a note beside a column

    docs/pictures/draw.py FILE...   writes FILE.svg beside each FILE.txt
"""
import html
import pathlib
import re
import sys

WIDTH, STEP, MARGIN = 210, 26, 110  # pixels: between columns, between lines, at the sides

STYLE = """<style>
text { font: 13px sans-serif; fill: #1b1f24; stroke: #fff; stroke-width: 4; paint-order: stroke }
.name { font-weight: bold }
.head { font-weight: bold; fill: #57606a } .note { fill: #57606a; font-style: italic }
rect { fill: #fff } line { stroke: #57606a } .life { stroke-dasharray: 3 4; stroke: #afb8c1 }
.data { stroke: #0969da; stroke-width: 4 } path { fill: #57606a } .block { fill: #0969da }
@media (prefers-color-scheme: dark) { rect { fill: #0d1117 } text { fill: #e6edf3; stroke: #0d1117 }
.head, .note { fill: #9198a1 } line { stroke: #9198a1 } .life { stroke: #3d444d }
.data { stroke: #4493f8 } path { fill: #9198a1 } .block { fill: #4493f8 } }
</style>
<defs><marker id="tip" markerUnits="userSpaceOnUse" markerWidth="10" markerHeight="8" refX="10"
refY="4" orient="auto"><path d="M0 0 10 4 0 8z"/></marker>
<marker id="block" markerUnits="userSpaceOnUse" markerWidth="12" markerHeight="12" refX="1"
refY="6" orient="auto"><path class="block" d="M0 0 12 6 0 12z"/></marker></defs>"""


def text(x, y, label, kind="", anchor="middle"):
    return f'<text x="{x}" y="{y}" class="{kind}" text-anchor="{anchor}">{html.escape(label)}</text>'


def arrow(line, columns, y):
    """The elements of one line of the text."""
    if line.startswith("="):
        return text(8, y, line[1:].strip(), "head", "start")
    if not (match := re.fullmatch(r"(.+?) ([>~]) (.+?): (.*)", line)):
        name, label = line.split(": ", 1)
        return text(columns[name] + 8, y, label, "note", "start")
    left, right = columns[match[1]], columns[match[3]]
    middle, kind, tip = (left + right) / 2, "", "tip"
    if match[2] == "~":  # the line ends where its wider tip begins
        kind, tip, right = "data", "block", right - (11 if left < right else -11)
    return (text(middle, y - 5, match[4]) + f'\n<line x1="{left}" y1="{y}" '
            f'x2="{right}" y2="{y}" class="{kind}" marker-end="url(#{tip})"/>')


def draw(source):
    head, *lines = [line for line in source.splitlines() if line.strip()]
    names = [name.strip() for name in head.split("|")]
    columns = {name: MARGIN + WIDTH * i for i, name in enumerate(names)}
    width, height = WIDTH * (len(names) - 1) + 2 * MARGIN, STEP * (len(lines) + 2)
    parts = [f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {width} {height}" '
             f'width="{width}">', STYLE, f'<rect width="{width}" height="{height}"/>']
    for name, x in columns.items():
        parts += [text(x, 20, name, "name"),
                  f'<line x1="{x}" y1="28" x2="{x}" y2="{height}" class="life"/>']
    parts += [arrow(line, columns, STEP * (i + 2)) for i, line in enumerate(lines)]
    return "\n".join(parts) + "\n</svg>\n"


for path in map(pathlib.Path, sys.argv[1:]):
    path.with_suffix(".svg").write_text(draw(path.read_text("utf-8")), "utf-8")
