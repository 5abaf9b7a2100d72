"""Compares the symbols that a module exports with a list of patterns: check_exports.py NM MODULE LIST."""

from __future__ import annotations

import subprocess
import sys
from fnmatch import fnmatchcase


def exported(nm: str, module: str) -> set[str]:
    lines = subprocess.run([nm, "-D", "-C", "--defined-only", module], check=True, text=True,
                           stdout=subprocess.PIPE).stdout.splitlines()
    return {line.split(maxsplit=1)[1] for line in lines}


def listed(path: str) -> set[str]:
    with open(path, encoding="utf-8") as lines:
        return {line.strip() for line in lines if line.strip() and not line.startswith("#")}


def main() -> int:
    nm, module, path = sys.argv[1:]
    found, wanted = exported(nm, module), listed(path)
    unlisted = {symbol for symbol in found if not any(fnmatchcase(symbol, entry) for entry in wanted)}
    missing = {entry for entry in wanted if not any(fnmatchcase(symbol, entry) for symbol in found)}
    for symbol in sorted(unlisted):
        print(f"exported but not listed: {symbol}")
    for entry in sorted(missing):
        print(f"listed but not exported: {entry}")
    return 1 if unlisted or missing else 0


sys.exit(main())
