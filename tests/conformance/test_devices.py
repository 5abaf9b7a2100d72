"""What the emulated devices say about themselves, and what their endpoints do."""

from __future__ import annotations

import struct
from typing import Optional

import wire
from wire import (CANCEL, CLOSE, DEVICES, GET_CONFIG, GET_DEVICE, MIB, OPEN, Request, answer, bulk, control, filler,
                  given_back, interrupt, iso, iso_given_back, pattern, status, string)

DEVICE = {name: bytes.fromhex(text) for name, text in {
    "ch340": "12 01 10 01 FF 00 00 08 86 1A 23 75 54 02 00 02 00 01",
    "ch9102": "12 01 10 01 02 00 00 08 86 1A D4 55 00 04 00 02 00 01",
    "keyboard": "12 01 00 02 00 00 00 08 01 47 90 02 00 00 01 02 01 01",
    "printer": "12 01 00 02 00 00 00 40 67 28 12 11 00 01 01 02 03 01",
    "raw": "12 01 00 02 FF FF FF 40 FF FF FF FF 64 00 01 02 03 01",
    "winusb": "12 01 00 02 FF FF FF 40 01 47 90 02 64 00 01 02 03 01"}.items()}

CONFIGURATION = {name: bytes.fromhex(text) for name, text in {
    "ch340": """09 02 27 00 01 01 00 80 30  09 04 00 00 03 FF 01 02 00
        07 05 82 02 20 00 00  07 05 02 02 20 00 00  07 05 81 03 08 00 01""",
    "ch9102": """09 02 43 00 02 01 00 E0 42  09 04 00 00 01 02 02 01 00
        05 24 00 10 01  05 24 01 00 01  04 24 02 02  05 24 06 00 01  07 05 83 03 10 00 01
        09 04 01 00 02 0A 00 00 00  07 05 02 02 20 00 00  07 05 82 02 40 00 00""",
    "keyboard": """09 02 22 00 01 01 00 80 50  09 04 00 00 01 03 01 01 00
        09 21 01 00 00 01 22 3F 00  07 05 81 03 08 00 FF""",
    "printer": """09 02 20 00 01 01 00 C0 01  09 04 00 00 02 07 01 02 00
        07 05 01 02 40 00 00  07 05 82 02 40 00 00""",
    "raw": """09 02 3C 00 01 01 00 80 FA  09 04 00 00 06 FF FF FF 00
        07 05 01 02 40 00 00  07 05 81 02 40 00 00  07 05 02 03 40 00 00
        07 05 82 03 40 00 00  07 05 03 01 40 00 00  07 05 83 01 40 00 00""",
    "winusb": """09 02 3C 00 01 01 00 80 FA  09 04 00 00 06 FF FF FF 00
        07 05 81 03 00 04 00  07 05 01 03 00 04 00  07 05 82 03 40 00 00
        07 05 02 03 40 00 00  07 05 83 03 40 00 00  07 05 03 03 40 00 00"""}.items()}

LANGUAGES = bytes.fromhex("04 03 09 04")
NAME = bytes.fromhex("16 03 55 00 53 00 42 00 20 00 43 00 61 00 6D 00 65 00 72 00 61 00")
KEYBOARD_REPORT = bytes.fromhex("""
    05 01 09 06 A1 01 05 07 19 E0 29 E7 15 00 25 01 75 01 95 08 81 02 95 01 75 08 81 01 95 05 75 01
    05 08 19 01 29 05 91 02 95 01 75 03 91 01 95 06 75 08 15 00 25 65 05 07 19 00 29 65 81 00 C0""")
PRINTER_ID = b"\x00\x1AMFG:DV3;CMD:PDF;MDL:VTL;"
OS_STRING = bytes.fromhex("12 03 4D 00 53 00 46 00 54 00 31 00 30 00 30 00 01 00")
COMPATIBLE_ID = bytes.fromhex("28 00 00 00 00 01 04 00 01 00") + bytes(8) + b"WINUSB" + bytes(16)
PROPERTIES = bytes.fromhex("8E 00 00 00 00 01 05 00 01 00  84 00 00 00 01 00 00 00 28 00") + (
    "DeviceInterfaceGUID\0".encode("utf-16-le") + bytes.fromhex("4E 00 00 00") +
    "{13EB360B-BC1E-46CB-AC8B-EF3DA47B4062}\0".encode("utf-16-le"))

# Per device: bmRequestType, bRequest, wValue, wIndex and the answer; COMMON holds for all but raw.
COMMON = [(*kind, value, 0x0409, LANGUAGES if value == 0x0300 else NAME)
          for value in (0x0300, 0x0301, 0x0302, 0x0303) for kind in ((0x80, 0x06), (0xC0, 0x7F), (0x21, 0x09))]
ANSWERED = {
    "ch340": COMMON,
    "ch9102": COMMON,
    "keyboard": COMMON + [(0x81, 0x06, 0x2200, 0, KEYBOARD_REPORT)],
    "printer": COMMON + [(0xA1, 0x00, 0x0000, 0, PRINTER_ID), (0xA1, 0x00, 0x0301, 7, PRINTER_ID),
                         (0xA1, 0x00, 0x0300, 0, LANGUAGES)],
    "raw": [(0x80, 0x06, 0x0305, 0x0409, NAME), (0x40, 0x33, 0x0305, 0, NAME)],
    "winusb": COMMON + [(0x80, 0x06, 0x03EE, 0, OS_STRING), (0xC0, 0xA0, 0, 4, COMPATIBLE_ID),
                        (0xC0, 0xA0, 0, 5, PROPERTIES), (0xC1, 0xA0, 0, 5, PROPERTIES)]}

