"""Draws plots of lines as SVG."""

import math

WIDTH, HEIGHT, EDGE = 420, 260, 52
COLOURS = ["#0b6e99", "#c4461f", "#4a8f29", "#7a4fa3", "#8a6d00"]


def number(value):
    """The text of a tick: 65535, 1 Ki, 16 Gi, 0.98."""
    for power, unit in ((30, " Gi"), (20, " Mi"), (10, " Ki")):
        if value >= 1 << power and value % (1 << power) == 0:
            return f"{value >> power}{unit}" if isinstance(value, int) else f"{value:g}"
    return f"{value:g}"


def scale(values, log, low, high):
    """Maps a value to a position between low and high."""
    first, last = min(values), max(values)
    if log:
        first, last = math.log10(first), math.log10(last)
    span = (last - first) or 1
    return lambda value: low + (((math.log10(value) if log else value) - first) / span) * (high - low)


def panel(left, top, title, lines, xticks, yticks, log=(True, False), limits=None):
    """
    One plot. lines: name to [(x, y), ...], or to [(x, y, low, high), ...] for bars of the spread.
    """
    ys = list(limits or []) + yticks
    place_x = scale(xticks, log[0], left + EDGE, left + WIDTH - 20)
    place_y = scale(ys, log[1], top + HEIGHT - 40, top + 30)
    out = [f'<text x="{left + EDGE}" y="{top + 18}" font-weight="bold">{title}</text>']
    for tick in yticks:
        y = place_y(tick)
        out.append(f'<line x1="{left + EDGE}" x2="{left + WIDTH - 20}" y1="{y:.1f}" y2="{y:.1f}"'
                   f' stroke="#ddd"/><text x="{left + EDGE - 6}" y="{y + 4:.1f}"'
                   f' text-anchor="end">{number(tick)}</text>')
    for tick in xticks:
        out.append(f'<text x="{place_x(tick):.1f}" y="{top + HEIGHT - 24}"'
                   f' text-anchor="middle">{number(tick)}</text>')
    for index, (name, points) in enumerate(lines.items()):
        colour = COLOURS[index % len(COLOURS)]
        path = " ".join(f"{place_x(p[0]):.1f},{place_y(p[1]):.1f}" for p in points)
        out.append(f'<polyline points="{path}" fill="none" stroke="{colour}" stroke-width="2"/>')
        for p in points:
            x, low, high = place_x(p[0]), place_y(p[-2] if len(p) > 2 else p[1]), place_y(p[-1])
            out.append(f'<circle cx="{x:.1f}" cy="{place_y(p[1]):.1f}" r="3" fill="{colour}"/>')
            if len(p) > 2:
                out.append(f'<line x1="{x:.1f}" x2="{x:.1f}" y1="{low:.1f}" y2="{high:.1f}"'
                           f' stroke="{colour}"/>')
        out.append(f'<text x="{left + EDGE + 8 + index * 120}" y="{top + HEIGHT - 6}"'
                   f' fill="{colour}">{name}</text>')
    return "\n".join(out)


def picture(panels, columns=2):
    """The whole picture; each panel is given as the arguments of panel() without its position."""
    rows = -(-len(panels) // columns)
    body = [panel((i % columns) * WIDTH, (i // columns) * HEIGHT, *arguments)
            for i, arguments in enumerate(panels)]
    return (f'<svg xmlns="http://www.w3.org/2000/svg" width="{columns * WIDTH}"'
            f' height="{rows * HEIGHT}" font-family="sans-serif" font-size="11">\n'
            '<rect width="100%" height="100%" fill="white"/>\n' + "\n".join(body) + "\n</svg>\n")
