"""Compares the symbols that a module exports with a list of patterns: check_exports.py NM MODULE LIST. Of a DLL the import
library is looked at: what it has beside functions is data."""

import pathlib
import subprocess
import sys
from fnmatch import fnmatchcase

NM, MODULE, LIST = sys.argv[1:]
HERE, ELSEWHERE = ("DLL ", "ELF ") if MODULE.endswith(".dll.a") else ("ELF ", "DLL ")


def run(*command, **options):
    return subprocess.run(command, check=True, text=True, stdout=subprocess.PIPE, **options).stdout


def imported():
    symbols = [line.split()[-2:] for line in run(NM, "--defined-only", MODULE).splitlines() if line.count(" ") == 2]
    code = {name for kind, name in symbols if kind == "T"}
    names = sorted(name.removeprefix("__imp_") for _, name in symbols if name.startswith("__imp_"))
    kinds = ["T" if name in code else "V" if name.startswith("_ZT") else "D" for name in names]
    return {" ".join(pair) for pair in zip(kinds, run("c++filt", input="\n".join(names)).splitlines())}


def exported():
    """A class's tables are weak, unless the linker has put the module together as a whole."""
    symbols = [line.split(maxsplit=2)[1:] for line in run(NM, "-D", "-C", "--defined-only", MODULE).splitlines()]
    return {f"{'V' if name.startswith(('vtable for ', 'typeinfo ')) else kind} {name}" for kind, name in symbols}


found = imported() if HERE == "DLL " else exported()
wanted = [line.strip().removeprefix(HERE) for line in pathlib.Path(LIST).read_text(encoding="utf-8").splitlines()
          if line.strip() and not line.startswith(("#", ELSEWHERE))]
wrong = [f"exported but not listed: {symbol}" for symbol in sorted(found)
         if not any(fnmatchcase(symbol, entry) for entry in wanted)]
wrong += [f"listed but not exported: {entry}" for entry in wanted
          if not any(fnmatchcase(symbol, entry) for symbol in found)]
sys.exit("\n".join(wrong) or None)
