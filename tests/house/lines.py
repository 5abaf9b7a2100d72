"""Counts the lines that are neither blank nor comment of each folder, in .cpp .h .py .sh, and the share of tests and fuzz.

lines.py ROOT [MOST]: exit status 1 when that share, in percent, is above MOST.
"""
import collections
import pathlib
import subprocess
import sys

root = pathlib.Path(sys.argv[1])
counts = collections.Counter()
for name in subprocess.check_output(["git", "-C", root, "ls-files"], text=True).splitlines():
    if name.endswith((".cpp", ".h", ".py", ".sh")) and (root / name).is_file():
        comment = "//" if name.endswith((".cpp", ".h")) else "#"
        lines = (line.strip() for line in (root / name).read_text().splitlines())
        counts[name.split("/")[0]] += sum(1 for line in lines if line and not line.startswith(comment))
total = sum(counts.values())
for folder, count in counts.most_common():
    print(f"{folder:10} {count:6} {100 * count / total:5.1f} %")
share = 100 * (counts["tests"] + counts["fuzz"]) / total
print(f"{'all':10} {total:6}; tests and fuzz {share:.1f} %")
sys.exit(1 if len(sys.argv) > 2 and share > float(sys.argv[2]) else 0)
