"""What the emulated devices say about themselves: descriptors, strings and control answers."""

from __future__ import annotations

import wire
from wire import (CLOSE, DEVICES, GET_CONFIG, GET_DEVICE, OPEN, USB_CAMERA, Request, Served, answer,
                  control, filler, status, string)

DEVICE = {name: bytes.fromhex(text) for name, text in {
    "ch340": "12 01 10 01 FF 00 00 08 86 1A 23 75 54 02 00 02 00 01",
    "ch9102": "12 01 10 01 02 00 00 08 86 1A D4 55 00 04 00 02 00 01",
    "keyboard": "12 01 00 02 00 00 00 08 01 47 90 02 00 00 01 02 01 01",
    "printer": "12 01 00 02 00 00 00 40 67 28 12 11 00 01 01 02 03 01",
    "raw": "12 01 00 02 FF FF FF 40 FF FF FF FF 64 00 01 02 03 01",
    "winusb": "12 01 00 02 FF FF FF 40 01 47 90 02 64 00 01 02 03 01"}.items()}

# As the guest's GET_DESCRIPTOR reads it.
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

# As the get-configuration command serialises it: 16-byte records, xx bytes carry no meaning.
SERIALISED = {
    "ch340": """09 02 27 00 01 01 00 80 30 xx xx xx 00 00 00 00  01 00 00 00
        09 04 00 00 03 FF 01 02 00 xx xx xx 00 00 00 00
        07 05 82 02 20 00 00 00 00 xx xx xx 00 00 00 00
        07 05 02 02 20 00 00 00 00 xx xx xx 00 00 00 00
        07 05 81 03 08 00 01 00 00 xx xx xx 00 00 00 00""",
    "ch9102": """09 02 43 00 02 01 00 E0 42 xx xx xx 00 00 00 00  01 00 00 00
        09 04 00 00 01 02 02 01 00 xx xx xx 13 00 00 00
        07 05 83 03 10 00 01 00 00 xx xx xx 00 00 00 00
        05 24 00 10 01 05 24 01 00 01 04 24 02 02 05 24 06 00 01  01 00 00 00
        09 04 01 00 02 0A 00 00 00 xx xx xx 00 00 00 00
        07 05 02 02 20 00 00 00 00 xx xx xx 00 00 00 00
        07 05 82 02 40 00 00 00 00 xx xx xx 00 00 00 00""",
    "keyboard": """09 02 22 00 01 01 00 80 50 xx xx xx 00 00 00 00  01 00 00 00
        09 04 00 00 01 03 01 01 00 xx xx xx 09 00 00 00
        07 05 81 03 08 00 FF 00 00 xx xx xx 00 00 00 00  09 21 01 00 00 01 22 3F 00""",
    "printer": """09 02 20 00 01 01 00 C0 01 xx xx xx 00 00 00 00  01 00 00 00
        09 04 00 00 02 07 01 02 00 xx xx xx 00 00 00 00
        07 05 01 02 40 00 00 00 00 xx xx xx 00 00 00 00
        07 05 82 02 40 00 00 00 00 xx xx xx 00 00 00 00""",
    "raw": """09 02 3C 00 01 01 00 80 FA xx xx xx 00 00 00 00  01 00 00 00
        09 04 00 00 06 FF FF FF 00 xx xx xx 00 00 00 00
        07 05 01 02 40 00 00 00 00 xx xx xx 00 00 00 00
        07 05 81 02 40 00 00 00 00 xx xx xx 00 00 00 00
        07 05 02 03 40 00 00 00 00 xx xx xx 00 00 00 00
        07 05 82 03 40 00 00 00 00 xx xx xx 00 00 00 00
        07 05 03 01 40 00 00 00 00 xx xx xx 00 00 00 00
        07 05 83 01 40 00 00 00 00 xx xx xx 00 00 00 00""",
    "winusb": """09 02 3C 00 01 01 00 80 FA xx xx xx 00 00 00 00  01 00 00 00
        09 04 00 00 06 FF FF FF 00 xx xx xx 00 00 00 00
        07 05 81 03 00 04 00 00 00 xx xx xx 00 00 00 00
        07 05 01 03 00 04 00 00 00 xx xx xx 00 00 00 00
        07 05 82 03 40 00 00 00 00 xx xx xx 00 00 00 00
        07 05 02 03 40 00 00 00 00 xx xx xx 00 00 00 00
        07 05 83 03 40 00 00 00 00 xx xx xx 00 00 00 00
        07 05 03 03 40 00 00 00 00 xx xx xx 00 00 00 00"""}

