"""The transcoding tool: every frame of a file comes out once, and what cannot be done is said."""

from __future__ import annotations

import json
import os
import pathlib
import re
import subprocess
import tempfile
import unittest

import wire

TOOL = os.environ["VIRTUSB_TRANSCODE"]
JPEGS = pathlib.Path(__file__).parents[2] / "fuzz/corpus/mjpeg_decode_fuzz"


class Transcoding(unittest.TestCase):
    def setUp(self) -> None:
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.input = pathlib.Path(folder.name) / "in.mjpeg"
        self.output = pathlib.Path(folder.name) / "out.h264"

    def run_tool(self, *arguments: str) -> subprocess.CompletedProcess:
        return subprocess.run([TOOL, str(self.input), "-o", str(self.output), *arguments], text=True,
                              stdin=subprocess.DEVNULL, capture_output=True, timeout=wire.DEADLINE)

    def transcode(self, data: bytes, *arguments: str) -> dict:
        self.input.write_bytes(data)
        ended = self.run_tool("--json", *arguments)
        self.assertEqual(ended.returncode, 0, ended.stderr)
        document = json.loads(ended.stdout)
        pictures = re.findall(b"\0\0\1[\x41\x61\x65]", self.output.read_bytes())  # Slices, one to a picture.
        self.assertEqual(len(pictures), document["framesOut"])
        return document

    def test_every_frame_that_can_be_decoded_comes_out(self) -> None:
        whole, cut = (JPEGS / "natural").read_bytes(), (JPEGS / "natural_cut").read_bytes()
        raw = bytes(range(256)) * (64 * 48 * 2 * 10 // 256)
        for name, data, arguments, figures in (
                ("raw", raw, ("--size", "64x48"), (10, 10, 0)),
                ("at a rate", raw, ("--size", "64x48", "--rate", "200"), (10, 10, 0)),
                ("MJPEG with a cut frame", 3 * whole + cut, (), (4, 3, 1))):
            with self.subTest(name):
                document = self.transcode(data, *arguments)
                thinned = document["thinned"]  # Only where the file sets the pace, on a machine that cannot keep it.
                self.assertTrue(thinned == 0 or "--rate" in arguments, thinned)
                self.assertEqual((document["framesIn"], document["framesOut"] + thinned, document["notDecoded"]), figures)
                stages = document["milliseconds"]
                self.assertEqual(stages["decode"]["frames"], 0 if arguments else figures[1])
                self.assertTrue(0 <= stages["encode"]["frames"] - document["framesOut"] <= thinned, stages)

    def test_what_cannot_be_read_is_said_and_leaves_nothing_behind(self) -> None:
        for data in (None, b"", b"no pictures in here"):
            with self.subTest(data=data):
                if data is not None:
                    self.input.write_bytes(data)
                ended = self.run_tool()
                self.assertEqual((ended.returncode, ended.stdout), (1, ""))
                self.assertRegex(ended.stderr, r"^virtusb-transcode: .*in\.mjpeg.*\n$")
                self.assertFalse(self.output.exists())
