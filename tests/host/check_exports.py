"""Compares the symbols that a module exports with a list: check_exports.py NM MODULE LIST."""

from __future__ import annotations

import subprocess
import sys


def exported(nm: str, module: str) -> set[str]:
    lines = subprocess.run([nm, "-D", "--defined-only", module], check=True, text=True,
                           stdout=subprocess.PIPE).stdout.splitlines()
    return {" ".join(line.split()[-2:]) for line in lines}


def listed(path: str) -> set[str]:
    with open(path, encoding="utf-8") as lines:
        return {line.strip() for line in lines if line.strip() and not line.startswith("#")}


def main() -> int:
    nm, module, path = sys.argv[1:]
    found, wanted = exported(nm, module), listed(path)
    for symbol in sorted(found - wanted):
        print(f"exported but not listed: {symbol}")
    for symbol in sorted(wanted - found):
        print(f"listed but not exported: {symbol}")
    return 0 if found == wanted else 1


sys.exit(main())