LANGUAGES = bytes.fromhex("04 03 09 04")
KEYBOARD_REPORT = bytes.fromhex("""
    05 01 09 06 A1 01 05 07 19 E0 29 E7 15 00 25 01 75 01 95 08 81 02 95 01 75 08 81 01 95 05 75 01
    05 08 19 01 29 05 91 02 95 01 75 03 91 01 95 06 75 08 15 00 25 65 05 07 19 00 29 65 81 00 C0""")
PRINTER_ID = b"\x00\x1AMFG:DV3;CMD:PDF;MDL:VTL;"
OS_STRING = bytes.fromhex("12 03 4D 00 53 00 46 00 54 00 31 00 30 00 30 00 01 00")
COMPATIBLE_ID = bytes.fromhex("""
    28 00 00 00 00 01 04 00 01 00 00 00 00 00 00 00
    00 00 57 49 4E 55 53 42 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00""")
PROPERTIES = bytes.fromhex("""
    8E 00 00 00 00 01 05 00 01 00  84 00 00 00 01 00 00 00 28 00
    44 00 65 00 76 00 69 00 63 00 65 00 49 00 6E 00 74 00 65 00 72 00 66 00 61 00 63 00 65 00
    47 00 55 00 49 00 44 00 00 00  4E 00 00 00
    7B 00 31 00 33 00 45 00 42 00 33 00 36 00 30 00 42 00 2D 00 42 00 43 00 31 00 45 00 2D 00
    34 00 36 00 43 00 42 00 2D 00 41 00 43 00 38 00 42 00 2D 00 45 00 46 00 33 00 44 00 41 00
    34 00 37 00 42 00 34 00 30 00 36 00 32 00 7D 00 00 00""")

# Per device: bmRequestType, bRequest, wValue, wIndex and the answer; COMMON holds for all but raw.
COMMON = [(request_type, request, value, 0x0409, data)
          for value, data in ((0x0300, LANGUAGES), (0x0301, USB_CAMERA), (0x0302, USB_CAMERA),
                              (0x0303, USB_CAMERA))
          for request_type, request in ((0x80, 0x06), (0xC0, 0x7F), (0x21, 0x09))]
ANSWERED = {
    "ch340": COMMON,
    "ch9102": COMMON,
    "keyboard": COMMON + [(0x81, 0x06, 0x2200, 0, KEYBOARD_REPORT)],
    "printer": COMMON + [(0xA1, 0x00, 0x0000, 0, PRINTER_ID), (0xA1, 0x00, 0x0001, 7, PRINTER_ID),
                         (0xA1, 0x00, 0x0301, 0, PRINTER_ID), (0xA1, 0x00, 0x0300, 0, LANGUAGES)],
    "raw": [(0x80, 0x06, 0x0305, 0x0409, USB_CAMERA), (0x40, 0x33, 0x0305, 0, USB_CAMERA)],
    "winusb": COMMON + [(0x80, 0x06, 0x03EE, 0, OS_STRING), (0xC0, 0xA0, 0, 4, COMPATIBLE_ID),
                        (0xC0, 0xA0, 0, 5, PROPERTIES), (0xC1, 0xA0, 0, 5, PROPERTIES)]}

