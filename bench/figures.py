#!/usr/bin/env python3
"""Figures of the benchmarks' tables, for the next run to be compared with, and for people.

usage: figures.py [--json FILE] [--compare OLD.json] OUTPUT
       figures.py --readme README.md FIGURES.json

OUTPUT is what the benchmarks printed; a line "# NAME" stands before that of each. Every number in a table cell becomes
a figure; where a cell has several, they are counted (p50 and p99, mostly). --readme writes the tables of a document
anew, each behind its line "<!-- figures: NAME -->".
"""
import argparse
import json
import os
import platform
import re
import subprocess
import sys

NUMBER = re.compile(r"-?\d+(?:\.\d+)?")


def cells(line):
    return [cell.strip() for cell in line.strip().strip("|").split("|")]


def figures(lines):
    """{name: number} of the tables, and of lines that say "NAME: p50 X us, p99 Y us" or "NAME [unit] X Y Z"."""
    found = {}
    program, header = "", None
    for line in lines:
        plain = re.match(r"(.*?)(?:: p50|\s\[[^]]*\]\s)(.*)", line)
        if line.startswith("# "):
            program, header = line[2:].strip(), None
        elif line.startswith("|---"):
            continue
        elif line.startswith("|"):
            row = cells(line)
            if header is None:
                header = row
                continue
            for column, cell in list(zip(header, row))[1:]:
                add(found, f"{program}: {row[0]}: {column}", NUMBER.findall(cell))
            continue
        elif plain:
            add(found, f"{program}: {' '.join(plain.group(1).split())}", NUMBER.findall(plain.group(2).replace("p99", "")))
        header = None
    return found


def add(found, name, numbers):
    for index, number in enumerate(numbers, 1):
        found[name if len(numbers) == 1 else f"{name} #{index}"] = float(number)


# A table of the document: its rows, each with the figures' name for it, and its columns, each with the figures it shows.
TABLES = {
    "requests": ("request_bench", "request", {
        "status": "status", "bulk IN 64 B": "64B", "bulk IN 512 B": "512B", "bulk IN 16 KiB": "16KiB", "bulk IN 1 MiB": "1MiB",
    }, {
        "16 in flight, ns each": ["16 in flight, ns each"], "x parsers": ["x parsers (16 in flight)"],
        "x memcpy": ["x memcpy (16 in flight)"], "one in flight, us": ["one in flight, p50 / p99 us #1"],
        "x hand-over": ["x hand-over (p50)"],
    }),
    "camera": ("camera_bench", "size", {size: size for size in ("640x480", "1280x720", "1920x1080", "3840x2160")}, {
        "source to reply": ["source to reply #1", "source to reply #2"],
        "encoder alone": ["encoder alone #1", "encoder alone #2"], "beyond it": ["beyond it #1", "beyond it #2"],
        "waking a thread": ["waking a thread #1", "waking a thread #2"],
        "processor time": ["processor time"], "encoder's alone": ["encoder's alone"],
    }),
}


def table(name, found):
    program, corner, rows, columns = TABLES[name]
    lines = [f"| {corner} | {' | '.join(columns)} |", f"|{'---|' * (len(columns) + 1)}"]
    for row, key in rows.items():
        values = [[found.get(f"{program}: {key}: {figure}") for figure in figures] for figures in columns.values()]
        if any(value is not None for cell in values for value in cell):
            lines.append(f"| {row} | " + " | ".join(" / ".join("" if value is None else f"{value:g}" for value in cell)
                                                    for cell in values) + " |")
    return "\n".join(lines)


def write_tables(document, found):
    """Each table behind its line; the machine behind <!-- machine -->, up to the end of that sentence."""
    with open(document, encoding="utf-8") as file:
        text = file.read()
    text = re.sub(r"(<!-- figures: (\w+) -->\n)(?:\|.*\n)*", lambda at: at[1] + table(at[2], found) + "\n", text)
    text = re.sub(r"(<!-- machine -->)[^.]*(?:\.\d[^.]*)*", lambda at: at[1] + found["machine"], text)
    with open(document, "w", encoding="utf-8") as file:
        file.write(text)


def machine():
    """In words: a processor's name says more than a host's."""
    with open("/proc/cpuinfo", encoding="utf-8") as file:
        model = re.search(r"model name\s*: (.*)", file.read())
    compiler = subprocess.run(["g++", "-dumpfullversion"], capture_output=True, text=True, check=True).stdout.strip()
    virtual = subprocess.run(["systemd-detect-virt", "-q"], check=False).returncode == 0
    return (f"{os.cpu_count()} processors ({model[1].strip() if model else platform.machine()})"
            f"{' of a virtual machine' if virtual else ''}, g++ {compiler} -O3")


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--json")
    parser.add_argument("--compare")
    parser.add_argument("--readme")
    parser.add_argument("output")
    options = parser.parse_args()
    if options.readme:
        with open(options.output, encoding="utf-8") as file:
            write_tables(options.readme, json.load(file))
        return
    with open(options.output, encoding="utf-8") as output:
        new = figures(output.read().splitlines())
    if not new:
        sys.exit("figures.py: no table in the output")
    if options.json:
        with open(options.json, "w", encoding="utf-8") as file:
            json.dump({"machine": machine()} | new, file, indent=1)
            file.write("\n")
    if options.compare:
        with open(options.compare, encoding="utf-8") as file:
            old = json.load(file)
        print(f"\nold: {old.pop('machine')}\nnew: {machine()}")
        print("\n| figure | old | new | new / old |\n|---|---|---|---|")
        for name, value in new.items():
            before = old.get(name)
            ratio = f"{value / before:.2f}" if before else "-"
            print(f"| {name} | {'-' if before is None else f'{before:g}'} | {value:g} | {ratio} |")
        for name in old.keys() - new.keys():
            print(f"| {name} | {old[name]:g} | - | - |")


if __name__ == "__main__":
    main()
