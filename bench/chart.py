#!/usr/bin/python3
"""Draws docs/idle.svg: what one active descriptor costs among N idle ones, on each loop of bench/compare.

  bench/chart.py DIR    from the figures that script/bench --json DIR has left

bench/report.py calls this. The same figures give the same file. Debian's own interpreter is the one that has Debian's
matplotlib.
"""

import json
import os
import sys

PICTURE = "docs/idle.svg"
FAMILY = "active_descriptor/idle:"


def curves(result):
    """The points (idle descriptors, microseconds) of each loop."""
    found = {}
    for benchmark in result["benchmarks"]:
        if benchmark["run_name"].startswith(FAMILY):
            idle = int(benchmark["run_name"][len(FAMILY):].split("/")[0])
            for counter, value in benchmark.items():
                if counter.endswith("_ns"):
                    found.setdefault(counter[:-len("_ns")], []).append((idle, value / 1000))
    return found


def draw(points, path):
    try:
        import matplotlib
    except ImportError:
        print(f"{path}: left as it is, as Debian's python3-matplotlib is not installed")
        return
    matplotlib.use("svg")
    from matplotlib import pyplot
    # Text stays text, and neither names nor dates differ from run to run.
    matplotlib.rcParams.update({"svg.hashsalt": "zel", "svg.fonttype": "none", "font.family": "sans-serif"})
    figure, axes = pyplot.subplots(figsize=(8, 5))
    style = {"zel": {"linewidth": 3, "color": "black"}, "bare": {"linestyle": "--", "color": "grey"}}
    # Loops that ask about each descriptor in each turn leave the picture, or those that do not would lie on one line.
    highest = 2 * min(max(us for _, us in curve) for curve in points.values())
    for name in sorted(points, key=lambda name: (name != "zel", name != "bare", name.casefold())):
        curve = sorted(points[name])
        # What leaves the picture says where it ends.
        end = f" (to {curve[-1][1]:,.0f} µs)" if curve[-1][1] > highest else ""
        axes.plot(*zip(*curve), marker="o", markersize=4, label=name + end, **style.get(name, {}))
    axes.set_xscale("symlog", linthresh=16, linscale=0.5)
    axes.set_ylim(0, highest)
    ticks = sorted({idle for curve in points.values() for idle, _ in curve})
    axes.set_xticks(ticks, [f"{tick:,}" for tick in ticks])
    axes.set_xlabel("idle descriptors beside the active one")
    axes.set_ylabel("a byte written, waited for and read: µs")
    axes.set_title("Cost of one event among N idle descriptors")
    axes.grid(True, which="major", alpha=0.3)
    axes.legend(loc="lower right", ncols=2)
    figure.tight_layout()
    figure.savefig(path, metadata={"Date": None, "Creator": None})
    pyplot.close(figure)
    # matplotlib leaves blanks at the ends of lines.
    with open(path, encoding="utf-8") as file:
        lines = [line.rstrip() for line in file]
    with open(path, "w", encoding="utf-8") as file:
        file.write("\n".join(lines) + "\n")
    print(path)


def main():
    if len(sys.argv) != 2 or sys.argv[1].startswith("-"):
        raise SystemExit(__doc__)
    with open(os.path.join(sys.argv[1], "compare.json"), encoding="utf-8") as file:
        result = json.load(file)
    os.chdir(os.path.join(os.path.dirname(os.path.abspath(__file__)), ".."))
    points = curves(result)
    if points:
        draw(points, PICTURE)
    else:
        print(f"{PICTURE}: left as it is, as there are no figures of {FAMILY}N")


if __name__ == "__main__":
    main()