# Requests that no device knows, and per device those that only another one answers.
UNKNOWN = [(0x80, 0x06, 0x0304, 0), (0x80, 0x06, 0x0600, 0), (0x21, 0x20, 0, 0),
           (0xA1, 0x21, 0, 0), (0x80, 0x00, 0, 0), (0x00, 0x09, 1, 0), (0xC0, 0x01, 0, 4),
           (0xC0, 0x01, 0, 5), (0x40, 0xA1, 0x1312, 0xB282), (0xE0, 0x06, 0x0100, 0),
           (0xA0, 0x06, 0x0200, 0)]
NOT_THIS_ONE = {
    "ch340": [(0x80, 6, 0x0305, 0), (0x81, 6, 0x2200, 0), (0xA1, 0, 0, 0), (0xC0, 0xA0, 0, 4)],
    "ch9102": [(0x80, 6, 0x03EE, 0), (0x81, 6, 0x2200, 0), (0xA1, 0, 0, 0), (0xC0, 0xA0, 0, 5)],
    "keyboard": [(0x80, 6, 0x0305, 0), (0xA1, 0, 0, 0), (0x81, 6, 0x2100, 0)],
    "printer": [(0x80, 6, 0x0305, 0), (0x81, 6, 0x2200, 0), (0xA1, 1, 0, 0), (0x21, 0, 0, 0)],
    "raw": [(0x80, 6, 0x0300, 0), (0x80, 6, 0x0301, 0), (0x80, 6, 0x0302, 0), (0x80, 6, 0x0303, 0),
            (0x80, 6, 0x03EE, 0), (0xC0, 0xA0, 0, 4), (0xA1, 0, 0, 0), (0x81, 6, 0x2200, 0)],
    "winusb": [(0x80, 6, 0x0305, 0), (0xC0, 0xA0, 0, 3), (0xC0, 0xA0, 0, 6), (0xA1, 0, 0, 0)]}


def without_unset_bytes(payload: bytes, layout: str) -> tuple[bytes, bytes]:
    """`payload` and the bytes of `layout`, both with zeroes where `layout` says xx."""
    cells = layout.split()
    unset = {i for i, cell in enumerate(cells) if cell == "xx"}
    seen = bytes(0 if i in unset else byte for i, byte in enumerate(payload))
    return seen, bytes(0 if i in unset else int(cell, 16) for i, cell in enumerate(cells))


