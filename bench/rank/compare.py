#!/usr/bin/env python3
"""Ranks file paths with loomwork-rank, fzy and fzf and prints where each puts
the file a query names, and how long each whole process takes.

The list is this machine's `find /` (without /proc, /sys, /dev, /run, /tmp,
/home, /root and /work, which hold processes, devices, scratch and personal
files), cut to --lines paths, followed by a small tree of files with accented
names made in a temporary directory. The list differs from machine to machine;
--save-list writes it out and --list reads a saved one back, so a run can be
repeated. A query whose file is not on the list reports "absent".

Each query names one file: the rank of a tool is the place (from 1) of the
first printed line that matches the query's pattern. Times are the median
wall-clock time of --runs runs of the whole process with output to /dev/null.

    bench/rank/compare.py --rank build/examples/rank/loomwork-rank
"""

import argparse
import os
import re
import resource
import shutil
import statistics
import subprocess
import sys
import tempfile
import time

# Files with accented names, made under a temporary directory and added to the
# list. The queries below type them without accents, as people do.
ACCENTED_FILES = [
    "Documents/Résumé 2024.pdf",
    "Documents/Lettre à Hélène.odt",
    "Documents/naïve_bayes.py",
    "Fotos/Zürich/See am Morgen.jpg",
    "Fotos/Zürich/Großmünster.jpg",
    "Fotos/Zürich/Bahnhofstraße.jpg",
    "Musik/Björk/Jóga.flac",
    "Musik/Björk/Hyperballad.flac",
    "Musik/Café del Mar/Señorita.mp3",
]

# (query, pattern of the intended file, kind)
QUERIES = [
    # The file's name, abbreviated.
    ("certs", r"^/etc/ssl/certs$", "file name"),
    ("ttk", r"/ttk/ttk\.(tcl|py)$", "file name"),
    ("nsswitch", r"^/etc/nsswitch\.conf$", "file name"),
    ("stdioh", r"^/usr/include/stdio\.h$", "file name"),
    ("argparse", r"/python3\.\d+/argparse\.py$", "file name"),
    ("libstdc", r"/libstdc\+\+\.so\.6$", "file name"),
    ("fstab", r"^/etc/fstab$", "file name"),
    # A directory's name, then the file's.
    ("pipinit", r"/pip/__init__\.py$", "directory, file"),
    ("etcpasswd", r"^/etc/passwd$", "directory, file"),
    ("httpserver", r"/python3\.\d+/http/server\.py$", "directory, file"),
    ("jsoninit", r"/python3\.\d+/json/__init__\.py$", "directory, file"),
    ("emailutils", r"/python3\.\d+/email/utils\.py$", "directory, file"),
    ("eurberlin", r"^/usr/share/zoneinfo/Europe/Berlin$", "directory, file"),
    ("unittestmock", r"/python3\.\d+/unittest/mock\.py$", "directory, file"),
    # Several words; each must match.
    ("c++ vector", r"^/usr/include/c\+\+/\d+/vector$", "words"),
    # Accented names.
    ("resumepdf", r"/Documents/Résumé 2024\.pdf$", "accented"),
    ("zurichsee", r"/Zürich/See am Morgen\.jpg$", "accented"),
    ("grossmunster", r"/Großmünster\.jpg$", "accented"),
    ("bjorkjoga", r"/Björk/Jóga\.flac$", "accented"),
    ("lettre hélène", r"/Lettre à Hélène\.odt$", "accented"),
]

PRUNED = ["/proc", "/sys", "/dev", "/run", "/tmp", "/home", "/root", "/work"]


def find_paths(limit):
    expression = []
    for path in PRUNED:
        expression += ["-path", path, "-o"]
    command = ["find", "/", "("] + expression[:-1] + [")", "-prune", "-o", "-print"]
    result = subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, check=False)
    lines = result.stdout.decode("utf-8", "surrogateescape").split("\n")
    return [line for line in lines if line][:limit]


def make_accented_tree(root):
    paths = set()
    for relative in ACCENTED_FILES:
        path = os.path.join(root, relative)
        os.makedirs(os.path.dirname(path), exist_ok=True)
        open(path, "wb").close()
        paths.add(path)
        parent = os.path.dirname(path)
        while parent != root:
            paths.add(parent)
            parent = os.path.dirname(parent)
    return sorted(paths)


