"""Compares the symbols that a module exports with a list of patterns: check_exports.py NM MODULE LIST."""

import pathlib
import subprocess
import sys
from fnmatch import fnmatchcase

NM, MODULE, LIST = sys.argv[1:]
symbols = subprocess.run([NM, "-D", "-C", "--defined-only", MODULE], check=True, text=True, stdout=subprocess.PIPE)
found = {line.split(maxsplit=1)[1] for line in symbols.stdout.splitlines()}
wanted = [line.strip() for line in pathlib.Path(LIST).read_text(encoding="utf-8").splitlines()
          if line.strip() and not line.startswith("#")]
wrong = [f"exported but not listed: {symbol}" for symbol in sorted(found)
         if not any(fnmatchcase(symbol, entry) for entry in wanted)]
wrong += [f"listed but not exported: {entry}" for entry in wanted
          if not any(fnmatchcase(symbol, entry) for symbol in found)]
sys.exit("\n".join(wrong) or None)