class Descriptors(wire.WireTestCase):
    """Device, configuration and string descriptors, by command and by control transfer."""

    def get_descriptor(self, device: Served, value: int, length: int, expected: bytes,
                       request_type: int = 0x80) -> None:
        request = control(request_type, 6, value, 0, filler(length))
        self.expect(device, request, answer(expected[:length]))

    def test_device_descriptor_command_makes_endpoint_zero_64_bytes_for_good(self) -> None:
        for name in DEVICES:
            original = DEVICE[name]
            patched = original[:7] + b"\x40" + original[8:]
            with self.subTest(device=name), Served(name) as device:
                self.get_descriptor(device, 0x0100, 64, original)
                self.expect(device, Request(OPEN), status(0))
                self.get_descriptor(device, 0x0100, 18, original)
                self.expect(device, Request(GET_DEVICE), patched)
                self.expect(device, Request(GET_DEVICE), patched)
                for length in (0, 8, 17, 18, 19, 255):
                    self.get_descriptor(device, 0x0100, length, patched)

    def test_configuration_command_serialises_records_and_class_bytes(self) -> None:
        for name in DEVICES:
            with self.subTest(device=name), Served(name) as device:
                for request in (Request(GET_CONFIG), Request(OPEN), Request(GET_CONFIG)):
                    reply = device.ask(request)
                    if request.command == GET_CONFIG:
                        seen, expected = without_unset_bytes(reply[16:], SERIALISED[name])
                        self.assertEqual(seen, expected)
                        self.assertEqual(reply, request.reply(reply[16:]))

    def test_configuration_by_control_transfer_exists_from_the_first_open_on(self) -> None:
        for name in DEVICES:
            whole = CONFIGURATION[name]
            with self.subTest(device=name), Served(name) as device:
                self.get_descriptor(device, 0x0200, 255, b"")
                for _ in range(2):
                    self.expect(device, Request(OPEN), status(0))
                    for length in (0, 1, 9, len(whole) - 1, len(whole), len(whole) + 1, 0xFFFF):
                        self.get_descriptor(device, 0x0200, length, whole)
                    self.expect(device, Request(CLOSE), status(0))

    def test_descriptor_requests_are_claimed_by_type_and_recipient_alone(self) -> None:
        device_descriptor, configuration = DEVICE["keyboard"], CONFIGURATION["keyboard"]
        with Served("keyboard") as device:
            self.expect(device, Request(OPEN), status(0))
            for request_type in (0x80, 0x81, 0x00, 0x01):
                with self.subTest(served=hex(request_type)):
                    self.get_descriptor(device, 0x0100, 255, device_descriptor, request_type)
                    self.get_descriptor(device, 0x0205, 255, configuration, request_type)
            for request_type in (0x82, 0x83, 0x84, 0x02):
                with self.subTest(empty=hex(request_type)):
                    self.get_descriptor(device, 0x0100, 255, b"", request_type)
                    self.get_descriptor(device, 0x0200, 255, b"", request_type)
            for request_type in (0xA0, 0xC0, 0xE0):
                with self.subTest(backend=hex(request_type)):
                    self.get_descriptor(device, 0x0100, 40, filler(40), request_type)

    def test_string_command_gives_the_same_string_for_any_index_and_language(self) -> None:
        for name in DEVICES:
            with self.subTest(device=name), Served(name) as device:
                for index, language in ((0, 0), (1, 0x0409), (2, 0xFFFF), (0xEE, 0), (255, 0x0407)):
                    for length in (0, 1, 2, 21, 22, 23, 255, 256, 4096):
                        self.expect(device, string(index, language, length),
                                    answer(USB_CAMERA[:length]))


class ControlAnswers(wire.WireTestCase):
    """What each device answers to control requests that reach it."""

    def test_known_requests_are_answered_and_cut_to_the_requested_length(self) -> None:
        for name in DEVICES:
            with Served(name) as device:
                for *setup, data in ANSWERED[name]:
                    for length in (0, 1, len(data) - 1, len(data), len(data) + 1, 255):
                        with self.subTest(device=name, setup=setup, length=length):
                            self.expect(device, control(*setup, filler(length)),
                                        answer(data[:length]))

    def test_unknown_requests_return_their_own_data_in_full_length(self) -> None:
        for name in DEVICES:
            with Served(name) as device:
                for setup in UNKNOWN + NOT_THIS_ONE[name]:
                    for length in (0, 7, 300):
                        with self.subTest(device=name, setup=setup, length=length):
                            self.expect(device, control(*setup, filler(length)),
                                        answer(filler(length)))
                self.expect(device, control(0x40, 0x55, 0, 0, filler(0xFFFF)),
                            answer(filler(0xFFFF)))

    def test_clear_feature_of_an_endpoint_clears_it_and_still_reaches_the_device(self) -> None:
        for name in DEVICES:
            with self.subTest(device=name), Served(name) as device:
                self.expect(device, control(0x02, 1, 0, 0x81, b""), status(0))
                self.expect(device, control(0x02, 1, 0, 0x02, filler(4)), answer(filler(4)))
                self.expect(device, control(0x00, 1, 1, 0x05, b""), status(0))
                self.assertEqual(device.finish(), [])
                texts = [line[line.index("Clear feature"):].strip()
                         for line in device.log.splitlines() if "Clear feature" in line]
                self.assertEqual(texts, [
                    "Clear feature status[0], rt[0x2], r[0x1], v[0x0], i[0x81]",
                    "Clear feature status[0], rt[0x2], r[0x1], v[0x0], i[0x2]"])


if __name__ == "__main__":
    wire.main()
