"""The stream command: what it writes of a camera's pictures, what it says of them, and how it ends."""

from __future__ import annotations

import itertools
import json
import pathlib
import re
import signal
import struct
import tempfile
import time
import unittest
import zlib

from test_command import SECONDS_TO_END, CommandTestCase, Running, run

SIZES = ((640, 480), (1280, 720))
REPLY_FIELDS = 16 + 12  # Header; stream id, status and packet count.


def pattern_number(picture: bytes, width: int, height: int) -> int:
    """Which of the synthetic source's pictures this is (modulo 256); -1 when a byte of it is wrong."""
    number = picture[0] * 171 % 256  # The first byte is 3 times the number, and 171 * 3 is 1 modulo 256.
    ramp = bytes(range(256)) * (width // 256 + 2)
    upper = b"".join(ramp[start:start + width] for start in ((row + 3 * number) % 256 for row in range(height)))
    start = (5 * number + 64) % 256
    return number if picture == upper + ramp[start:start + width] * height else -1


def slices(stream: bytes) -> list[tuple[int, bool]]:
    """Type and "first of its picture" of each slice in an H.264 byte stream; what is no slice has False."""
    units = [match.end() for match in re.finditer(b"\0\0\1", stream)]
    return [(stream[at] & 0x1F, stream[at] & 0x1F in (1, 5) and stream[at + 1] >= 0x80) for at in units]


def png_pixels(png: bytes) -> tuple[int, int, bytes]:
    """Width, height and the filtered rows of an RGB picture."""
    assert png.startswith(b"\x89PNG\r\n\x1a\n"), png[:8]
    chunks, at = [], 8
    while at < len(png):
        length, kind = struct.unpack_from(">I4s", png, at)
        body = png[at + 8:at + 8 + length]
        assert struct.unpack_from(">I", png, at + 8 + length)[0] == zlib.crc32(kind + body), kind
        chunks.append((kind, body))
        at += 12 + length
    width, height, depth, colours = struct.unpack_from(">IIBB", chunks[0][1])
    assert (chunks[0][0], chunks[-1][0], depth, colours) == (b"IHDR", b"IEND", 8, 2)
    return width, height, zlib.decompress(b"".join(body for kind, body in chunks if kind == b"IDAT"))


class StreamTestCase(CommandTestCase):
    """Runs of the command, and what holds for all of them."""

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
        self.assertEqual((document["file"], document["snapshot"]), (str(self.file), str(self.snapshot)))
        self.assertEqual(document["bytesOverWire"], self.file.stat().st_size + frames * REPLY_FIELDS)
        self.assertEqual(document["cameraFormat"], "YUYV")
        self.assertFalse(document["interrupted"])
        self.assertGreater(document["cpuMillisecondsPerFrame"], 0)
        self.assertLessEqual(document["firstPictureMilliseconds"], document["seconds"] * 1000)
        latency = document["latencyMilliseconds"]
        self.assertLess(0, latency["p50"])
        self.assertLessEqual(latency["p50"], latency["p99"])
        width, height, rows = png_pixels(self.snapshot.read_bytes())
        self.assertEqual((width, height), (document["width"], document["height"]))
        self.assertEqual(len(rows), height * (1 + 3 * width))
        self.assertGreater(len(set(rows)), 16, "a picture of one colour")
        return document

    def running(self, *arguments: str) -> Running:
        """A stream without end, of which pictures have come."""
        running = self.enterContext(Running("--log", "off", "stream", "camera", "-o", str(self.file), *arguments))
        self.assertRegex(running.note(), r"^ *[1-9]\d* pictures .* per second .* Mbit/s .* latency p50 .* ms")
        return running


class Streaming(StreamTestCase):
    def test_untouched_pictures_are_the_cameras_bit_for_bit(self) -> None:
        frames = 8
        for (width, height), arguments in zip(SIZES, ([], ["--size", "1280x720"])):
            with self.subTest(width):
                document = self.stream("--no-transcode", *arguments, frames=frames)
                self.assertEqual((document["width"], document["height"], document["format"]), (width, height, "YUYV"))
                length = width * height * 2
                self.assertEqual(document["bytesFromCamera"], frames * length)
                data = self.file.read_bytes()
                self.assertEqual(len(data), frames * length)
                numbers = [pattern_number(data[at:at + length], width, height) for at in range(0, len(data), length)]
                self.assertNotIn(-1, numbers)
                steps = [(after - before) % 256 for before, after in itertools.pairwise(numbers)]
                self.assertTrue(all(0 < step < 128 for step in steps), f"not in order: {numbers}")

    def test_transcoded_pictures_are_an_access_unit_each_and_a_source_again(self) -> None:
        frames = 20
        for width, height in SIZES:
            with self.subTest(width):
                document = self.stream("--size", f"{width}x{height}", frames=frames)
                self.assertEqual((document["width"], document["height"], document["format"]), (width, height, "H.264"))
                self.assertEqual(document["bytesFromCamera"], frames * width * height * 2)
                self.assertLess(document["bytesOverWire"], document["bytesFromCamera"] / 10)
                found = slices(self.file.read_bytes())
                firsts = [kind for kind, first in found if first]
                self.assertEqual((len(firsts), firsts[0]), (frames, 5))
                self.assertIn(7, [kind for kind, _ in found[:found.index((5, True))]])  # Parameter sets before it.
        source = self.file.rename(self.folder / "source.h264")
        document = self.stream("--camera-source", str(source), "--no-transcode", frames=3)
        self.assertEqual((document["width"], document["height"], document["format"]), (*SIZES[-1], "YUYV"))
        self.assertEqual(self.file.stat().st_size, 3 * SIZES[-1][0] * SIZES[-1][1] * 2)

    def test_table_says_what_was_streamed_and_where_it_is(self) -> None:
        ended = run("stream", "camera", "--seconds", "0.5", "--no-transcode", "-o", str(self.file))
        self.assertEqual(ended.returncode, 0, ended.stderr)
        heading, *lines = ended.stdout.splitlines()
        self.assertRegex(heading, r"^.+, ff00:fffe: 640x480, YUYV at 30\.00 per second$")
        self.assertEqual(lines[-1], f"pictures in {self.file}")
        rows = dict(re.findall(r"^  (\S.*?) {2,}([\d.]+)", ended.stdout, re.MULTILINE))
        self.assertEqual(list(rows), ["frames", "frames per second", "timeouts", "from the camera", "over the wire",
                                      "first picture", "latency p50", "latency p99", "CPU per frame"])
        self.assertEqual(int(rows["frames"]) * 640 * 480 * 2, self.file.stat().st_size)

    def test_what_cannot_be_streamed_is_one_line(self) -> None:
        for line, status, *parts in (
                ("camera --size 123x45", 1, "123x45", "640x480, 1280x720"),
                ("camera --size big", 2, '"big" is no size', "640x480"),
                ("camera --size 640x480x2", 2, "is no size"),
                ("camera --frames 0", 2, "--frames", "above 0"),
                ("camera --frames 1 --seconds 1", 2, "[--frames,--seconds]"),
                ("raw", 1, "no camera", "virtusb describe"),
                ("camera --camera-source /no/such", 1, "cannot be opened", "/no/such"),
                ("camera -o /no/such/file", 1, "cannot write /no/such/file"),
                ("camera --no-transcode -o /dev/full", 1, "cannot write /dev/full")):
            with self.subTest(line):
                self.assert_failure(run("--log", "off", "stream", *line.split()), status, *parts)


class StreamEnding(StreamTestCase):
    def test_signal_ends_it_in_time_with_its_table(self) -> None:
        for number in (signal.SIGINT, signal.SIGTERM):
            with self.subTest(number=number):
                running = self.running("--no-transcode")
                begin = time.monotonic()
                status, notes = running.end(number)
                self.assertLess(time.monotonic() - begin, SECONDS_TO_END)
                self.assertEqual((status, [note for note in notes if " pictures " not in note]), (0, []))
                table = running.process.stdout.read().decode()
                self.assertIn("(interrupted)", table.splitlines()[0])
                frames = int(re.search(r"^  frames +(\d+)$", table, re.MULTILINE)[1])
                self.assertEqual(self.file.stat().st_size, frames * 640 * 480 * 2)

    def test_camera_that_falls_silent_is_one_line(self) -> None:
        self.stream(frames=5)
        source = self.file.rename(self.folder / "source.h264")
        running = self.running("--no-transcode", "--camera-source", str(source))
        source.write_bytes(b"")  # It is played in a loop, and now there is nothing to play.
        status, notes = running.end()
        self.assertEqual(status, 1)
        said = [note for note in notes if note.startswith("virtusb: ")]
        self.assertEqual(said, ["virtusb: the camera has sent no picture for 5 seconds: its reads time out"])
        self.assertEqual(self.file.stat().st_size % (640 * 480 * 2), 0)


if __name__ == "__main__":
    unittest.main()
