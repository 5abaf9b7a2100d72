"""The stream command: what it writes of a camera's pictures, what it says of them, and how it ends."""

from __future__ import annotations

import itertools
import json
import pathlib
import re
import signal
import struct
import subprocess
import tempfile
import zlib

import wire
from test_command import COMMAND, CommandTestCase, Running, run

SIZES = ((640, 480), (1280, 720))
REPLY_FIELDS = 16 + 12  # Header; stream id, status and packet count.


def png_rows(png: bytes) -> tuple[int, int, bytes]:
    """Width, height and the filtered rows of a picture."""
    at, data = 8, b""
    while at < len(png):
        length, kind = struct.unpack_from(">I4s", png, at)
        data += png[at + 8:at + 8 + length] if kind == b"IDAT" else b""
        at += 12 + length
    return *struct.unpack_from(">II", png, 16), zlib.decompress(data)


def painted(width: int, height: int, number: int) -> bytes:
    """The synthetic camera's picture of this number, modulo 256."""
    ramp = bytes(range(256)) * (2 + width // 256)
    starts = itertools.chain(((row + 3 * number) % 256 for row in range(height)), height * [(5 * number + 64) % 256])
    return b"".join(ramp[start:start + width] for start in starts)


class Streaming(CommandTestCase):
    def setUp(self) -> None:
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = pathlib.Path(folder.name)
        self.file, self.snapshot = self.folder / "pictures", self.folder / "snapshot.png"

    def stream(self, *arguments: str, frames: int) -> dict:
        """The document of a run that streams so many frames into the file and one into the snapshot."""
        ended = run("stream", "camera", "--frames", str(frames), "-o", str(self.file), "--snapshot",
                    str(self.snapshot), "--json", *arguments)
        self.assertEqual(ended.returncode, 0, ended.stderr)
        document = json.loads(ended.stdout)
        self.assertEqual((document["frames"], document["timeouts"], document["broken"]), (frames, 0, 0), ended.stderr)
        self.assertEqual(document["bytesOverWire"], self.file.stat().st_size + frames * REPLY_FIELDS)
        latency = document["latencyMilliseconds"]
        self.assertTrue(0 < latency["p50"] <= latency["p99"], latency)
        width, height, rows = png_rows(self.snapshot.read_bytes())
        self.assertEqual((document["width"], document["height"], len(rows)), (width, height, height * (1 + 3 * width)))
        self.assertGreater(len(set(rows)), 16, "a picture of one colour")
        return document

    def running(self, *arguments: str) -> Running:
        """A stream without end, of which pictures have come."""
        running = self.enterContext(Running("--log", "off", "stream", "camera", "-o", str(self.file), *arguments))
        self.assertRegex(running.note(), r"^ *[1-9]\d* pictures .* per second .* Mbit/s .* latency p50 .* ms")
        return running

    def test_notes_that_nobody_can_read_do_not_hold_it(self) -> None:
        script = 'exec "$0" --log debug stream camera --seconds 1 2>&-'
        ended = subprocess.run(["sh", "-c", script, COMMAND], stdout=subprocess.DEVNULL, timeout=wire.DEADLINE)
        self.assertEqual(ended.returncode, 0)

    def test_pictures_come_in_the_size_and_format_that_were_asked_for(self) -> None:
        frames = 8
        for (width, height), options in itertools.product(SIZES, ([], ["--no-transcode"])):
            with self.subTest(height=height, options=options):
                document = self.stream("--size", f"{width}x{height}", *options, frames=frames)
                length = width * height * 2
                self.assertEqual((document["width"], document["height"], document["format"]),
                                 (width, height, "YUYV" if options else "H.264"))
                self.assertEqual(document["bytesFromCamera"], frames * length)
                data = self.file.read_bytes()
                if options:
                    pictures = [data[at:at + length] for at in range(0, len(data), length)]
                    numbers = [picture[0] * 171 % 256 for picture in pictures]  # Each begins with 3 times its own.
                    self.assertTrue(all(0 < (after - before) % 256 < 128
                                        for before, after in itertools.pairwise(numbers)), numbers)
                    for picture, number in zip(pictures, numbers):
                        self.assertTrue(picture == painted(width, height, number), number)
                else:
                    self.assertLess(len(data), frames * length / 10)
                    self.assertEqual(data[:5], b"\0\0\0\1\x67", "does not begin with parameter sets")

    def test_what_cannot_be_streamed_is_one_line(self) -> None:
        for line, status, *parts in (
                ("camera --size 123x45", 1, "123x45", "640x480, 1280x720"),
                ("camera --size big", 2, '"big" is no size', "640x480"),
                ("raw", 1, "no camera", "virtusb describe"),
                ("camera --camera-source /no/such", 1, "cannot be opened", "/no/such"),
                ("camera --no-transcode -o /dev/full", 1, "cannot write /dev/full")):
            with self.subTest(line):
                self.assert_failure(run("--log", "off", "stream", *line.split()), status, *parts)

    def test_log_is_shown_when_it_fails_or_is_asked_for(self) -> None:
        *lines, last = run("stream", "camera", "--camera-source", "/no/such").stderr.splitlines()
        self.assertRegex("\n".join(lines), r"(?m)^[-\d]+ [\d:.]+ VEL_LOG .*open camera failed")
        self.assertRegex(last, "^virtusb: ")
        self.assertIn(" VEL_LOG ", run("--log", "warn", "describe", "camera").stderr)

    def test_signal_ends_it_in_time_with_its_table(self) -> None:
        running = self.running("--no-transcode")
        notes = self.end_promptly(running, signal.SIGINT)
        self.assertEqual([note for note in notes if " pictures " not in note], [])
        heading, *_ = table = running.process.stdout.read().decode().splitlines()
        self.assertRegex(heading, r"^.+, ff00:fffe: 640x480, YUYV at 30\.00 per second.*\(interrupted\)")
        rows = dict(re.findall(r"^  (\S.*?) {2,}([\d.]+)", "\n".join(table), re.MULTILINE))
        self.assertEqual(self.file.stat().st_size, int(rows["frames"]) * 640 * 480 * 2)

    def test_camera_that_falls_silent_is_one_line(self) -> None:
        self.stream(frames=5)
        source = self.file.rename(self.folder / "source.h264")
        running = self.running("--no-transcode", "--silence", "1", "--camera-source", str(source))
        source.write_bytes(b"")  # It is played in a loop, and now there is nothing to play.
        status, notes = running.end()
        self.assertEqual(status, 1)
        self.assertEqual([note for note in notes if note.startswith("virtusb: ")],
                         ["virtusb: the camera has sent no picture for 1 seconds: its reads time out"])
        self.assertEqual(self.file.stat().st_size % (640 * 480 * 2), 0)
