"""Measures KQZip against its rivals and against what the machine allows, and prints one table in Markdown.

Scripts/bench builds what is needed and calls this. A program is a black box, and each is checked once to do the whole
work. All figures of a row come from the same data in one go: medians of rounds in which every program runs once, or
counts, which no noise touches. Every program reads the archives that it meets in practice: KQZip and the raw limit
those of KQZip, the others those of zip or of Python's zipfile. Ratios below 1 mean that KQZip takes less.
"""
import argparse
import ctypes
import datetime
import json
import os
import platform
import shutil
import signal
import sys
import tempfile

import programs
from programs import LIMIT, OURS, RIVALS
from rows import MIB, QUICK, ROWS, Sizes


def parse_arguments():
    parser = argparse.ArgumentParser(prog="Scripts/bench", description="Measures KQZip; see the top of Scripts/bench.")
    parser.add_argument("names", metavar="ROW", nargs="*", help="what to measure; everything unless given")
    parser.add_argument("--rows", action="store_true", help="print the names of the rows")
    parser.add_argument("--quick", action="store_true", help="little data, to see whether it works")
    parser.add_argument("--rounds", type=int, help="runs of each program, 5 unless given")
    parser.add_argument("--json", metavar="FILE", help="write the figures there too")
    parser.add_argument("--folder", help="where the data lies, /dev/shm unless given")
    arguments = parser.parse_args()
    unknown = set(arguments.names) - {row.name for row in ROWS}
    if unknown:
        parser.error(f"no row named {', '.join(sorted(unknown))}; --rows names them all")
    return arguments


# Where the data lies


def free_space(folder):
    space = shutil.disk_usage(folder).free
    return min(space, available_memory()) if on_ram_disk(folder) else space


def memory_line(name):
    with open("/proc/meminfo", encoding="ascii") as lines:
        return next(1024 * int(line.split()[1]) for line in lines if line.startswith(name + ":"))


def available_memory():
    return memory_line("MemAvailable")


def on_ram_disk(folder):
    with open("/proc/mounts", encoding="utf-8") as mounts:
        points = [line.split()[1] for line in mounts if line.split()[2] == "tmpfs"]
    return any(os.path.realpath(folder).startswith(point.rstrip("/") + "/") or os.path.realpath(folder) == point
               for point in points)


def choose_folder(given, needed):
    candidates = [given] if given else ["/dev/shm", tempfile.gettempdir()]
    for folder in candidates:
        if os.access(folder, os.W_OK) and free_space(folder) >= needed:
            return folder
        print(f"{folder} lacks room for {needed / MIB:,.0f} MiB of data", file=sys.stderr)
    sys.exit("Give a folder with --folder, or name rows that take less.")


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


def ratios(result):
    """KQZip's figure as a part of the fastest rival's and of the raw limit's, where there are such."""
    ours = result.figures[OURS]
    rivals = [result.figures[name] for name in RIVALS if name in result.figures]
    limit = result.figures.get(LIMIT)
    return (ours / min(rivals) if rivals and min(rivals) > 0 else None, ours / limit if limit else None)


def judge(row, result):
    """The targets as text, and whether all of them are met; nothing for a row without a target."""
    of_rival, of_limit = ratios(result)
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
    parts = ["" if ratio is None else f"{ratio:.2f}" for ratio in ratios(result)]
    return [title(row, sizes), *figures, *parts, *judge(row, result)]


def table(results, sizes):
    head = ["", OURS, *RIVALS, LIMIT, "of the fastest rival", "of the raw limit", "target", ""]
    lines = [head, ["---"] + ["---:"] * (len(head) - 3) + ["---", "---"]]
    lines += [cells(row, result, sizes) for row, result in results]
    return "\n".join("| " + " | ".join(line) + " |" for line in lines)


def machine(folder, rounds):
    with open("/proc/cpuinfo", encoding="utf-8") as lines:
        model = next((line.split(":", 1)[1].strip() for line in lines if line.startswith("model name")), platform.machine())
    zlib = ctypes.CDLL("libz.so.1")
    zlib.zlibVersion.restype = ctypes.c_char_p
    place = "a RAM disk" if on_ram_disk(folder) else "a disk"
    return (f"{datetime.date.today().isoformat()}, {model}, {os.cpu_count()} cores, "
            f"{memory_line('MemTotal') / 1024 / MIB:.0f} GiB, Linux {platform.release()}, data on {place}, "
            f"zlib {zlib.zlibVersion().decode()}; times are medians of {rounds} alternating runs.")


# The run


def measure(row, parent, sizes, rounds):
    with tempfile.TemporaryDirectory(dir=parent) as folder:
        print(f"{row.name} ...", end="", file=sys.stderr, flush=True)
        started = datetime.datetime.now()
        result = row.measure(folder, sizes, rounds)
        print(f" {(datetime.datetime.now() - started).total_seconds():.0f} s", file=sys.stderr)
    return result


def main():
    arguments = parse_arguments()
    if arguments.rows:
        print("\n".join(row.name for row in ROWS))
        return
    sizes = QUICK if arguments.quick else Sizes()
    rounds = arguments.rounds or (1 if arguments.quick else 5)
    rows = [row for row in ROWS if not arguments.names or row.name in arguments.names]
    parent = choose_folder(arguments.folder, max(row.space(sizes) for row in rows))
    # A signal ends the program like an error, so that the data goes.
    for number in (signal.SIGTERM, signal.SIGHUP):
        signal.signal(number, lambda number, frame: sys.exit(128 + number))

    with tempfile.TemporaryDirectory(prefix="kqzip-bench-", dir=parent) as folder:
        results = [(row, measure(row, folder, sizes, rounds)) for row in rows]
        print(table(results, sizes))
        print()
        print(machine(folder, rounds))
    if arguments.quick:
        print("A quick run: what is met here says nothing.")
    if arguments.json:
        figures = {row.name: {"figures": result.figures, "reference": result.reference} for row, result in results}
        with open(arguments.json, "w", encoding="utf-8") as file:
            json.dump(figures, file, indent=2)


if __name__ == "__main__":
    main()
