"""Line by line: what `virtusb describe` and `lsusb -v` say of the same device."""

from __future__ import annotations

import itertools
import re

# Not a matter of descriptors, or asked of the device in another way than through its packets.
NOT_OURS = re.compile(r"Device Qualifier|Device Status|can't |cannot |STDERR")
# The module's own answer; the strings that could not be read; names from a database that may not be there.
CHANGES = ((r"^(Bus .* ID \w+:\w+) .*", r"\1"), (r"^( *bMaxPacketSize0 ).*", r"\1"), (r" \((error|\?\?)\)$", ""),
           (r"^( *id(Vendor|Product) +0x\w+).*", r"\1"))
# A processing unit of UVC 1.0 has no video standards: lsusb takes the next descriptor's. It turns the fields of MJPEG round.
LSUSBS_FAULTS = re.compile(r"^ {6}Warning: Descriptor too short\n((?:.*\n)*?) {8}bmVideoStandards .*\n(?: {10}.*\n)*"
                           r"|^ +Fields per frame: .*\n", re.MULTILINE)
# The report's items are not a descriptor's; audio has no tables.
LEFT_OUT = re.compile(r" *(Report Descriptor|Audio\w+ (Interface|Endpoint) Descriptor|Warning: Junk at end of descriptor"
                      r"|\*\* UNRECOGNIZED:  \w\w 2[45] )")
NAMED = re.compile(r" *b(Device|Interface|Function)(Class|SubClass|Protocol) +\d+")


def lines(text: str) -> list[str]:
    """What is to be compared of a text."""
    result: list[str] = []
    block = None  # Depth of the heading of what is left out.
    for line in LSUSBS_FAULTS.sub(r"\1", text).splitlines():
        if NOT_OURS.match(line):
            break
        depth = len(line) - len(line.lstrip())
        if LEFT_OUT.match(line):
            block = depth
        elif block is not None and depth <= block:
            block = None
        if line.strip() and block is None:
            for pattern, replacement in CHANGES:
                line = re.sub(pattern, replacement, line)
            result.append(line.rstrip())
    return result


def difference(ours: str, theirs: str) -> str:
    """Empty when every line is the same; else the first that differs, with its number."""
    for number, (our, their) in enumerate(itertools.zip_longest(lines(ours), lines(theirs)), 1):
        named = NAMED.match(our or "")
        if our != their and not (named and named[0] == their):
            return f"line {number}: {our!r}, lsusb has {their!r}"
    return ""
