"""What tshark reads in a captured file."""

from __future__ import annotations

import pathlib
import subprocess

FIELDS = ("usb.urb_id", "usb.urb_type", "usb.transfer_type", "usb.endpoint_address", "usb.urb_status", "usb.urb_len",
          "usb.iso.numdesc", "usb.iso.iso_len", "frame.cap_len", "_ws.col.Info", "frame.interface_name")
IN_PROGRESS, CANCELLED = "-115", "-104"

Record = tuple[str, ...]


def read(file: pathlib.Path) -> list[Record]:
    """The records' FIELDS, in the order of the file, which is that of time; none is malformed."""
    fields = [word for field in (*FIELDS, "_ws.malformed", "frame.time_delta") for word in ("-e", field)]
    shown = subprocess.run(["tshark", "-r", file, "-T", "fields", *fields], capture_output=True, text=True, timeout=300,
                           check=True)
    rows = [line.split("\t") for line in shown.stdout.splitlines()]
    # The raw device's strings are none.
    wrong = [row for row in rows if float(row[-1]) < 0 or (row[-2] and row[9:11] != ["GET DESCRIPTOR Response STRING", "raw"])]
    assert not wrong, wrong
    return [tuple(row[:-2]) for row in rows]


def pair(rows: list[Record]) -> list[tuple[Record, Record]]:
    """Each submission with its completion, which comes behind it, of the same device and kind; none is left."""
    pending, pairs = {}, []
    for row in rows:
        urb = row[10], row[0]
        if row[1] == "'S'":
            assert urb not in pending and row[4] == IN_PROGRESS, row
            pending[urb] = row
        else:
            submission = pending.pop(urb)
            assert submission[2:4] == row[2:4], (submission, row)
            pairs.append((submission, row))
    assert not pending, pending
    return pairs
