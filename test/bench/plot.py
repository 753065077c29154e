"""Draws the figures of a benchmark run as SVG: latency.svg and programming.svg.

    plot.py FIGURES.json FOLDER
"""
import json
import pathlib
import sys

import matplotlib

matplotlib.use("svg")
matplotlib.rcParams.update({"svg.hashsalt": "bios_daemon", "svg.fonttype": "none", "font.size": 9})
import matplotlib.pyplot as plt  # noqa: E402  (the backend is chosen before)

OURS = "#1b6ca8"
REFERENCE = "#b8b8b8"
LATENCY_ROWS = (1, 2)
PERCENTILE_ROW = 3
PROGRAMMING_ROWS = (6, 7, 8)
ROOM_FOR_NAMES = 40  # times the longest bar
STEPS_DRAWN = 500


def short(value):
    return f"{value:.0f}" if value >= 100 else f"{value:.3g}"


def subtitle(told):
    machine = told["machine"]
    return f'{machine["processor"]}, {machine["processors"]} processors, {told["date"]}'


def draw_pairs(axes, figures, unit):
    """Two bars for each figure: the compared value of both sides, with the spread as a line."""
    labels = []
    for place, figure in enumerate(figures):
        for side, offset, colour in (("reference", -0.2, REFERENCE), ("ours", 0.2, OURS)):
            measured = figure[side]
            value = measured["value"]
            spread = [[max(value - measured["least"], 0)], [max(measured["most"] - value, 0)]]
            axes.barh(place + offset, value, 0.38, color=colour, xerr=spread, error_kw={"linewidth": 0.8})
            axes.annotate(f'{measured["name"]} {short(value)}', (measured["most"], place + offset), (4, 0),
                          textcoords="offset points", va="center")
        labels.append(f'{figure["name"]}\n{figure["ratio"]:.3g}, goal {figure["goal"]:.3g}')
    axes.set_yticks(range(len(figures)), labels)
    axes.invert_yaxis()
    axes.set_xlabel(unit)
    axes.set_xscale("log")
    axes.set_xlim(right=axes.get_xlim()[1] * ROOM_FOR_NAMES)
    axes.spines[["top", "right"]].set_visible(False)


def draw_distribution(axes, figure):
    """Share of the requests that took at most so long, for both sides."""
    for side, colour in (("reference", REFERENCE), ("ours", OURS)):
        values = sorted(figure[side]["values"])
        places = sorted({round(step * (len(values) - 1) / STEPS_DRAWN) for step in range(STEPS_DRAWN + 1)})
        axes.step([values[place] for place in places], [(place + 1) / len(values) for place in places], color=colour,
                  label=f'{figure[side]["name"]}, {len(values)} requests')
        axes.axvline(figure[side]["p99"], color=colour, linestyle=":", linewidth=1)
    axes.set_xscale("log")
    axes.set_xlabel(f'{figure["unit"]}; dotted: p99')
    axes.set_title(figure["name"], loc="left", fontsize=9)
    axes.legend(frameon=False, loc="lower right")
    axes.spines[["top", "right"]].set_visible(False)


def of_rows(told, rows):
    return [figure for figure in told["figures"] if figure["row"] in rows and figure["reference"]]


def save(drawing, told, title, path):
    drawing.suptitle(f"{title}\n{subtitle(told)}", x=0.01, ha="left", fontsize=10)
    drawing.tight_layout()
    drawing.savefig(path, format="svg", metadata={"Date": None})


def main():
    told = json.loads(pathlib.Path(sys.argv[1]).read_text())
    folder = pathlib.Path(sys.argv[2])
    folder.mkdir(parents=True, exist_ok=True)

    latencies = of_rows(told, LATENCY_ROWS)
    distributions = of_rows(told, (PERCENTILE_ROW,))
    drawing, panels = plt.subplots(2, 1, figsize=(8, 6))
    draw_pairs(panels[0], latencies, latencies[0]["unit"])
    draw_distribution(panels[1], distributions[0])
    save(drawing, told, "Latency of requests, and what they are compared with", folder / "latency.svg")

    programming = of_rows(told, PROGRAMMING_ROWS)
    drawing, panel = plt.subplots(figsize=(8, 1.2 + 0.75 * len(programming)))
    draw_pairs(panel, programming, programming[0]["unit"])
    save(drawing, told, "Time to bring a flash to an image, and what it is compared with", folder / "programming.svg")


if __name__ == "__main__":
    main()
