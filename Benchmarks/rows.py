"""The rows of the table: what is measured, on which data, and what is to be reached."""
import dataclasses
import os
import random
import statistics
from typing import Callable, Optional

import programs
from programs import BSDTAR, LIMIT, OURS, SEVEN, ZIP, ZIPFILE, run

MIB = 1048576


@dataclasses.dataclass
class Sizes:
    """How much data the rows take."""
    large: int = 1024 * MIB
    files: int = 50000
    folders: int = 100
    listed: int = 200000
    spread: int = 2000
    remembered: int = 1000000
    # Two sizes for a count by the entry: in their difference what a program does once falls away.
    counted: tuple = (1000, 3000)


QUICK = Sizes(large=32 * MIB, files=1000, folders=10, listed=2000, spread=100, remembered=20000, counted=(100, 300))


@dataclasses.dataclass
class Result:
    """One figure for each program, and what the figures are compared with beyond each other."""
    figures: dict
    reference: Optional[float] = None


@dataclasses.dataclass
class Row:
    name: str
    title: str
    unit: str
    measure: Callable
    of_rival: Optional[float] = None      # at most so much of the fastest rival
    of_limit: Optional[float] = None      # at most so much of the raw limit
    of_reference: Optional[float] = None  # at most so much of Result.reference
    at_most: Optional[float] = None       # at most so much
    space: Callable = lambda sizes: 512 * MIB


# Data


