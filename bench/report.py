#!/usr/bin/env python3
"""Turns bench/results/*.json into the table of docs/performance.md, the plots beside it, and ratios on the terminal."""
import glob
import json
import os
import statistics

HERE = os.path.dirname(os.path.abspath(__file__))
DOCS = os.path.join(os.path.dirname(HERE), "docs")
BEGIN, END = "<!-- figures: begin, written by bench/run -->", "<!-- figures: end -->"

# What the figures of a road are held against: the first of these that was measured in the same circumstances.
LIMITS = {"inbound": ["Paho"], "latency": ["Paho"], "publishing": ["Paho"], "start": ["Paho"],
          "http": ["bare POCO", "raw socket"], "logging": ["floor"], "crc": ["zlib"],
          "life": ["settled"]}
COUNTS = ["threads put to sleep"]  # figures of which a ratio says nothing
ORDER = ["Paho", "settled", "guarded", "library", "one copy", "floor", "bare POCO", "raw socket"]
COLOURS = {"settled": "#d1495b", "guarded": "#2e7d5b", "library": "#2e7d5b"}
GREYS = ["#30343f", "#8a8d91", "#b9bcc2", "#60656f", "#d5d7da"]
TITLES = {"inbound": "From the wire to a handler", "inbound growth": "As things grow", "latency": "Latency", "publishing": "Publishing",
          "http": "HTTP", "logging": "Logging", "crc": "CRC-32", "start": "Start",
          "life": "Recovery and end of a client", "periodic tasks": "Periodic tasks", "memory": "Memory"}


def read():
    """Road to its figures; a figure that stands alone has no x, a point of a curve has one."""
    roads = {}
    for path in sorted(glob.glob(os.path.join(HERE, "results", "*.json"))):
        with open(path, encoding="utf-8") as file:
            road = json.load(file)
        roads[road["road"]] = road["figures"]
    return roads


def rank(candidate):
    return ORDER.index(candidate) if candidate in ORDER else len(ORDER)


def median(entry):
    return statistics.median(entry["rounds"].values())


def ratios(entry, limit):
    """Of each round in which both were measured."""
    common = [turn for turn in entry["rounds"] if limit["rounds"].get(turn)]
    return [entry["rounds"][turn] / limit["rounds"][turn] for turn in common]


def groups(road, entries):
    """(figure, where, unit) to candidate to entry, with the limit's entry or None, in the order of measuring."""
    found = {}
    for entry in entries:
        if "x" not in entry and entry["figure"] not in ("ended early", "handled before the end"):
            found.setdefault((entry["figure"], entry["where"], entry["unit"]), {})[entry["candidate"]] = entry
    for key, by_name in found.items():
        limit = next((by_name[name] for name in LIMITS.get(road, []) if name in by_name), None)
        if key[0] in COUNTS:
            limit = None
        yield key, dict(sorted(by_name.items(), key=lambda item: rank(item[0]))), limit


def curves(entries):
    """(figure, where, unit) to candidate to its points."""
    found = {}
    for entry in entries:
        if "x" in entry:
            lines = found.setdefault((entry["figure"], entry["where"], entry["unit"]), {})
            lines.setdefault(entry["candidate"], []).append((entry["x"], entry))
    for lines in found.values():
        for points in lines.values():
            points.sort(key=lambda point: point[0])
    return found


def number(value):
    if value >= 1000:
        return f"{float(f'{value:.3g}'):,.0f}"
    return f"{value:.3g}"


def quantity(value, unit):
    for name, factor in (("MiB", 1 << 20), ("KiB", 1 << 10)):
        if unit == "bytes" and abs(value) >= factor:
            return f"{number(value / factor)} {name}"
    return f"{number(value)} {unit}"


def cell(entry, limit, unit):
    text = quantity(median(entry), unit)
    if limit is None or entry is limit:
        return text
    found = ratios(entry, limit)
    return f"{text}, **{statistics.median(found):.2f}**" if found else text


