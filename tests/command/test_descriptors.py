"""Descriptors of every kind that the tables know: `virtusb describe` prints them line by line as `lsusb -v` does."""

from __future__ import annotations

import os
import shutil
import subprocess
import tempfile
import unittest
from struct import pack
from typing import Union

import lsusb_lines
import wire
from test_command import COMMAND

GUID = bytes.fromhex("5955593200001000800000aa00389b71")


def descriptor(*parts: Union[int, bytes]) -> bytes:
    """One descriptor; its length comes first."""
    body = b"".join(part if isinstance(part, bytes) else bytes([part]) for part in parts)
    return bytes([1 + len(body)]) + body


def cs(*parts: Union[int, bytes]) -> bytes:
    return descriptor(0x24, *parts)


def interface(number: int, endpoints: int, *class_codes: int) -> bytes:
    return descriptor(4, number, 0, endpoints, *class_codes, 0)


def endpoint(address: int, attributes: int, size: int, *companion: Union[int, bytes]) -> bytes:
    return descriptor(5, address, attributes, pack("<H", size), 1) + (
        descriptor(0x30, *companion) if companion else b"")


FRAME = pack("<HHIIII", 640, 480, 1000, 2000, 614400, 333333)
FRAME_BASED = pack("<HHIII", 640, 480, 1000, 2000, 333333)

CONTROL = (interface(0, 0, 14, 1, 0),
           cs(1, pack("<HHI", 0x0110, 0x80, 48000000), 1, 1),
           cs(2, 1, pack("<H", 0x0201), 0, 3, bytes(6), 3, b"\xff\xff\x0f"),
           cs(2, 2, pack("<H", 0x0401), 1, 0), cs(2, 9, pack("<H", 0x0202), 0, 0, 2, 0x1F, 0),
           cs(3, 8, pack("<H", 0x0101), 0, 6, 0), cs(4, 3, 2, 1, 2, 0),
           cs(5, 4, 1, 0, 0x40, 2, b"\x7f\x17", 0), cs(5, 5, 1, 0, 0x40, 3, b"\xff\xff\x07", 0, 0x3F),
           cs(6, 6, GUID, 4, 1, 4, 2, 15, 1, 6), cs(7, 10, 6, 0, 3, b"\x00\xff\x0f\xff\x0f\x00"), cs(0x20, 1, 2, 3))
STREAMING = (interface(1, 0, 14, 2, 0),
             cs(1, 3, 0, 1, 0x81, 1, 8, 2, 1, 0, 1, 4, 0x2F, 0x14), cs(2, 1, 50, 0, 2, 3, 1, 1),
             cs(4, 1, 3, GUID, 16, 1, 4, 3, 0x25, 0), cs(5, 1, 1, FRAME, 2, pack("<II", 333333, 666666)),
             cs(5, 2, 2, FRAME, 0, pack("<III", 333333, 666666, 1)),
             cs(3, 0x82, 2, pack("<HHHH", 640, 480, 320, 240), 2, 1, 5), cs(13, 1, 7, 4), cs(13, 6, 9, 7),
             cs(6, 2, 1, 1, 1, 0, 0, 0, 1), cs(7, 1, 0, FRAME, 1, pack("<I", 333333)),
             cs(16, 3, 1, GUID, 16, 1, 0, 0, 0x32, 0, 1), cs(17, 1, 2, FRAME_BASED, 1, bytes(4), pack("<I", 333333)),
             cs(17, 2, 2, FRAME_BASED, 0, bytes(4), pack("<III", 333333, 666666, 2)),
             cs(10, 4, 0, 188, 188), cs(10, 4, 0, 188, 188, GUID))
HID = (interface(2, 1, 3, 1, 1), descriptor(0x21, 0x11, 1, 33, 2, 0x22, 63, 0, 0x23, 9, 0), endpoint(0x84, 3, 8))
CDC = (descriptor(11, 3, 1, 2, 2, 1, 0), interface(3, 0, 2, 2, 1),
       cs(0, 0x20, 1), cs(1, 3, 4), cs(2, 15), cs(6, 3, 4, 5), cs(7, 9, 1, 1, 2, 2), cs(8, 7), cs(10, 0, 1, 2, 3),
       cs(15, 2, 0xFF, 0, 0, 0, 0xEA, 5, 3, 0x80, 4), cs(17, 0, 1), cs(18, 0, 1, GUID), cs(19, 0, 0xFF, 0xEE),
       cs(20, 0, 1, 100, 0), cs(21, 0, 1), cs(26, 0, 1, 0x3F), cs(27, 0, 1, 0, 16, 16, 128, 0, 8, 0x28),
       cs(28, 0, 1, 3, 0xDC, 5), cs(0x77, 1, 2))
VENDOR = (interface(4, 4, 255, 255, 255), endpoint(0x81, 2, 1024, 15, 4, 0, 0), endpoint(1, 2, 1024, 3, 0, 0, 0),
          endpoint(0x82, 5, 1024, 2, 2, 0, 36), endpoint(0x83, 0x13, 64, 0, 0, 64, 0), descriptor(0xFF, 1, 2))


def mocked_kernel(descriptors: bytes, speed: int) -> str:
    """A root hub and a device at 1:2, in umockdev's notation."""
    hub = bytes.fromhex("12010002090000406b1d02000001000000 01")
    return "".join(f"""P: /devices/{path}
N: bus/usb/001/{number:03}
E: SUBSYSTEM=usb
E: DEVTYPE=usb_device
E: BUSNUM=001
E: DEVNUM={number:03}
E: DEVNAME=/dev/bus/usb/001/{number:03}
A: busnum=1\\n
A: devnum={number}\\n
A: bConfigurationValue=1\\n
A: speed={speed}\\n
H: descriptors={data.hex().upper()}

""" for path, number, data in (("usb1", 1, hub), ("usb1/1-1", 2, descriptors)))


@unittest.skipIf(os.environ.get("VIRTUSB_SANITIZED"), "umockdev-run loads its library in front of the sanitizer's")
@unittest.skipUnless(shutil.which("lsusb") and shutil.which("umockdev-run"), "needs usbutils and umockdev")
class Descriptors(unittest.TestCase):
    def test_every_line_is_as_lsusb_has_it(self) -> None:
        for speed, version, parts in ((480, 0x0200, CONTROL + STREAMING + HID + CDC), (5000, 0x0300, VENDOR)):
            body = b"".join(parts)
            interfaces = sum(part[1] == 4 for part in parts)
            device = descriptor(1, pack("<H", version), 0xEF, 2, 1, 64, pack("<HHH", 0x1209, 5, 0x0100), 0, 0, 0, 1)
            config = descriptor(2, pack("<H", 9 + len(body)), interfaces, 1, 0, 0xA0, 250)
            with self.subTest(speed), tempfile.NamedTemporaryFile("w", encoding="ascii") as file:
                file.write(mocked_kernel(device + config + body, speed))
                file.flush()
                ours, theirs = (subprocess.run(["umockdev-run", "-d", file.name, "--", *command], check=True, text=True,
                                               capture_output=True, timeout=wire.DEADLINE).stdout
                                for command in ([COMMAND, "--log", "off", "describe", "1:2"],
                                                ["lsusb", "-v", "-s", "1:2"]))
                self.assertGreater(len(lsusb_lines.lines(theirs)), 60, theirs)
                self.assertEqual(lsusb_lines.difference(ours, theirs), "")
