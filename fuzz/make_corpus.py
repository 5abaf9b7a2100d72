#!/usr/bin/env python3
"""Writes the first inputs of the fuzz targets into corpus/, each in its target's own format.

Run it again when a format changes. Files of faults that were found are not touched.
"""

import pathlib
import struct
import sys

CORPUS = pathlib.Path(__file__).resolve().parent / "corpus"
# Positions in the command table.
(DEVICE, OPEN, CLOSE, PORT, CONFIG, BUS, ADDRESS, STRING, RESET, ATTACH, DETACH, CLEAR_HALT, RELEASE, SET_CONFIG,
 CLAIM, SET_ALT, CANCEL, CONTROL, BULK, INTERRUPT, ISO, SPEED, POLICY, PING) = range(24)
KEYBOARD, PRINTER, CH340, CH9102, WINUSB, RAW, CAMERA = range(7)
ANSWERS_FAILURES, LOGS = 0x80, 0x40


def packet(command: int, payload: bytes = b"", oddities: int = 0) -> bytes:
    return struct.pack("<BBH", command, oddities, len(payload)) + payload


def control(kind: int, request: int, value: int, index: int, length: int) -> bytes:
    return packet(CONTROL, struct.pack("<BBHHHI", kind, request, value, index, length, 1000))


def transfer(command: int, endpoint: int, stream: int, length: int, data: bytes = b"") -> bytes:
    return packet(command, struct.pack("<III", endpoint, stream, length) + data)


def iso(endpoint: int, stream: int, lengths: list[int], data: bytes = b"", count: int = -1) -> bytes:
    table = b"".join(struct.pack("<IIII", 0, n, 0, 0) for n in lengths)
    total = (len(table) + sum(lengths)) & 0xFFFFFFFF
    fields = struct.pack("<IIII", endpoint, stream, len(lengths) if count < 0 else count, total)
    return packet(ISO, fields + table + data)


def wire(command: int, payload: bytes = b"", order: int = 0) -> bytes:
    return struct.pack(">BBHIIB3x" if order else "<BBHIIB3x", 0x27, 1, command, 2, 16 + len(payload), order) + payload


PLAIN = b"".join(packet(command) for command in range(23) if command not in (STRING, SET_CONFIG, SET_ALT, CANCEL,
                                                                             CONTROL, BULK, INTERRUPT, ISO, POLICY))
ENUMERATE = (packet(OPEN) + packet(DEVICE) + packet(CONFIG) + packet(STRING, struct.pack("<BHI", 1, 0x409, 255)) +
             control(0x80, 6, 0x100, 0, 18) + control(0x80, 6, 0x200, 0, 255) + control(0x80, 6, 0x301, 0x409, 255) +
             packet(SET_CONFIG, struct.pack("<I", 1)) + packet(SET_ALT, struct.pack("<II", 0, 1)))
TRANSFERS = (transfer(BULK, 0x81, 7, 64) + transfer(BULK, 0x01, 8, 4, b"data") + transfer(INTERRUPT, 0x82, 9, 8) +
             iso(0x83, 10, [64, 32, 16]) + iso(0x03, 11, [4, 4], b"isochron") + packet(CANCEL, struct.pack("<I", 9)) +
             packet(PING, struct.pack("<IQ", 10, 5)) + packet(PING, struct.pack(">IQ", 10, 5), 1))
ODD = (transfer(BULK, 0x01, 1, 64, b"short") +
       transfer(BULK, 0x81, 1, 0x4000001) + transfer(BULK, 0x81, 1, 0xFFFFFFFF) +
       iso(0x83, 2, [1], count=1025) + iso(0x83, 2, [0xFFFF0000] * 3) + iso(0x83, 2, [8] * 17) + iso(0x83, 2, []) +
       packet(BULK, b"\x81") + packet(STRING, b"\1") + packet(CONTROL, b"\x80\6") + packet(PING) +
       packet(STRING, struct.pack("<BHI", 1, 0x409, 0xFFFFFFFF)) +
       packet(POLICY, struct.pack("<I", 9) + b"\n\0%s%n\x7f()") +
       packet(POLICY, struct.pack("<I", 0x10001)) + struct.pack("<BBHH", 0xFF, 0, 0x102E, 0) +
       struct.pack("<BBIH", SPEED, 2, 0, 0) + struct.pack("<BBIH", DEVICE, 2, 0xFFFFFFFF, 4) + b"data")

PROBE = struct.pack("<HBBI10xII", 0, 1, 1, 333333, 614400, 3072)
STREAM = (packet(OPEN) + control(0xA1, 0x81, 0x100, 1, 26) +
          packet(CONTROL, struct.pack("<BBHHHI", 0x21, 1, 0x100, 1, len(PROBE), 1000) + PROBE) +
          control(0xA1, 0x81, 0x100, 1, 26) +
          packet(CONTROL, struct.pack("<BBHHHI", 0x21, 1, 0x200, 1, len(PROBE), 1000) + PROBE) +
          packet(SET_ALT, struct.pack("<II", 1, 1)) + iso(0x81, 1, [3072] * 8) + iso(0x81, 2, [3072] * 8) +
          packet(CANCEL, struct.pack("<I", 1)) + packet(SET_ALT, struct.pack("<II", 1, 0)) + iso(0x81, 3, [64]) +
          packet(CLOSE) + iso(0x81, 4, [64]))

