"""What leaves the build for Windows: pictures, packets, and the package."""

from __future__ import annotations

import os
import pathlib
import struct
import subprocess
import tempfile
import unittest
import zipfile
from typing import Any

import wire

COMMAND, TRANSCODE = os.environ["VIRTUSB"], os.environ["VIRTUSB_TRANSCODE"]
NATIVE = pathlib.Path(os.environ["VIRTUSB_NATIVE_BUILD"])
OPENH264 = pathlib.Path(os.environ.get("VIRTUSB_OPENH264", "/nonexistent"))
FRAMES = 8


def run(*words: Any, **environment: str) -> subprocess.CompletedProcess:
    return subprocess.run([str(word) for word in words], stdin=subprocess.DEVNULL, capture_output=True, text=True,
                          timeout=wire.DEADLINE, env={**os.environ, **environment}, check=False)


class WindowsTestCase(unittest.TestCase):
    def setUp(self) -> None:
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = pathlib.Path(folder.name)

    def done(self, *words: Any, **environment: str) -> str:
        ended = run(*words, **environment)
        self.assertEqual(ended.returncode, 0, ended.stderr)
        return ended.stdout


class Crossing(WindowsTestCase):
    def setUp(self) -> None:
        super().setUp()
        self.native = NATIVE / "host/virtusb"
        if not self.native.exists():
            self.skipTest(f"nothing was built for this machine in {NATIVE}")

    def test_same_encoder_makes_the_same_bytes(self) -> None:
        if not OPENH264.is_dir():
            self.skipTest("VIRTUSB_OPENH264 names no prefix of packaging/ffmpeg-openh264")
        raw = self.folder / "raw"
        raw.write_bytes(bytes((x + 3 * y // 7 + 5 * n) & 0xFF for n in range(FRAMES) for y in range(480) for x in range(1280)))
        made = []
        for tool, environment in ((TRANSCODE, {}), (NATIVE / "tools/transcode/virtusb-transcode",
                                                    {"LD_LIBRARY_PATH": str(OPENH264 / "lib")})):
            out = self.folder / "out.h264"
            self.assertIn(f"out {FRAMES}, thinned 0", self.done(tool, raw, "--size", "640x480", "-o", out, **environment))
            made.append(out.read_bytes())
        self.assertEqual(*made)

    def test_pictures_that_were_encoded_there_are_right_when_decoded_here(self) -> None:
        coded, decoded = self.folder / "coded.h264", self.folder / "decoded"
        for width, height in ((640, 480), (1280, 720)):
            size = ("--size", f"{width}x{height}")
            self.done(COMMAND, "stream", "camera", *size, "--frames", 2 * FRAMES, "-o", coded)
            self.done(self.native, "stream", "camera", "--camera-source", coded, *size, "--frames", FRAMES, "--no-transcode",
                      "-o", decoded)
            self.done(NATIVE / "tests/vm/vm_remote", "pictures", decoded, width, height, 20)

    def test_packets_cross_by_pipe_and_by_socket_both_ways(self) -> None:
        program = pathlib.Path(os.environ["VIRTUSB_BUILD"]) / "bin/virtusb.exe"  # What Windows can start itself.
        for near, far, started in ((self.native, COMMAND, COMMAND), (COMMAND, self.native, program)):
            there = self.done(far, "describe", "ch340")
            self.assertEqual(self.done(near, "describe", f"exec:{started} serve ch340 --stdio").splitlines()[1:],
                             there.splitlines()[1:])
            with subprocess.Popen([far, "serve", "ch340", "--listen", "0"], stderr=subprocess.PIPE, text=True) as service:
                try:
                    place = service.stderr.readline().split(" on ")[1].split(",")[0]
                    self.assertEqual(self.done(near, "describe", f"tcp://{place}").splitlines()[1:], there.splitlines()[1:])
                finally:
                    service.kill()


class Package(WindowsTestCase):
    """The package's zip, unpacked where no library is but its own."""

    def setUp(self) -> None:
        super().setUp()
        made = self.done(os.environ["VIRTUSB_MAKE_PACKAGE"], "--build", os.environ["VIRTUSB_BUILD"], self.folder)
        place = self.folder / "Über uns & Söhne"
        with zipfile.ZipFile(made.strip() + ".zip") as package:
            package.extractall(place)
        self.root, = place.iterdir()

    def run_command(self, *words: Any) -> subprocess.CompletedProcess:
        return run(os.environ["EMULATOR"], self.root / "virtusb.exe", *words, WINEPATH="")

    def assert_failure(self, ended: subprocess.CompletedProcess, *parts: str) -> None:
        self.assertEqual((ended.returncode, ended.stdout), (1, ""), ended.stderr)
        self.assertRegex(ended.stderr, r"\Avirtusb: [^\n]+\n\Z")
        for part in parts:
            self.assertIn(part, ended.stderr)

    def test_it_runs_where_it_is_unpacked_and_has_its_licences(self) -> None:
        snapshot = self.root / "Büro 1.png"
        ended = self.run_command("stream", "camera", "--frames", 4, "--snapshot", snapshot)
        self.assertEqual(ended.returncode, 0, ended.stderr)
        self.assertEqual(snapshot.read_bytes()[:4], b"\x89PNG")
        licences = {file.stem: file.read_text() for file in (self.root / "licences").glob("*.txt")}
        for library, word in (("ffmpeg", "LGPL"), ("libusb-1.0", "LGPL"), ("openh264", "BSD"), ("openssl", "Apache"),
                              ("mingw-w64-common", "MIT"), ("SOURCES", "openh264")):
            self.assertIn(word, licences[library])
        self.assertIn("LESSER GENERAL PUBLIC LICENSE", licences["LGPL-2.1"])

    def test_a_module_that_cannot_be_loaded_is_one_line(self) -> None:
        module = self.root / "virtusb-redir.dll"
        whole = module.read_bytes()
        header = struct.unpack_from("<I", whole, 0x3C)[0] + 4
        for name, data, missing, word in (
                ("other size", whole[:header] + struct.pack("<H", 0x014C) + whole[header + 2:], None, "64-bit"),
                ("no library", b"MZ nothing", None, "virtusb-redir.dll"),
                ("missing", whole, "avformat-59.dll", "virtusb-redir.dll")):
            with self.subTest(name):
                module.write_bytes(data)
                if missing:
                    (self.root / missing).rename(self.root / "away")
                self.assert_failure(self.run_command("describe", "raw"), word)