def tool_commands(rank_path):
    commands = {"loomwork-rank": lambda query: [rank_path] + query.split()}
    if shutil.which("fzy"):
        commands["fzy"] = lambda query: ["fzy", "-e", query]
    if shutil.which("fzf"):
        commands["fzf"] = lambda query: ["fzf", "--filter", query]
    return commands


def rank_of(output, pattern):
    regex = re.compile(pattern)
    for place, line in enumerate(output.decode("utf-8", "surrogateescape").split("\n"), 1):
        if line and regex.search(line):
            return place
    return None


def timed(command, list_path, runs):
    """The median wall-clock and processor (user + system, all threads) times."""
    walls, cpus = [], []
    for _ in range(runs):
        with open(list_path, "rb") as source:
            before = resource.getrusage(resource.RUSAGE_CHILDREN)
            start = time.perf_counter()
            subprocess.run(command, stdin=source, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, check=False)
            walls.append(time.perf_counter() - start)
            after = resource.getrusage(resource.RUSAGE_CHILDREN)
            cpus.append(after.ru_utime + after.ru_stime - before.ru_utime - before.ru_stime)
    return statistics.median(walls), statistics.median(cpus)


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("--rank", default="build/examples/rank/loomwork-rank", help="the loomwork-rank program")
    parser.add_argument("--list", help="read the paths from this file instead of running find")
    parser.add_argument("--save-list", help="write the list used to this file")
    parser.add_argument("--lines", type=int, default=200000, help="paths taken from find (default 200000)")
    parser.add_argument("--runs", type=int, default=5, help="timed runs per tool and query (default 5)")
    arguments = parser.parse_args()
    if not os.access(arguments.rank, os.X_OK):
        sys.exit(f"compare.py: no program at {arguments.rank} (build the loomwork-rank target or pass --rank)")

    with tempfile.TemporaryDirectory(prefix="loomwork-rank-compare-") as scratch:
        if arguments.list:
            with open(arguments.list, encoding="utf-8", errors="surrogateescape") as source:
                paths = [line.rstrip("\n") for line in source if line.strip()]
        else:
            paths = find_paths(arguments.lines) + make_accented_tree(os.path.join(scratch, "tree"))
        list_path = os.path.join(scratch, "paths.txt")
        with open(list_path, "w", encoding="utf-8", errors="surrogateescape") as out:
            out.write("\n".join(paths) + "\n")
        if arguments.save_list:
            shutil.copyfile(list_path, arguments.save_list)

        commands = tool_commands(arguments.rank)
        tools = list(commands)
        print(f"{len(paths)} paths; ranks of the intended file (1 is best, - not printed), and the median of "
              f"{arguments.runs} whole-process times in ms: wall clock (processor)")
        header = f"{'query':<15}{'kind':<17}" + "".join(f"{tool:>15}" for tool in tools)
        header += "".join(f"{tool + ' ms':>20}" for tool in tools)
        print(header)
        ranks = {tool: [] for tool in tools}
        totals = {tool: [0.0, 0.0] for tool in tools}
        measured = []
        for query, pattern, kind in QUERIES:
            if not any(re.search(pattern, path) for path in paths):
                print(f"{query:<15}{kind:<17}absent")
                continue
            measured.append(query)
            row = f"{query:<15}{kind:<17}"
            times = ""
            for tool in tools:
                command = commands[tool](query)
                with open(list_path, "rb") as source:
                    output = subprocess.run(command, stdin=source, stdout=subprocess.PIPE,
                                            stderr=subprocess.DEVNULL, check=False).stdout
                place = rank_of(output, pattern)
                ranks[tool].append(place)
                row += f"{place if place else '-':>15}"
                wall, cpu = timed(command, list_path, arguments.runs)
                totals[tool][0] += wall
                totals[tool][1] += cpu
                times += f"{f'{wall * 1e3:.1f} ({cpu * 1e3:.1f})':>20}"
            print(row + times)

        print()
        for tool in tools:
            top3 = sum(1 for place in ranks[tool] if place is not None and place <= 3)
            print(f"{tool}: intended file in the top 3 for {top3} of {len(measured)} queries; "
                  f"{totals[tool][0] * 1e3:.0f} ms wall clock ({totals[tool][1] * 1e3:.0f} ms processor) "
                  f"over all queries")
        if "fzy" in ranks:
            worse = [query for query, ours, theirs in zip(measured, ranks["loomwork-rank"], ranks["fzy"])
                     if theirs is not None and (ours is None or ours > theirs)]
            print("queries where loomwork-rank places the file lower than fzy: " + (", ".join(worse) or "none"))


if __name__ == "__main__":
    main()
