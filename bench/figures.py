#!/usr/bin/env python3
"""Figures of the benchmarks' tables, for the next run to be compared with.

usage: figures.py [--json FILE] [--compare OLD.json] OUTPUT

OUTPUT is what the benchmarks printed; a line "# NAME" stands before that of each. Every number in a table cell becomes
a figure; where a cell has several, they are counted (p50 and p99, mostly).
"""
import argparse
import json
import re
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


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--json")
    parser.add_argument("--compare")
    parser.add_argument("output")
    options = parser.parse_args()
    with open(options.output, encoding="utf-8") as output:
        new = figures(output.read().splitlines())
    if not new:
        sys.exit("figures.py: no table in the output")
    if options.json:
        with open(options.json, "w", encoding="utf-8") as file:
            json.dump(new, file, indent=1)
            file.write("\n")
    if options.compare:
        with open(options.compare, encoding="utf-8") as file:
            old = json.load(file)
        print("\n| figure | old | new | new / old |\n|---|---|---|---|")
        for name, value in new.items():
            before = old.get(name)
            ratio = f"{value / before:.2f}" if before else "-"
            print(f"| {name} | {'-' if before is None else f'{before:g}'} | {value:g} | {ratio} |")
        for name in old.keys() - new.keys():
            print(f"| {name} | {old[name]:g} | - | - |")


if __name__ == "__main__":
    main()
