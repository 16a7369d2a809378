"""Collects the figures of a run, and writes them as tables into terminal and documentation."""

import os

from measure import ROOT

PAGE = os.path.join(ROOT, "docs", "performance.md")
PICTURE = os.path.join(ROOT, "docs", "pictures", "performance.svg")


def number(value):
    return f"{value:.3f}" if isinstance(value, float) and abs(value) < 10 else f"{value:,.0f}"


def text(value):
    """A cell: a summary, counts by name, a number or a text."""
    if isinstance(value, str):
        return value
    if not isinstance(value, dict):
        return number(value)
    if "median" in value:
        return f"{number(value['median'])} ({number(value['q1'])} to {number(value['q3'])})"
    return f"{sum(value.values()):g}: " + ", ".join(f"`{name}` {count:g}" for name, count in value.items())


def markdown(head, rows):
    rows = [head, *rows]
    widths = [max(map(len, column)) for column in zip(*rows)]
    lines = ["| " + " | ".join(map(str.ljust, row, widths)) + " |" for row in rows]
    return [lines[0], "|" + "|".join("-" * (width + 2) for width in widths) + "|", *lines[1:]]


class Table:
    """
    Parts of rows of cells. A cell may have a goal: at least this, or a pair of limits. show()
    prints new parts.
    """

    def __init__(self, parts=None):
        self.parts, self.shown, self.counts = parts or {}, 0, {}

    def row(self, part, name, cells, goals=None):
        self.parts.setdefault(part, {})[name] = {"cells": cells, "goals": goals or {}}

    def cell(self, part, name, column):
        return self.parts[part][name]["cells"][column]

    def show(self):
        for part in list(self.parts)[self.shown:]:
            print("\n".join(self.part(part)), flush=True)
        self.shown = len(self.parts)

    def part(self, part):
        rows = self.parts[part]
        columns = list(dict.fromkeys(column for row in rows.values() for column in row["cells"]))
        return ["", f"### {part}", "", *markdown(["case", *columns], [
            [name, *(text(row["cells"].get(column, "")) for column in columns)]
            for name, row in rows.items()])]

    def goals(self):
        """All rows with a goal, and the number of runs or pairs of each figure."""
        rows = []
        for part, names in self.parts.items():
            for name, row in names.items():
                for column, goal in row["goals"].items():
                    value = row["cells"][column]
                    low, high = goal if isinstance(goal, (list, tuple)) else (goal, float("inf"))
                    wanted = f"at least {low:g}" if high == float("inf") else f"{low:g} to {high:g}"
                    rows.append([part, f"{name}: {column}", wanted, text(value), str(value["runs"]),
                                 "yes" if low <= value["median"] <= high else "**no**"])
        return ["", "### Goals", "", *markdown(
            ["table", "case", "goal", "median (quartiles)", "runs", "met"], rows)] if rows else []


def replace(page, mark, lines):
    """The page with other lines between a mark and the next end."""
    before, start, rest = page.partition(f"<!-- {mark} -->\n")
    _, end, after = rest.partition("<!-- end -->\n")
    return "".join([before, start, *(line + "\n" for line in lines), end, after])


def publish(table, conditions, short):
    """Writes the tables of a run into the documentation."""
    with open(PAGE, encoding="utf-8") as file:
        page = file.read()
    page = replace(page, "short", ["", *short, ""])
    page = replace(page, "results", ["", *conditions, *table.goals(),
                                     *(line for part in table.parts for line in table.part(part)), ""])
    with open(PAGE, "w", encoding="utf-8") as file:
        file.write(page)
