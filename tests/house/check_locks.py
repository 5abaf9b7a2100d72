"""Holds the table of locks in docs/threads.md against the locks that the product declares.

check_locks.py ROOT: every Mutex of src/ has a level (VEL_LOCK_LEVEL), and every lock of src/, platform/ and host/ a row of the
table that says its level, which is "Platform" or "Host" outside src/. Prints what is missing, stale or different; exit status 1
when anything is.
"""
import pathlib
import re
import sys

LOCK = re.compile(r"^\s*(?:mutable )?(?:vel::)?Mutex (\w+)(?: VEL_LOCK_LEVEL\((\w+)\))?;|^\s*std::(?:shared_)?mutex (\w+);")
OWNER = re.compile(r"^(\s*)(?:class|struct)\s+(?:VEL_\w+(?:\([^)]*\))?\s+)?([\w:]+)(?:\s+final)?\s*(?::[^:]|\{|$)")


def declared(root):
    locks = {}
    for top, level in (("src", None), ("platform", "Platform"), ("host", "Host")):
        for path in sorted((root / top).rglob("*")):
            if path.suffix not in (".h", ".cpp") or path.name in ("Mutex.h", "LockOrder.h"):
                continue
            owners = []  # By their indentation, which clang-format sees to.
            for line in path.read_text().splitlines():
                found, owner = LOCK.match(line), OWNER.match(line)
                if owner:
                    owners = [each for each in owners if each[0] < len(owner[1])] + [(len(owner[1]), owner[2])]
                elif found:
                    indent = len(line) - len(line.lstrip())
                    name = next((name for at, name in reversed(owners) if at < indent), "?")
                    locks[f"{name}::{found[1] or found[3]}"] = level or found[2]
    return locks


def documented(root):
    rows = {}
    for line in (root / "docs/threads.md").read_text().splitlines():
        cells = [cell.strip() for cell in line.strip("|").split("|")]
        if line.startswith("| `") and len(cells) == 4:
            rows.update({name: cells[1] for name in re.findall(r"`([^`]+)`", cells[0])})
    return rows


def main(root):
    locks, rows = declared(root), documented(root)
    faults = [f"{name} has no level" for name, level in locks.items() if level is None]
    faults += [f"{name} ({level}) is not in the table" for name, level in locks.items() if name not in rows]
    faults += [f"{name} is in the table and not in the code" for name in rows if name not in locks]
    faults += [f"{name} is {locks[name]} in the code, {level} in the table" for name, level in rows.items()
               if name in locks and locks[name] not in (None, level)]
    print(*faults, f"{len(locks)} locks, {len(faults)} faults", sep="\n")
    return 1 if faults or not locks else 0


if __name__ == "__main__":
    sys.exit(main(pathlib.Path(sys.argv[1]).resolve()))
