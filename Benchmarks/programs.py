"""The programs that are compared, and the ways to run one: timed, or counted."""
import json
import pathlib
import random
import re
import shlex
import subprocess
import sys
import tempfile

ROOT = pathlib.Path(__file__).resolve().parent.parent
BUILT = ROOT / "build" / "release"
KQZIP = str(BUILT / "Tools" / "kqzip" / "kqzip")
RAW = str(BUILT / "Benchmarks" / "RawLimit")
MAKE_ARCHIVE = str(BUILT / "Benchmarks" / "MakeArchive")
READ_ENTRIES = str(BUILT / "Benchmarks" / "ReadEntries")
PYTHON = [sys.executable, str(ROOT / "Benchmarks" / "zipfile_rival.py")]

OURS = "kqzip"
LIMIT = "raw limit"
ZIP, BSDTAR, SEVEN, ZIPFILE = "zip, unzip, zipinfo", "bsdtar", "7zz", "Python zipfile"
RIVALS = [ZIP, BSDTAR, SEVEN, ZIPFILE]


def pack_commands(source, archive, folder):
    """Every program's way to pack `source`, a folder or a file, whose own name all of them keep."""
    return {
        OURS: [KQZIP, "create", "-q", *(["-k"] if folder else []), archive, source],
        LIMIT: [RAW, "pack", source, archive],
        ZIP: ["zip", "-0", "-q", "-r", "-D", archive, source],
        BSDTAR: ["bsdtar", "--format", "zip", "--options", "zip:compression=store", "-cf", archive, source],
        SEVEN: ["7zz", "a", "-tzip", "-mm=Copy", "-mx0", "-bso0", "-bsp0", archive, source],
        ZIPFILE: [*PYTHON, "pack", source, archive],
    }


def extract_commands(own, foreign, folder):
    """Every program's way to extract: KQZip and the limit from KQZip's archive, the others from a foreign one."""
    return {
        OURS: [KQZIP, "extract", "-q", "-C", folder, own],
        LIMIT: [RAW, "extract", own, folder],
        ZIP: ["unzip", "-q", foreign, "-d", folder],
        BSDTAR: ["bsdtar", "-xf", foreign, "-C", folder],
        SEVEN: ["7zz", "x", "-bso0", "-bsp0", f"-o{folder}", foreign],
        ZIPFILE: [*PYTHON, "extract", foreign, folder],
    }


def list_commands(own, foreign):
    """Every program's way to list, from the archives that extract_commands() takes."""
    return {
        OURS: [KQZIP, "list", own],
        LIMIT: [RAW, "list", own],
        ZIP: ["zipinfo", "-1", foreign],
        BSDTAR: ["bsdtar", "-tf", foreign],
        SEVEN: ["7zz", "l", "-ba", foreign],
        ZIPFILE: [*PYTHON, "list", foreign],
    }


def empty_commands():
    """Every program doing nothing."""
    return {
        OURS: [KQZIP, "--version"],
        ZIP: ["zipinfo", "-v"],
        BSDTAR: ["bsdtar", "--version"],
        SEVEN: ["7zz"],
        ZIPFILE: [sys.executable, "-c", "import zipfile"],
    }


def run(command, folder, **options):
    """Runs a command that must succeed and returns what it printed."""
    done = subprocess.run(command, cwd=folder, stdout=subprocess.PIPE, stderr=subprocess.PIPE, check=False, **options)
    if done.returncode != 0:
        sys.exit(f"{shlex.join(command)}: status {done.returncode}\n{done.stderr.decode(errors='replace')}")
    return done.stdout.decode()


def time_in_rounds(commands, folder, prepare, rounds):
    """The seconds of every run of every command. Each round is one call of hyperfine that runs every command once, so
    what disturbs the machine for a while disturbs all of them. The order is drawn anew for every round, so that no
    command always comes behind the same other one. What a command prints goes to /dev/null."""
    names = list(commands)
    orders = random.Random(1)
    seconds = {name: [] for name in names}
    for _ in range(rounds):
        order = orders.sample(names, len(names))
        with tempfile.NamedTemporaryFile(dir=folder, suffix=".json") as export:
            options = ["--shell=none", "--runs=1", "--style=none", f"--export-json={export.name}"]
            if prepare:
                options += ["--prepare", shlex.join(["sh", "-c", prepare])]
            run(["hyperfine", *options, *(shlex.join(commands[name]) for name in order)], folder)
            results = json.load(export)["results"]
        for name, result in zip(order, results):
            seconds[name] += result["times"]
    return seconds


def peak_memory(command, folder):
    """The most memory in bytes that a run of the command had resident."""
    with tempfile.NamedTemporaryFile("r", dir=folder) as report:
        run(["time", "-f", "%M", "-o", report.name, *command], folder)
        return 1024 * int(report.read())


def system_calls(command, folder):
    """How many system calls a run of the command makes, its threads' and children's included."""
    with tempfile.NamedTemporaryFile("r", dir=folder) as report:
        run(["strace", "-f", "-c", "-U", "name,calls", "-o", report.name, *command], folder)
        return int(re.search(r"^total +(\d+)$", report.read(), re.MULTILINE).group(1))


def allocations(command, folder):
    """How many blocks of the heap a run of the command takes."""
    return _from_valgrind(["--tool=memcheck", "--leak-check=no"], r"total heap usage: ([\d,]+) allocs", command, folder)


def instructions(command, folder):
    """How many instructions a run of the command takes outside the kernel."""
    return _from_valgrind(["--tool=callgrind", "--callgrind-out-file=/dev/null"], r"Collected : (\d+)", command, folder)


def _from_valgrind(options, pattern, command, folder):
    with tempfile.NamedTemporaryFile("r", dir=folder) as report:
        run(["valgrind", *options, f"--log-file={report.name}", *command], folder)
        return int(re.search(pattern, report.read()).group(1).replace(",", ""))