def make_large_file(path, size):
    block = random.Random(1).randbytes(MIB)
    with open(path, "xb") as file:
        for _ in range(size // MIB):
            file.write(block)


def make_tree(path, files, folders):
    """Files of 100 to 2,000 bytes, spread evenly over the folders."""
    chooser = random.Random(1)
    noise = chooser.randbytes(65536)
    for folder in range(folders):
        os.makedirs(f"{path}/folder-{folder:03d}")
    for number in range(files):
        start = chooser.randrange(60000)
        with open(f"{path}/folder-{number % folders:03d}/file-{number:06d}.dat", "xb") as file:
            file.write(noise[start:start + chooser.randint(100, 2000)])


def make_archives(folder, count, size):
    run([programs.MAKE_ARCHIVE, "own.zip", str(count), str(size)], folder)
    run([*programs.PYTHON, "make", "foreign.zip", str(count), str(size)], folder)


def pack_both(folder, source, is_folder):
    """own.zip and foreign.zip, KQZip's archive of the source and zip's."""
    run(programs.pack_commands(source, "own.zip", is_folder)[OURS], folder)
    run(programs.pack_commands(source, "foreign.zip", is_folder)[ZIP], folder)


# Checks that every program does the whole work


def check_extracted(folder, source, extracted):
    run(["diff", "-r", "-q", source, extracted], folder)


def check_packed(folder, source):
    os.mkdir(f"{folder}/checked")
    run(["bsdtar", "-xf", "packed.zip", "-C", "checked"], folder)
    check_extracted(folder, source, f"checked/{source}")
    run(["rm", "-rf", "checked"], folder)


def check_listed(count, output):
    # 7zz prints more than the name, and the name is last everywhere.
    names = {line.split()[-1] for line in output.splitlines() if line.endswith(".bin")}
    if names != {f"entry-{number:010d}.bin" for number in range(count)}:
        raise SystemExit("a program did not list every entry")


# Workloads


def medians(seconds):
    return {name: statistics.median(times) for name, times in seconds.items()}


def time_packing(folder, source, is_folder, rounds):
    commands = programs.pack_commands(source, "packed.zip", is_folder)
    for command in commands.values():
        run(command, folder)
        check_packed(folder, source)
        os.remove(f"{folder}/packed.zip")
    return medians(programs.time_in_rounds(commands, folder, "rm -f packed.zip", rounds))


def time_extracting(folder, source, is_folder, rounds):
    pack_both(folder, source, is_folder)
    commands = programs.extract_commands("own.zip", "foreign.zip", "out")
    for command in commands.values():
        run(["sh", "-c", "rm -rf out && mkdir out"], folder)
        run(command, folder)
        check_extracted(folder, source, f"out/{source}")
    return medians(programs.time_in_rounds(commands, folder, "rm -rf out && mkdir out", rounds))


def pack_large(folder, sizes, rounds):
    make_large_file(f"{folder}/large.bin", sizes.large)
    return Result(time_packing(folder, "large.bin", False, rounds))


def extract_large(folder, sizes, rounds):
    make_large_file(f"{folder}/large.bin", sizes.large)
    return Result(time_extracting(folder, "large.bin", False, rounds))


def pack_small(folder, sizes, rounds):
    make_tree(f"{folder}/tree", sizes.files, sizes.folders)
    return Result(time_packing(folder, "tree", True, rounds))


def extract_small(folder, sizes, rounds):
    make_tree(f"{folder}/tree", sizes.files, sizes.folders)
    return Result(time_extracting(folder, "tree", True, rounds))


def list_small(folder, sizes, rounds):
    make_archives(folder, sizes.listed, 16)
    commands = programs.list_commands("own.zip", "foreign.zip")
    for command in commands.values():
        check_listed(sizes.listed, run(command, folder))
    return Result(medians(programs.time_in_rounds(commands, folder, None, rounds)))


def list_spread(folder, sizes, rounds):
    run([programs.MAKE_ARCHIVE, "large.zip", str(sizes.spread), str(MIB)], folder)
    run([programs.MAKE_ARCHIVE, "small.zip", str(sizes.spread), "16"], folder)
    commands = {OURS: [programs.KQZIP, "list", "large.zip"], "small": [programs.KQZIP, "list", "small.zip"],
                LIMIT: [programs.RAW, "list", "large.zip"]}
    for command in commands.values():
        check_listed(sizes.spread, run(command, folder))
    # Milliseconds each, so many more rounds cost nothing.
    seconds = medians(programs.time_in_rounds(commands, folder, None, 5 * rounds))
    return Result({OURS: seconds[OURS], LIMIT: seconds[LIMIT]}, seconds["small"])


# Counts


def by_entry(count, make_commands, names, folder, sizes):
    """The figure of each program for one entry, from the difference of two sizes."""
    first, second = sizes.counted
    small, large = make_commands(folder, first), make_commands(folder, second)
    return Result({name: (count(large[name], folder) - count(small[name], folder)) / (second - first)
                   for name in names})


def packing(folder, count):
    make_tree(f"{folder}/tree-{count}", count, 10)
    return {name: programs.pack_commands(f"tree-{count}", f"packed-{count}-{name}.zip", True)[name]
            for name in [OURS, LIMIT, *programs.RIVALS]}


def extracting(folder, count):
    make_tree(f"{folder}/tree-{count}", count, 10)
    own, foreign = f"own-{count}.zip", f"foreign-{count}.zip"
    run(programs.pack_commands(f"tree-{count}", own, True)[OURS], folder)
    run(programs.pack_commands(f"tree-{count}", foreign, True)[ZIP], folder)
    commands = {}
    for name in [OURS, LIMIT, *programs.RIVALS]:
        os.mkdir(f"{folder}/out-{count}-{name}")
        commands[name] = programs.extract_commands(own, foreign, f"out-{count}-{name}")[name]
    return commands


def listing(folder, count):
    os.mkdir(f"{folder}/{count}")
    make_archives(f"{folder}/{count}", count, 16)
    return programs.list_commands(f"{count}/own.zip", f"{count}/foreign.zip")


def reading(folder, count):
    if not os.path.exists(f"{folder}/own.zip"):
        make_archives(folder, 1000, 100)
    return {OURS: [programs.READ_ENTRIES, "own.zip", str(count)],
            ZIPFILE: [*programs.PYTHON, "read", "foreign.zip", str(count)]}


def count_by_entry(count, make_commands, names):
    return lambda folder, sizes, rounds: by_entry(count, make_commands, names, folder, sizes)


# Memory


def median_peak(command, folder, rounds, prepare=None):
    peaks = []
    for _ in range(rounds):
        if prepare:
            run(["sh", "-c", prepare], folder)
        peaks.append(programs.peak_memory(command, folder))
    return statistics.median(peaks)


def peaks_over_empty(commands, folder, rounds, prepare):
    empty = programs.empty_commands()
    return Result({name: median_peak(commands[name], folder, rounds, prepare) - median_peak(empty[name], folder, rounds)
                   for name in empty})


def memory_packing(folder, sizes, rounds):
    make_large_file(f"{folder}/large.bin", sizes.large)
    commands = programs.pack_commands("large.bin", "packed.zip", False)
    return peaks_over_empty(commands, folder, rounds, "rm -f packed.zip")


def memory_extracting(folder, sizes, rounds):
    make_large_file(f"{folder}/large.bin", sizes.large)
    pack_both(folder, "large.bin", False)
    commands = programs.extract_commands("own.zip", "foreign.zip", "out")
    return peaks_over_empty(commands, folder, rounds, "rm -rf out && mkdir out")


def memory_by_entry(folder, sizes, commands):
    """From the difference of two archives, so that what a program needs without entries falls away."""
    few, many = 10, sizes.remembered
    peaks = {}
    for count in (few, many):
        path = f"{folder}/{count}"
        os.mkdir(path)
        run([programs.MAKE_ARCHIVE, "own.zip", str(count), "16"], path)
        if ZIP in commands:
            run([*programs.PYTHON, "make", "foreign.zip", str(count), "16"], path)
        peaks[count] = {name: programs.peak_memory(command, path) for name, command in commands.items()}
    return Result({name: (peaks[many][name] - peaks[few][name]) / (many - few) for name in peaks[few]})


def memory_listing(folder, sizes, rounds):
    commands = programs.list_commands("own.zip", "foreign.zip")
    del commands[LIMIT]
    return memory_by_entry(folder, sizes, commands)


def memory_reader(folder, sizes, rounds):
    return memory_by_entry(folder, sizes, {OURS: [programs.READ_ENTRIES, "own.zip", "0"]})


# The rows

ALL = [OURS, LIMIT, *programs.RIVALS]
COUNTED = [OURS, ZIP, BSDTAR, SEVEN]

ROWS = [
    Row("pack-large", "pack one file of {large}", "s", pack_large, of_rival=1.0, of_limit=1.08,
        space=lambda sizes: 3 * sizes.large),
    Row("pack-small", "pack {files} files of 100 to 2,000 bytes", "s", pack_small, of_rival=0.5),
    Row("extract-large", "extract one file of {large}", "s", extract_large, of_rival=0.9, of_limit=1.08,
        space=lambda sizes: 4 * sizes.large),
    Row("extract-small", "extract the {files} files", "s", extract_small, of_rival=0.75,
        space=lambda sizes: 1024 * MIB),
    Row("list-small", "list {listed} small entries", "s", list_small, of_rival=0.3),
    Row("list-spread", "list {spread} entries of 1 MiB", "s", list_spread, of_reference=2.0,
        space=lambda sizes: 3 * sizes.spread * MIB // 2),
    Row("calls-read", "system calls, one small entry read at random", "", count_by_entry(
        programs.system_calls, reading, [OURS, ZIPFILE]), at_most=5),
    Row("calls-pack", "system calls, one small file packed", "", count_by_entry(
        programs.system_calls, packing, ALL), at_most=14),
    Row("calls-list", "system calls, one small entry listed", "", count_by_entry(
        programs.system_calls, listing, ALL), at_most=0.05),
    Row("calls-extract", "system calls, one small entry extracted", "", count_by_entry(
        programs.system_calls, extracting, ALL), at_most=10),
    Row("allocations-list", "heap allocations, one entry listed", "", count_by_entry(
        programs.allocations, listing, COUNTED), at_most=6),
    Row("allocations-pack", "heap allocations, one small file packed", "", count_by_entry(
        programs.allocations, packing, COUNTED), at_most=25),
    Row("instructions-list", "instructions, one entry listed", "", count_by_entry(
        programs.instructions, listing, COUNTED)),
    Row("memory-pack", "peak memory, packing {large}, over an empty program's", "MiB", memory_packing, at_most=8 * MIB,
        space=lambda sizes: 3 * sizes.large),
    Row("memory-extract", "peak memory, extracting {large}, over an empty program's", "MiB", memory_extracting,
        at_most=8 * MIB, space=lambda sizes: 4 * sizes.large),
    Row("memory-list", "memory for one of {remembered} entries listed", "B", memory_listing, at_most=400),
    Row("memory-reader", "memory for one of {remembered} entries of an open reader", "B", memory_reader, at_most=400),
]
