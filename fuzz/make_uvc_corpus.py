#!/usr/bin/env python3
"""Writes the first inputs of the camera's fuzz targets into corpus/, as make_corpus.py does for the others."""

import pathlib
import struct
import sys

CORPUS = pathlib.Path(__file__).resolve().parent / "corpus"
YUYV, MJPEG = 4, 6
STILL = bytes([10, 0x24, 3, 0, 1, 0x80, 2, 0xE0, 1, 0])
COLOR = bytes([6, 0x24, 13, 1, 1, 4])
FID, EOF, ERR = 1, 2, 0x40


def frame(index: int, width: int, height: int, intervals: int = 1) -> bytes:
    return (struct.pack("<BBBBBHHIIIIB", 26 + 4 * intervals, 0x24, 5, index, 0, width, height, 1, 2, 3, 333333,
                        intervals) + struct.pack("<I", 333333) * intervals)


def form(subtype: int, index: int, frames: list[bytes], tail: bytes = STILL + COLOR, count: int = -1) -> bytes:
    length = {YUYV: 27, MJPEG: 11}[subtype]
    head = bytes([length, 0x24, subtype, index, len(frames) if count < 0 else count])
    return head.ljust(length, b"\0") + b"".join(frames) + tail


def block(formats: list[bytes], count: int = -1, total: int = -1) -> bytes:
    body = b"".join(formats)
    length = 13 + len(formats)
    head = struct.pack("<BBBBHBBBBBBB", length, 0x24, 1, len(formats) if count < 0 else count,
                       length + len(body) if total < 0 else total, 0x81, 0, 5, 2, 0, 0, 1)
    return head.ljust(length, b"\0") + body


def payload(info: int, data: bytes = b"", header: int = 12) -> bytes:
    packet = bytes([12, info]).ljust(header, b"\xEE")[:header] + data
    return bytes([len(packet)]) + packet


def interface(kind: int, shape: int, extra: bytes = b"", endpoint: bytes = b"") -> bytes:
    return bytes([kind, shape, len(extra)]) + extra + bytes([len(endpoint)]) + endpoint


FOUR = [frame(1, 640, 480), frame(2, 1280, 720), frame(3, 1920, 1080), frame(4, 3840, 2160)]
SMALL = block([form(YUYV, 1, FOUR[:1])])
TWO = block([form(MJPEG, 1, FOUR), form(YUYV, 2, FOUR[:2])])
LIMIT = struct.pack("<H", 1080)
PICTURE = [payload(0, b"abcd"), payload(0, b"efgh"), payload(FID, b"ijkl"), payload(FID | EOF, b"m"), payload(0)]

SEEDS = {
    "uvc_block_fuzz": {
        "two_formats": LIMIT + TWO,
        "every_frame_too_tall": b"\0\0" + TWO,
        "no_still_image_or_colour": LIMIT + block([form(YUYV, 1, FOUR, b""), form(MJPEG, 2, FOUR[:1], COLOR)]),
        "nine_intervals": LIMIT + block([form(YUYV, 1, [frame(1, 640, 480, 9), FOUR[3]])]),
        "counts_too_high": LIMIT + block([form(YUYV, 1, FOUR, count=255)], count=255, total=0xFFFF),
        "frame_of_no_length": LIMIT + block([form(YUYV, 1, [FOUR[0], b"\0" + FOUR[1][1:]])]),
        "cut": LIMIT + TWO[:-20],
        "header_alone": LIMIT + block([]),
    },
    "uvc_config_fuzz": {
        "isochronous": interface(0x30, 1) + interface(1, 2, SMALL),
        "bulk_behind_endpoint": interface(1, 9, b"", SMALL[:21]),
        "short_behind_endpoint": interface(1, 9, b"", SMALL[:20]) + interface(1, 1, SMALL),
        "nothing": interface(1, 1),
        "null_pointers": interface(1, 5) + interface(1, 0x39) + interface(1, 0x61, SMALL),
        "six_bytes": interface(1, 1, SMALL[:6]),
    },
    "uvc_payload_fuzz": {
        "toggle_and_end": b"\x40\0\3" + b"".join(PICTURE),
        "overflow": b"\6\0\1" + b"".join(PICTURE),
        "errors_and_short_ones": b"\x40\0\7" + payload(0, b"ab") + payload(ERR | EOF, b"x") + payload(EOF, header=11) +
                                 payload(EOF) * 2 + b"\0" + b"".join(PICTURE),
        "no_room": b"\0\0\1" + b"".join(PICTURE),
        "lying_table": b"\x40\0\1" + struct.pack("<IIII", 16, 9, 20, 0) + struct.pack("<IIII", 0xFFFFFFF0, 9, 32, 0) +
                       bytes(20),
    },
}

for target, seeds in SEEDS.items():
    folder = CORPUS / target
    folder.mkdir(parents=True, exist_ok=True)
    for name, content in seeds.items():
        (folder / name).write_bytes(content)
    sys.stdout.write(f"{target}: {len(seeds)} files, {sum(map(len, seeds.values()))} bytes\n")
