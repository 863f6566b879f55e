"""Measures KQZip against its rivals and against what the machine allows, and prints one table in Markdown.

Scripts/bench builds what is needed and calls this. A program is a black box, and each is checked once to do the whole
work. All figures of a row come from the same data in one go: medians of rounds in which every program runs once, or
counts, which no noise touches. Every program reads the archives that it meets in practice: KQZip and the raw limit
those of KQZip, the others those of zip or of Python's zipfile. Ratios below 1 mean that KQZip takes less.
"""
import argparse
import json
import signal
import sys
import tempfile
import time

import growth
import machine
from programs import LIMIT, OURS, RIVALS, ROOT
from rows import MIB, QUICK, ROWS, Sizes


GROWTH = str(ROOT / "Documentation" / "Growth.svg")


def parse_arguments():
    parser = argparse.ArgumentParser(prog="Scripts/bench", description="Measures KQZip; see the top of Scripts/bench.")
    parser.add_argument("names", metavar="ROW", nargs="*", help="what to measure; everything unless given")
    parser.add_argument("--rows", action="store_true", help="print the names of the rows")
    parser.add_argument("--quick", action="store_true", help="little data, to see whether it works")
    parser.add_argument("--plot", nargs="?", metavar="FILE", const=GROWTH, help="draw how time grows")
    parser.add_argument("--rounds", type=int, help="runs of each program, 5 unless given")
    parser.add_argument("--json", metavar="FILE", help="write the figures there too")
    parser.add_argument("--folder", help="where the data lies, /dev/shm unless given")
    arguments = parser.parse_args()
    unknown = set(arguments.names) - {row.name for row in ROWS}
    if unknown:
        parser.error(f"no row named {', '.join(sorted(unknown))}; --rows names them all")
    return arguments


# The table


def formatted(value, unit):
    if unit == "s":
        return f"{value:.3f} s" if value >= 0.1 else f"{1000 * value:.2f} ms"
    if unit == "MiB":
        return f"{value / MIB:.1f} MiB"
    if unit == "B":
        return f"{value:,.0f} B"
    return f"{value:,.0f}" if value >= 1000 else f"{value:.1f}" if value >= 10 else f"{value:.3f}"


def title(row, sizes):
    large = f"{sizes.large // MIB} MiB" if sizes.large < 1024 * MIB else f"{sizes.large // (1024 * MIB)} GiB"
    numbers = {name: f"{getattr(sizes, name):,}" for name in ("files", "folders", "listed", "spread", "remembered")}
    return row.title.format(large=large, **numbers)


def ratios(row, result):
    """KQZip's time as a part of the fastest rival's and of the raw limit's, where there are such."""
    if row.unit != "s":
        return None, None
    ours = result.figures[OURS]
    rivals = [result.figures[name] for name in RIVALS if name in result.figures]
    limit = result.figures.get(LIMIT)
    return (ours / min(rivals) if rivals else None, ours / limit if limit else None)


def judge(row, result):
    """The targets as text, and whether all of them are met; nothing for a row without a target."""
    of_rival, of_limit = ratios(row, result)
    ours = result.figures[OURS]
    targets = [
        (row.of_rival, of_rival, lambda target: f"≤ {target:g} of the fastest rival"),
        (row.of_limit, of_limit, lambda target: f"≤ {target:g} of the raw limit"),
        (row.at_most, ours, lambda target: f"≤ {target / MIB:g} MiB" if row.unit == "MiB" else f"≤ {target:g} {row.unit}"),
        (row.of_reference, result.reference and ours / result.reference,
         lambda target: f"≤ {target:g} of the same list with 16 bytes ({formatted(result.reference, row.unit)}: "
                        f"{ours / result.reference:.2f})"),
    ]
    wanted = [(target, figure, text) for target, figure, text in targets if target is not None]
    if not wanted:
        return "", ""
    met = all(figure <= target for target, figure, _ in wanted)
    return ", ".join(text(target).strip() for target, _, text in wanted), "met" if met else "**not met**"


def cells(row, result, sizes):
    columns = [OURS, *RIVALS, LIMIT]
    figures = [formatted(result.figures[name], row.unit) if name in result.figures else "" for name in columns]
    parts = ["" if ratio is None else f"{ratio:.2f}" for ratio in ratios(row, result)]
    return [title(row, sizes), *figures, *parts, *judge(row, result)]


def table(results, sizes):
    head = ["", OURS, *RIVALS, LIMIT, "of the fastest rival", "of the raw limit", "target", ""]
    lines = [head, ["---"] + ["---:"] * (len(head) - 3) + ["---", "---"]]
    lines += [cells(row, result, sizes) for row, result in results]
    return "\n".join("| " + " | ".join(line) + " |" for line in lines)


# The run


def measure(row, parent, sizes, rounds):
    with tempfile.TemporaryDirectory(dir=parent) as folder:
        started = time.monotonic()
        result = row.measure(folder, sizes, rounds)
    verdict = " ".join(judge(row, result))
    print(f"{row.name}: {formatted(result.figures[OURS], row.unit)} {verdict} ({time.monotonic() - started:.0f} s)",
          file=sys.stderr)
    return result


def print_table(arguments):
    sizes = QUICK if arguments.quick else Sizes()
    rounds = arguments.rounds or (1 if arguments.quick else 5)
    rows = [row for row in ROWS if not arguments.names or row.name in arguments.names]
    parent = machine.choose_folder(arguments.folder, max(row.space(sizes) for row in rows))
    with tempfile.TemporaryDirectory(prefix="kqzip-bench-", dir=parent) as folder:
        results = [(row, measure(row, folder, sizes, rounds)) for row in rows]
    print(table(results, sizes))
    print()
    print(f"{machine.description(parent)}; times are medians of {rounds} alternating runs.")
    if arguments.quick:
        print("A quick run: what is met here says nothing.")
    return {row.name: {"figures": result.figures, "reference": result.reference} for row, result in results}


def draw_growth(arguments):
    parent = machine.choose_folder(arguments.folder, growth.least_space(arguments.quick))
    with tempfile.TemporaryDirectory(prefix="kqzip-bench-", dir=parent) as folder:
        return growth.plot(folder, arguments.plot, machine.description(parent), arguments.quick)


def main():
    arguments = parse_arguments()
    if arguments.rows:
        print("\n".join(row.name for row in ROWS))
        return
    # A signal ends the program like an error, so that the data goes.
    for number in (signal.SIGTERM, signal.SIGHUP):
        signal.signal(number, lambda number, frame: sys.exit(128 + number))
    figures = draw_growth(arguments) if arguments.plot else print_table(arguments)
    if arguments.json:
        with open(arguments.json, "w", encoding="utf-8") as file:
            json.dump(figures, file, indent=2)


if __name__ == "__main__":
    main()
