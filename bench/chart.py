"""Draws the picture of the published results."""

import matplotlib
from matplotlib import pyplot

COLOURS = ["#2f81f7", "#db6d28"]  # these and the grey are readable on white and on black
GREY = "#7d8590"
STYLE = {"svg.hashsalt": "performance", "svg.fonttype": "none", "font.sans-serif": ["DejaVu Sans"],
         "font.size": 9, "axes.titlesize": 10, "legend.frameon": False,
         "axes.spines.top": False, "axes.spines.right": False,
         **dict.fromkeys(["text.color", "axes.labelcolor", "axes.edgecolor", "xtick.color", "ytick.color"],
                         GREY)}


def unit(value, _=None):
    """The text at a power of two: 512, 64 Ki, 16 Gi."""
    for power, name in ((30, " Gi"), (20, " Mi"), (10, " Ki")):
        if value >= 1 << power:
            return f"{value / (1 << power):g}{name}"
    return f"{value:g}"


def speeds(axes, lines):
    """lines: name to [(block, summary), ...], drawn as medians with bars from quartile to quartile."""
    for (name, points), colour in zip(lines.items(), COLOURS):
        blocks, found = zip(*((f"{block:,}", value) for block, value in points))
        middle = [value["median"] for value in found]
        bars = [[value["median"] - value["q1"] for value in found],
                [value["q3"] - value["median"] for value in found]]
        axes.errorbar(blocks, middle, bars, color=colour, marker="o", markersize=4, capsize=3, label=name)
    axes.axhline(1, color=GREY, linewidth=0.7, linestyle=":")
    axes.set(title="Speed: bare send() and recv() = 1", xlabel="bytes per block")
    low, high = axes.get_ylim()
    axes.set_ylim(min(low, 0.8), max(high, 1.2)) # so that a percent does not look like a lot
    axes.legend()


def growth(axes, title, label, points):
    """points: [(amount, seconds, KiB), ...]; time and memory on two scales."""
    amounts, seconds, memory = zip(*points)
    axes.loglog(amounts, seconds, color=COLOURS[0], marker="o", markersize=4, label="seconds (left)")
    other = axes.twinx()
    other.plot(amounts, memory, color=COLOURS[1], marker="o", markersize=4, label="KiB of memory (right)")
    other.set_ylim(0, 512)
    axes.minorticks_off()
    axes.set(title=title, xlabel=label)
    handles = [axis.get_legend_handles_labels() for axis in (axes, other)]
    axes.legend(handles[0][0] + handles[1][0], handles[0][1] + handles[1][1], loc="upper left")
    if label == "bytes":
        axes.set_xscale("log", base=2)
        axes.xaxis.set_major_formatter(unit)


def picture(path, lines, sizes, counts):
    """Writes the picture as SVG; the same figures yield the same file."""
    matplotlib.use("svg")
    with matplotlib.rc_context(STYLE):
        figure, axes = pyplot.subplots(1, 3, figsize=(12, 3.6), layout="constrained")
        speeds(axes[0], lines)
        growth(axes[1], "Growth with the size of an object", "bytes", sizes)
        growth(axes[2], "Growth with the number of objects", "objects of 1 KiB", counts)
        figure.savefig(path, transparent=True, metadata={"Date": None, "Creator": None})