def tables(roads):
    text = []
    for road in sorted(roads, key=lambda name: list(TITLES).index(name) if name in TITLES else len(TITLES)):
        entries = roads[road]
        rows = list(groups(road, entries))
        ended = [entry for entry in entries if entry["figure"] == "ended early"]
        if rows:
            names = sorted({name for _, by_name, _ in rows for name in by_name},
                           key=lambda name: (rank(name), name))
            text += [f"### {TITLES.get(road, road.capitalize())}", "", "| | " + " | ".join(names) + " |",
                     "|---" * (len(names) + 1) + "|"]
            for (figure, where, unit), by_name, limit in rows:
                cells = [cell(by_name[name], limit, unit) if name in by_name else "" for name in names]
                text.append(f"| {figure}: {where} | " + " | ".join(cells) + " |")
            text.append("")
        lines = curves(entries)
        if lines:
            text += [f"### {TITLES.get(road, road)}" + (", growing" if rows else ""),
                     "", "| | at, and how much |", "|---|---|"]
            for (figure, where, unit), by_name in lines.items():
                for name, points in sorted(by_name.items(), key=lambda item: rank(item[0])):
                    some = points if len(points) <= 7 else points[::max(1, len(points) // 5)]
                    values = "; ".join(f"{number(x)}: {number(median(entry))}" for x, entry in some)
                    text.append(f"| {figure}, {where}, {name}, {unit} | {values} |")
            text.append("")
        if ended:
            runs = sum(len(entry["rounds"]) for entry in ended)
            early = [f"{entry['candidate']}, {entry['where']}: {met} of {len(entry['rounds'])}" for entry in ended
                     if (met := sum(value > 0 for value in entry["rounds"].values()))]
            text += [f"Runs that met the ending of a full pool, of {runs}: {'; '.join(early) or 'none'}.", ""]
    return "\n".join(text)


def colour(name, taken):
    return COLOURS.get(name) or GREYS[taken.setdefault(name, len(taken)) % len(GREYS)]


def plot_bars(pyplot, road, rows, path):
    """One bar for each candidate, its ratio to the limit, with the lowest and highest round; a picture a figure."""
    pictures = {}
    for (what, where, _), by_name, limit in rows:
        if limit is not None and len(by_name) > 1:
            pictures.setdefault(what, []).append((where, by_name, limit))
    if not pictures:
        return
    heights = [1.5 + sum(len(by_name) + 1 for _, by_name, _ in rows) for rows in pictures.values()]
    figure, grid = pyplot.subplots(len(pictures), 1, squeeze=False, figsize=(8, 0.15 * sum(heights) + 0.8),
                                   height_ratios=heights)
    taken = {}
    for axes, (what, rows) in zip(grid.flat, pictures.items()):
        place, ticks, shown = 0, [], []
        for where, by_name, limit in rows:
            begin = place
            for name, entry in by_name.items():
                found = ratios(entry, limit)
                if found:
                    middle = statistics.median(found)
                    shown.append(middle)
                    axes.barh(place, middle, height=0.9, color=colour(name, taken), label=name,
                              xerr=[[middle - min(found)], [max(found) - middle]],
                              error_kw={"lw": 0.8, "ecolor": "#00000090"})
                    place += 1
            ticks.append(((begin + place - 1) / 2, where))
            place += 1
        axes.set_yticks([tick for tick, _ in ticks], [label for _, label in ticks], fontsize=7)
        axes.tick_params(axis="x", labelsize=7)
        axes.invert_yaxis()
        axes.axvline(1, color="#00000080", lw=0.8, ls="--")
        if max(shown) > 15:
            axes.set_xscale("log")
        better = "more" if what.startswith(("rate", "lines")) else "less"
        axes.set_title(f"{what}, of the limit in the same round ({better} is better)", fontsize=8, loc="left")
        legend = dict(zip(*reversed(axes.get_legend_handles_labels())))
        axes.legend(legend.values(), legend.keys(), fontsize=6, loc="lower right")
    figure.suptitle(TITLES.get(road, road))
    figure.tight_layout()
    figure.savefig(path, metadata={"Date": None})
    pyplot.close(figure)


def plot_curves(pyplot, road, lines, path):
    columns = 2
    count = len(lines)
    figure, grid = pyplot.subplots((count + 1) // columns, columns, squeeze=False,
                                   figsize=(10, 3.1 * ((count + 1) // columns)))
    taken = {}
    for axes, ((what, where, unit), by_name) in zip(grid.flat, lines.items()):
        for name, points in sorted(by_name.items(), key=lambda item: rank(item[0])):
            abscissas = [x for x, _ in points]
            every = [sorted(entry["rounds"].values()) for _, entry in points]
            axes.plot(abscissas, [statistics.median(values) for values in every], "o-", ms=3,
                      color=colour(name, taken), label=name)
            axes.fill_between(abscissas, [values[0] for values in every], [values[-1] for values in every],
                              color=colour(name, taken), alpha=0.2)
        wide = [x for points in by_name.values() for x, _ in points]
        if max(wide) > 20 * max(min(wide), 1):
            axes.set_xscale("log")
            axes.set_yscale("log")
        else:
            axes.set_ylim(bottom=0)
        axes.set_title(f"{what}\n{where}", fontsize=8)
        axes.set_ylabel(unit, fontsize=7)
        axes.tick_params(labelsize=7)
        axes.legend(fontsize=7)
    for axes in list(grid.flat)[count:]:
        axes.axis("off")
    figure.suptitle(TITLES.get(road, road.capitalize()))
    figure.tight_layout()
    figure.savefig(path, metadata={"Date": None})
    pyplot.close(figure)


def plots(roads):
    try:
        import matplotlib
    except ImportError:
        print("no plots: python3-matplotlib is not installed")
        return
    matplotlib.use("svg")
    matplotlib.rcParams.update({"svg.hashsalt": "kro", "svg.fonttype": "none", "axes.spines.top": False,
                                "axes.spines.right": False})
    from matplotlib import pyplot
    directory = os.path.join(DOCS, "performance")
    os.makedirs(directory, exist_ok=True)
    for road, entries in roads.items():
        path = os.path.join(directory, road.replace(" ", "_"))
        plot_bars(pyplot, road, list(groups(road, entries)), path + ".svg")
        lines = curves(entries)
        if lines:
            plot_curves(pyplot, road, lines, path + ("" if road.endswith("growth") else "_growth") + ".svg")


def main():
    roads = read()
    page = os.path.join(DOCS, "performance.md")
    with open(page, encoding="utf-8") as file:
        text = file.read()
    head, rest = text.split(BEGIN)
    tail = rest.split(END)[1]
    with open(page, "w", encoding="utf-8") as file:
        file.write(f"{head}{BEGIN}\n\n{tables(roads)}\n{END}{tail}")
    plots(roads)
    for road, entries in roads.items():
        for (what, where, _), by_name, limit in groups(road, entries):
            if limit is not None:
                shown = [f"{name} {statistics.median(found):.2f}" for name, entry in by_name.items()
                         if entry is not limit and (found := ratios(entry, limit))]
                print(f"{road}, {what}, {where}: of {limit['candidate']}: {', '.join(shown)}")


if __name__ == "__main__":
    main()
