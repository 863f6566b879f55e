"""The machine: what it is, and where the data lies."""
import ctypes
import datetime
import os
import platform
import shutil
import sys
import tempfile

MIB = 1048576


def choose_folder(given, needed):
    """The folder given, else the RAM disk, else the one for temporary files: the first with room for so many bytes."""
    for folder in [given] if given else ["/dev/shm", tempfile.gettempdir()]:
        if os.access(folder, os.W_OK) and free_space(folder) >= needed:
            return folder
        print(f"{folder} has no room for {needed / MIB:,.0f} MiB of data.", file=sys.stderr)
    sys.exit("Give a folder with --folder, or name rows that take less.")


def free_space(folder):
    space = shutil.disk_usage(folder).free
    return min(space, _memory("MemAvailable")) if is_ram_disk(folder) else space


def is_ram_disk(folder):
    """Whether the folder lies on a tmpfs: the mount point with the longest path above it is one."""
    path = os.path.join(os.path.realpath(folder), "")
    with open("/proc/mounts", encoding="utf-8") as mounts:
        found = [(len(point), kind) for _, point, kind, *_ in map(str.split, mounts)
                 if path.startswith(os.path.join(point, ""))]
    return max(found)[1] == "tmpfs"


def description(folder):
    with open("/proc/cpuinfo", encoding="utf-8") as lines:
        models = [line.split(":", 1)[1].strip() for line in lines if line.startswith("model name")]
    zlib = ctypes.CDLL("libz.so.1")
    zlib.zlibVersion.restype = ctypes.c_char_p
    return (f"{datetime.date.today().isoformat()}, {models[0] if models else platform.machine()}, {os.cpu_count()} cores, "
            f"{_memory('MemTotal') / MIB / 1024:.0f} GiB, Linux {platform.release()}, "
            f"data on {'a RAM disk' if is_ram_disk(folder) else 'a disk'}, zlib {zlib.zlibVersion().decode()}")


def _memory(name):
    with open("/proc/meminfo", encoding="ascii") as lines:
        return next(1024 * int(line.split()[1]) for line in lines if line.startswith(f"{name}:"))