# What only some device answers; no device answers the last ones.
SPECIAL = [(0x80, 6, 0x0300, 0), (0x80, 6, 0x0305, 0), (0x80, 6, 0x03EE, 0), (0x81, 6, 0x2200, 0), (0xA1, 0, 0, 0),
           (0xC0, 0xA0, 0, 4), (0xC0, 0xA0, 0, 5), (0x80, 6, 0x0304, 0), (0x21, 0x20, 0, 0), (0xC0, 0x01, 0, 4),
           (0x00, 0x09, 1, 0), (0xE0, 6, 0x0100, 0), (0xA0, 6, 0x0200, 0)]


def serialised(raw: bytes) -> list[Optional[int]]:
    """The configuration as 16-byte records with the lengths of their class bytes, which follow the parts. None: any byte."""
    config: list = [raw[:9], b"", []]  # Descriptor, class bytes, parts.
    level, at = config, 9
    while at < len(raw):
        descriptor = raw[at:at + raw[at]]
        at += raw[at]
        if descriptor[1] == 4:
            level = [descriptor, b"", []]
            config[2].append(level)  # Each has one setting here.
        elif descriptor[1] == 5:
            level[2].append([descriptor, b"", []])
        else:
            level[1] += descriptor

    def record(descriptor: bytes, extra: bytes, parts: list, settings: bytes = b"") -> list[Optional[int]]:
        inner = [byte for part in parts for byte in (*settings, *record(*part))]
        return [*descriptor.ljust(9, b"\0"), None, None, None, *struct.pack("<I", len(extra)), *inner, *extra]

    return record(*config, b"\1\0\0\0")


class Devices(wire.WireTestCase):
    def test_device_descriptor_command_makes_endpoint_zero_64_bytes_for_good(self) -> None:
        for name, original in DEVICE.items():
            patched = original[:7] + b"\x40" + original[8:]
            read = control(0x80, 6, 0x0100, 0, filler(64))
            self.expect(name, [(read, answer(original)), (Request(OPEN), status(0)), (read, answer(original)),
                               *[(Request(GET_DEVICE), patched)] * 2,
                               *((control(0x80, 6, 0x0100, 0, filler(n)), answer(patched[:n]))
                                 for n in (0, 8, 17, 18, 19, 255))])

    def test_configuration_is_serialised_by_its_command_and_whole_by_control_transfer_from_the_open_on(self) -> None:
        for name, whole in CONFIGURATION.items():
            def read(n: int) -> Request:
                return control(0x80, 6, 0x0200, 0, filler(n))
            replies, _ = self.serve(name, [Request(GET_CONFIG), Request(OPEN), Request(GET_CONFIG)])
            for reply in (replies[0], replies[2]):
                expected = serialised(whole)
                seen = [None if wanted is None else byte for byte, wanted in zip(reply[16:], expected)]
                self.assertEqual((seen, len(reply)), (expected, 16 + len(expected)), name)
            opened = [(Request(OPEN), status(0)), *((read(n), answer(whole[:n])) for n in (
                0, 1, 9, len(whole) - 1, len(whole), len(whole) + 1, 0xFFFF)), (Request(CLOSE), status(0))]
            self.expect(name, [(read(255), answer(b"")), *opened, *opened])

    def test_strings_and_control_requests_are_answered_and_cut(self) -> None:
        for name in DEVICES:
            exchanges = [(string(index, language, n), answer(NAME[:n]))
                         for index, language in ((0, 0), (1, 0x0409), (255, 0xFFFF))
                         for n in (0, 1, 21, 22, 23, 4096, 0x7FFFFFFF)]
            for *setup, data in ANSWERED[name]:
                exchanges += [(control(*setup, filler(n)), answer(data[:n]))
                              for n in (0, 1, len(data) - 1, len(data), len(data) + 1, 255)]
            known = [tuple(row[:3]) for row in ANSWERED[name]] + [(0xC0, 0xA0, 0)] * (name == "winusb")
            for setup in [setup for setup in SPECIAL if setup[:3] not in known]:
                exchanges += [(control(*setup, filler(n)), answer(filler(n))) for n in (0, 7, 300)]
            self.expect(name, [*exchanges, (control(0x40, 0x55, 0, 0, filler(0xFFFF)), answer(filler(0xFFFF)))])

    def test_endpoints_send_the_pattern_and_give_back_what_they_are_sent(self) -> None:
        self.assertEqual(pattern(258)[:2] + pattern(258)[252:], bytes.fromhex("FF FE  03 02 01 FF FE FD"))
        for name in DEVICES:
            silent = name in ("keyboard", "ch9102")  # Their interrupt endpoints never have anything to say.
            exchanges = [(make(endpoint, n, filler(n)), given_back(n, data(n)))
                         for make in ((bulk,) if silent else (bulk, interrupt))
                         for endpoint, data in ((0x82, pattern), (0x02, filler)) for n in (0, 1, 255, 256, 766, MIB)]
            exchanges += [(iso(endpoint, 7, lengths), iso_given_back(7, lengths, data(sum(lengths))))
                          for endpoint, data in ((0x83, pattern), (0xFF, pattern), (0x03, filler))
                          for lengths in ([100] * 3, [5, 0, 300, 1], [0, 0], [], [10] * 15)]
            if silent:
                for stream in (0, 1, 0xFFFFFFFF):
                    exchanges += [(interrupt(0x81 if stream else 0x01, stream, bytes(8)), None),
                                  (bulk(0x82, stream, bytes(2)), given_back(stream, pattern(2)))]
                exchanges.append((Request(CANCEL, struct.pack("<I", 1)), status(0)))
            self.expect(name, exchanges)