INTERFACE = bytes([9, 4, 0, 0, 1, 3, 1, 1, 0])
HID = bytes([9, 0x21, 0x11, 1, 0, 1, 0x22, 63, 0])
CDC = bytes([5, 0x24, 0, 0x10, 1, 4, 0x24, 2, 2, 5, 0x24, 6, 0, 1, 5, 0x24, 1, 3, 1])
ENDPOINT = bytes([7, 5, 0x81, 3])


def serialised(extra: bytes, usb_class: int = 3, endpoints: int = 1, more: int = 0) -> bytes:
    setting = bytes([9, 4, 0, 0, endpoints, usb_class, 1, 1, 0, 0, 0, 0]) + struct.pack("<I", len(extra) + more)
    endpoint = ENDPOINT + struct.pack("<H", 0x1408) + bytes([10, 0, 0, 0, 0, 0]) + struct.pack("<I", 0)
    head = struct.pack("<BBHBBBBB3xI", 9, 2, 34, 1, 1, 0, 0xA0, 50, 0)
    return head + struct.pack("<I", 1) + setting + endpoint + extra


# Of a configuration in libusb's layout; see HostileConfig.
TREE = (bytes([9, 2, 1, 0, 0xA0, 50, 34, 0, 2, 0xCC, 0xDD, 2, 0]) +
        (bytes([1, 0]) + INTERFACE + bytes([9]) + HID + bytes([0, 7, 5, 0x81, 3, 10, 0, 0, 8, 0, 0])) * 2)

SEEDS = {
    "packet_fuzz": {
        **{name: bytes([number | ANSWERS_FAILURES]) + PLAIN + ENUMERATE + TRANSFERS
           for name, number in {"keyboard": KEYBOARD, "printer": PRINTER, "ch340": CH340, "ch9102": CH9102,
                                "winusb": WINUSB, "raw": RAW}.items()},
        "camera": bytes([CAMERA | ANSWERS_FAILURES]) + ENUMERATE + STREAM,
        "camera_transcoding": bytes([CAMERA | ANSWERS_FAILURES]) + packet(POLICY, struct.pack("<I", 1) + b"x") + STREAM,
        "camera_at_close": bytes([CAMERA]) + STREAM[:-40],
        "camera_not_opened": bytes([CAMERA | ANSWERS_FAILURES]) + packet(DEVICE) + packet(CONFIG) + STREAM[4:],
        "odd_packets": bytes([RAW]) + ODD,
        "odd_packets_logged": bytes([CH9102 | LOGS]) + ODD + ENUMERATE,
        "pending_at_close": bytes([KEYBOARD | ANSWERS_FAILURES]) + transfer(INTERRUPT, 0x81, 1, 8) * 3 + packet(CLOSE) +
                            transfer(INTERRUPT, 0x81, 2, 8),
        "pending_not_told": bytes([KEYBOARD]) + transfer(INTERRUPT, 0x81, 1, 8) * 3 + packet(RESET),
    },
    "config_fuzz": {
        "serialised_hid": serialised(HID),
        "serialised_cdc": serialised(CDC, usb_class=2),
        "serialised_cut": serialised(HID)[:-3],
        "serialised_counts_too_many_endpoints": serialised(HID, endpoints=255),
        "serialised_counts_too_much_extra": serialised(HID, more=0xFFFFFF00),
        "serialised_extra_of_length_0": serialised(b"\0\0" + HID),
        "tree": TREE,
        "tree_negative_extra": TREE[:8] + b"\xFF" + TREE[11:],
        "tree_negative_settings": TREE[:13] + b"\xFF" + TREE[14:],
        "tree_null_interfaces": TREE[:12] + b"\7" + TREE[13:],
    },
    "framer_fuzz": {
        "three_packets": b"\1\2\3\x10" + wire(0x1002) + wire(0x1020, b"\1\0\0\0") + wire(0x4, b"ping" * 3),
        "other_byte_order": b"\5\0\0\0" + wire(0x1002, order=1) + wire(0x102D, b"\0\0\0\0", order=1),
        "unknown_command_of_other_order": b"\7\7\7\7" + wire(0x6677, order=1),
        "no_packet_after_one": b"\0\0\0\0" + wire(0x1002) + b"GET / HTTP/1.1\r\n\r\n",
        "length_below_header": b"\1\0\0\0" + wire(0x1002)[:8] + b"\x0f\0\0\0" + bytes(8),
        "oversized": b"\x20\1\0\0" + wire(0x1024)[:8] + b"\1\0\1\4" + bytes(60),
        "cut": b"\3\0\0\0" + wire(0x1002)[:15],
    },
}

for target, seeds in SEEDS.items():
    folder = CORPUS / target
    folder.mkdir(parents=True, exist_ok=True)
    for name, content in seeds.items():
        (folder / name).write_bytes(content)
    sys.stdout.write(f"{target}: {len(seeds)} files, {sum(map(len, seeds.values()))} bytes\n")
