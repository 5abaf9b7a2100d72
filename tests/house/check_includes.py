"""Holds every #include of the product against the table of rooms in docs/architecture.md.

check_includes.py ROOT: each file belongs to the room with the longest pattern that matches it, may include that room, and what
the room's last column names. Prints each include that the table does not allow; exit status 1 when there are any.
"""
import fnmatch
import pathlib
import re
import sys

EXTERNAL = {"libusb-1.0/": "libusb", "libav": "FFmpeg", "libsw": "FFmpeg", "spdlog/": "spdlog", "CLI/": "CLI",
            "nlohmann/": "JSON", "openssl/": "TLS"}
INCLUDE = re.compile(r'^\s*#\s*include\s+(["<])([^">]+)', re.MULTILINE)


def read_table(text):
    """Patterns (longest first) with their rooms, and each room's set of names that it may include."""
    patterns, allowed = [], {}
    for line in text.splitlines():
        cells = [cell.strip() for cell in line.strip().strip("|").split("|")]
        if line.startswith("|") and len(cells) == 4 and cells[1].startswith("`"):
            room = cells[0]
            allowed[room] = {room, *(name.strip() for name in cells[3].split(",") if name.strip())}
            patterns += [(pattern, room) for pattern in re.findall(r"`([^`]+)`", cells[1])]
    return sorted(patterns, key=lambda entry: -len(entry[0])), allowed


def room_of(path, patterns):
    for pattern, room in patterns:
        if path.startswith(pattern) if pattern.endswith("/") else fnmatch.fnmatch(path, pattern):
            return room
    return None


def resolve(root, source, name, folders):
    for folder in (source.parent, *folders):
        if (folder / name).is_file():
            return (folder / name).relative_to(root).as_posix()
    return None


def main(root):
    patterns, allowed = read_table((root / "docs/architecture.md").read_text())
    folders = [root / "src", root / "host", *root.glob("platform/*/include"), *root.glob("platform/*/src")]
    files = sorted(p for top in ("src", "platform", "host", "tools") for p in (root / top).rglob("*") if p.suffix in (".h", ".cpp"))
    faults = []
    seen = set(EXTERNAL.values())
    for room, names in allowed.items():  # A room that may include only what stands above it is in no circle.
        seen.add(room)
        faults += [f"{name!r} does not stand above {room!r}" for name in sorted(names - seen)]
    count = 0
    for source in files:
        path = source.relative_to(root).as_posix()
        room = room_of(path, patterns)
        if room is None:
            faults.append(f"{path} is in no room")
            continue
        for quote, name in INCLUDE.findall(source.read_text()):
            if quote == "<":
                target = next((room for prefix, room in EXTERNAL.items() if name.startswith(prefix)), None)
            elif name.endswith("_export.h"):  # Generated.
                continue
            else:
                found = resolve(root, source, name, folders)
                target = room_of(found, patterns) if found else f"nowhere ({name})"
            count += target is not None
            if target is not None and target not in allowed[room]:
                faults.append(f"{path} ({room}) includes {name} ({target})")
    print(*faults, f"{len(files)} files, {count} includes, {len(faults)} faults", sep="\n")
    return 1 if faults or not files or not allowed else 0


if __name__ == "__main__":
    sys.exit(main(pathlib.Path(sys.argv[1]).resolve()))
