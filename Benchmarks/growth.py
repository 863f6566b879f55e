"""How time grows with the number of entries and with bytes: measures it and draws it as Documentation/Growth.svg."""
import html
import math
import os
import statistics
import sys

import machine
import programs
import rows
from programs import OURS, RIVALS
from rows import MIB

ENTRIES = [1000, 3000, 10000, 30000, 100000, 300000, 1000000]
BYTES = [size * MIB for size in (1, 4, 16, 64, 256, 1024)]
QUICK_ENTRIES, QUICK_BYTES = [100, 300, 1000, 3000], [size * MIB for size in (1, 4, 16)]
WORKLOADS = ["Packing", "Listing", "Extracting"]
PROGRAMS = [OURS, *RIVALS]
# A rival that would take longer for one run is left out from there on.
PATIENCE = 15
# What one small file takes on a RAM disk, with its archives.
SPACE_BY_FILE = 6400
FILES_SIZE = 100


# Measuring


class Series:
    """The curves of one panel: for each program its points, an amount and seconds each."""

    def __init__(self):
        self.points = {name: [] for name in PROGRAMS}

    def measure(self, amount, commands, folder, prepare=None):
        chosen = {name: commands[name] for name in PROGRAMS if self._is_worth_waiting_for(name, amount)}
        seconds = programs.time_in_rounds(chosen, folder, prepare, 1)
        if sum(times[0] for times in seconds.values()) < 2:
            for name, times in programs.time_in_rounds(chosen, folder, prepare, 4).items():
                seconds[name] += times
        for name, times in seconds.items():
            self.points[name].append((amount, statistics.median(times)))

    def _is_worth_waiting_for(self, name, amount):
        points = self.points[name]
        return name == OURS or not points or points[-1][1] * amount / points[-1][0] < PATIENCE

    def exponent(self):
        """The slope of KQZip's curve between logarithms over its larger half: 1 is proportional."""
        points = self.points[OURS][len(self.points[OURS]) // 2:]
        if len(points) < 2:
            return None
        xs, ys = [math.log(amount) for amount, _ in points], [math.log(seconds) for _, seconds in points]
        return statistics.linear_regression(xs, ys).slope


def make_flat_tree(path, count):
    """Files of one size, a thousand in a folder."""
    data = bytes(FILES_SIZE)
    for number in range(count):
        folder = f"{path}/folder-{number // 1000:04d}"
        if number % 1000 == 0:
            os.makedirs(folder)
        with open(f"{folder}/file-{number:07d}.dat", "xb") as file:
            file.write(data)


def pack_list_extract(panels, amount, folder, source, is_folder):
    """Packs and extracts the source; lists only where its entries are what grows."""
    panels["Packing"].measure(amount, programs.pack_commands(source, "packed.zip", is_folder), folder, "rm -f packed.zip")
    rows.pack_both(folder, source, is_folder)
    programs.run(["rm", "-rf", source, "packed.zip"], folder)
    if is_folder:
        panels["Listing"].measure(amount, programs.list_commands("own.zip", "foreign.zip"), folder)
    panels["Extracting"].measure(amount, programs.extract_commands("own.zip", "foreign.zip", "out"), folder,
                                 "rm -rf out && mkdir out")
    programs.run(["rm", "-rf", "out", "own.zip", "foreign.zip"], folder)


def measure_entries(parent, amounts):
    panels = {workload: Series() for workload in WORKLOADS}
    for count in amounts:
        if count * SPACE_BY_FILE > machine.free_space(parent):
            print(f"{count:,} entries: no room, left out", file=sys.stderr)
            break
        print(f"{count:,} entries ...", file=sys.stderr)
        make_flat_tree(f"{parent}/tree", count)
        pack_list_extract(panels, count, parent, "tree", True)
    return panels


def measure_bytes(parent, amounts):
    panels = {workload: Series() for workload in WORKLOADS}
    for size in amounts:
        print(f"{size // MIB:,} MiB ...", file=sys.stderr)
        rows.make_large_file(f"{parent}/large.bin", size)
        pack_list_extract(panels, size, parent, "large.bin", False)
        rows.make_archives(parent, 1024, size // 1024)
        panels["Listing"].measure(size, programs.list_commands("own.zip", "foreign.zip"), parent)
        programs.run(["rm", "-f", "own.zip", "foreign.zip"], parent)
    return panels


# Drawing

COLOURS = dict(zip(PROGRAMS, ["#0b57d0", "#c0392b", "#1e8449", "#b9770e", "#7d3c98"]))
PANEL_WIDTH, PANEL_HEIGHT = 320, 270
LEFT, TOP, GAP_X, GAP_Y = 76, 104, 78, 92
WIDTH, HEIGHT = LEFT + 3 * PANEL_WIDTH + 2 * GAP_X + 30, TOP + 2 * PANEL_HEIGHT + GAP_Y + 84


def seconds_label(seconds):
    return f"{seconds:g} s" if seconds >= 1 else f"{1000 * seconds:g} ms"


def bytes_label(size):
    return f"{size // (1024 * MIB)} GiB" if size >= 1024 * MIB else f"{size // MIB} MiB"


def text(x, y, content, anchor="middle", **style):
    attributes = "".join(f' {name.replace("_", "-")}="{value}"' for name, value in style.items())
    return f'<text x="{x:.1f}" y="{y:.1f}" text-anchor="{anchor}"{attributes}>{html.escape(content)}</text>'


def line(x1, y1, x2, y2, **style):
    attributes = "".join(f' {name.replace("_", "-")}="{value}"' for name, value in style.items())
    return f'<line x1="{x1:.1f}" y1="{y1:.1f}" x2="{x2:.1f}" y2="{y2:.1f}"{attributes}/>'


class Panel:
    """One diagram with logarithmic axes."""

    def __init__(self, x, y, amounts, seconds):
        self.x, self.y = x, y
        self.amounts, self.seconds = amounts, seconds

    def across(self, amount):
        low, high = self.amounts
        return self.x + PANEL_WIDTH * math.log(amount / low) / math.log(high / low)

    def up(self, seconds):
        low, high = self.seconds
        return self.y + PANEL_HEIGHT * (1 - math.log(seconds / low) / math.log(high / low))

    def frame(self, title, ticks, label, caption):
        parts = [f'<clipPath id="clip-{self.x}-{self.y}"><rect x="{self.x}" y="{self.y}" width="{PANEL_WIDTH}" '
                 f'height="{PANEL_HEIGHT}"/></clipPath>']
        for amount in ticks:
            x = self.across(amount)
            parts.append(line(x, self.y, x, self.y + PANEL_HEIGHT, stroke="#ececec"))
            parts.append(text(x, self.y + PANEL_HEIGHT + 18, label(amount)))
        for decade in self.decades():
            parts.append(line(self.x, self.up(decade), self.x + PANEL_WIDTH, self.up(decade), stroke="#ececec"))
            parts.append(text(self.x - 8, self.up(decade) + 4, seconds_label(decade), "end"))
        parts.append(self.proportional())
        parts.append(f'<rect x="{self.x}" y="{self.y}" width="{PANEL_WIDTH}" height="{PANEL_HEIGHT}" fill="none" '
                     f'stroke="#9a9a9a"/>')
        parts.append(text(self.x + PANEL_WIDTH / 2, self.y - 12, title, font_size=15, font_weight="bold"))
        parts.append(text(self.x, self.y + PANEL_HEIGHT + 40, caption, "start", fill="#555555"))
        return parts

    def decades(self):
        low, high = (round(math.log10(bound)) for bound in self.seconds)
        return [10.0 ** exponent for exponent in range(low, high + 1)]

    def proportional(self):
        """Lines along which time grows in proportion, one for each decade."""
        low, high = self.amounts
        first, last = self.seconds
        steps = math.ceil(math.log10(high / low))
        lines = [line(self.across(low), self.up(start), self.across(high), self.up(start * high / low))
                 for start in (first * 10.0 ** step for step in range(-steps, round(math.log10(last / first))))]
        return (f'<g clip-path="url(#clip-{self.x}-{self.y})" stroke="#c4c4c4" stroke-dasharray="2 4">'
                + "".join(lines) + "</g>")

    def curves(self, series):
        parts = []
        # KQZip's comes last and so lies on top.
        for name in [*RIVALS, OURS]:
            points = [(self.across(amount), self.up(seconds)) for amount, seconds in series.points[name]]
            path = " ".join(f"{x:.1f},{y:.1f}" for x, y in points)
            width, radius = (3, 4) if name == OURS else (1.6, 2.8)
            parts.append(f'<polyline points="{path}" fill="none" stroke="{COLOURS[name]}" stroke-width="{width}" '
                         f'stroke-linejoin="round"/>')
            parts += [f'<circle cx="{x:.1f}" cy="{y:.1f}" r="{radius}" fill="{COLOURS[name]}"/>' for x, y in points]
        exponent = series.exponent()
        if exponent is not None:
            parts.append(text(self.x + PANEL_WIDTH, self.y + PANEL_HEIGHT + 40, f"kqzip: slope {exponent:.2f}", "end",
                              fill=COLOURS[OURS]))
        return parts


def bounds(panels):
    """The decades that hold all times of a row of panels, so that its panels can be compared."""
    times = [seconds for series in panels.values() for points in series.points.values() for _, seconds in points]
    return 10.0 ** math.floor(math.log10(min(times))), 10.0 ** math.ceil(math.log10(max(times)))


def legend():
    parts, x = [], LEFT
    for name in PROGRAMS:
        parts.append(line(x, 62, x + 26, 62, stroke=COLOURS[name], stroke_width=3 if name == OURS else 1.6))
        parts.append(f'<circle cx="{x + 13}" cy="62" r="{4 if name == OURS else 2.8}" fill="{COLOURS[name]}"/>')
        parts.append(text(x + 34, 66, name, "start", font_size=13))
        x += 62 + 7.2 * len(name)
    parts.append(line(x, 62, x + 26, 62, stroke="#9a9a9a", stroke_dasharray="2 4"))
    parts.append(text(x + 34, 66, "in proportion (slope 1)", "start", font_size=13))
    return parts


def row_of_panels(panels, number, amounts, ticks, label, captions):
    seconds = bounds(panels)
    parts = []
    for column, workload in enumerate(WORKLOADS):
        panel = Panel(LEFT + column * (PANEL_WIDTH + GAP_X), TOP + number * (PANEL_HEIGHT + GAP_Y),
                      (amounts[0], amounts[-1]), seconds)
        parts += panel.frame(workload, ticks, label, captions[workload])
        parts += panel.curves(panels[workload])
    return parts


def draw(by_entries, by_bytes, footer):
    counts = sorted({amount for amount, _ in by_entries["Packing"].points[OURS]})
    sizes = sorted({amount for amount, _ in by_bytes["Packing"].points[OURS]})
    entry_captions = dict.fromkeys(WORKLOADS, f"entries of {FILES_SIZE} bytes")
    byte_captions = {"Packing": "bytes in one file", "Listing": "bytes in 1,024 entries", "Extracting": "bytes in one file"}
    decades = [count for count in counts if math.log10(count).is_integer()]
    body = [
        f'<rect width="{WIDTH}" height="{HEIGHT}" fill="#ffffff"/>',
        text(LEFT, 34, "How time grows with the number of entries and with bytes", "start", font_size=20, font_weight="bold"),
        *legend(),
        *row_of_panels(by_entries, 0, counts, decades, "{:,}".format, entry_captions),
        *row_of_panels(by_bytes, 1, sizes, sizes, bytes_label, byte_captions),
        text(LEFT, HEIGHT - 16, footer, "start", fill="#777777", font_size=11),
    ]
    return (f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {WIDTH} {HEIGHT}" width="{WIDTH}" height="{HEIGHT}" '
            f'font-family="system-ui, sans-serif" font-size="12" fill="#222222">\n'
            "<title>Time against the number of entries and against bytes, KQZip and other programs</title>\n"
            + "\n".join(body) + "\n</svg>\n")


def least_space(quick):
    """Bytes that the curves against bytes take; those against entries end where there is no room."""
    return 4 * (QUICK_BYTES if quick else BYTES)[-1]


def plot(parent, target, footer, quick):
    entries, sizes = (QUICK_ENTRIES, QUICK_BYTES) if quick else (ENTRIES, BYTES)
    by_entries = measure_entries(parent, entries)
    by_bytes = measure_bytes(parent, sizes)
    os.makedirs(os.path.dirname(target), exist_ok=True)
    with open(target, "w", encoding="utf-8") as file:
        file.write(draw(by_entries, by_bytes, footer))
    return {"entries": {name: series.points for name, series in by_entries.items()},
            "bytes": {name: series.points for name, series in by_bytes.items()}}
