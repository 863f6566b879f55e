"""Python's zipfile as a program like the others: zipfile_rival.py pack SOURCE ARCHIVE | extract ARCHIVE FOLDER |
list ARCHIVE | read ARCHIVE COUNT | make ARCHIVE COUNT SIZE

`read` opens the archive once and reads COUNT entries at random. `make` makes the archive that MakeArchive makes.
"""
import os
import random
import sys
import zipfile


def pack(source, archive):
    with zipfile.ZipFile(archive, "x", zipfile.ZIP_STORED) as output:
        if os.path.isfile(source):
            output.write(source)
        for folder, _, files in os.walk(source):
            for name in files:
                output.write(os.path.join(folder, name))


def extract(archive, folder):
    with zipfile.ZipFile(archive) as opened:
        opened.extractall(folder)


def list_names(archive):
    with zipfile.ZipFile(archive) as opened:
        sys.stdout.write("".join(f"{name}\n" for name in opened.namelist()))


def read(archive, count):
    chooser = random.Random(1)
    with zipfile.ZipFile(archive) as opened:
        names = opened.namelist()
        for _ in range(int(count)):
            opened.read(chooser.choice(names))


def make(archive, count, size):
    data = bytes(int(size))
    with zipfile.ZipFile(archive, "x", zipfile.ZIP_STORED) as output:
        for number in range(int(count)):
            output.writestr(f"entry-{number:010d}.bin", data)


{"pack": pack, "extract": extract, "list": list_names, "read": read, "make": make}[sys.argv[1]](*sys.argv[2:])
