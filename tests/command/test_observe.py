"""What --capture writes, as tshark reads it, and the figures of --stats and SIGUSR1."""

from __future__ import annotations

import json
import pathlib
import resource
import shutil
import signal
import socket
import tempfile
import unittest

import captures
import wire
from test_command import SPEED, CommandTestCase, Running, read_exactly, run

class ObserveTestCase(CommandTestCase):
    def setUp(self) -> None:
        self.file = pathlib.Path(self.enterContext(tempfile.TemporaryDirectory())) / "crossed.pcapng"


@unittest.skipUnless(shutil.which("tshark"), "no tshark here")
class Capturing(ObserveTestCase):
    def test_each_kind_of_request_is_the_traffic_that_it_stands_for(self) -> None:
        requests = [wire.Request(wire.GET_DEVICE, req_id=1), wire.string(2, 0x409, 255),
                    wire.Request(wire.GET_CONFIG),
                    wire.control(0xC0, 1, 2, 3, wire.filler(8)), wire.Request(wire.SET_ALT, bytes(8)),
                    wire.Request(wire.GET_SPEED), wire.bulk(0x81, 1, b"", 300), wire.bulk(0x01, 2, wire.filler(200)),
                    wire.interrupt(0x82, 3, b"", 8), wire.iso(0x83, 4, [100, 0, 50]), wire.iso(0x03, 5, [7, 9])]
        conversation = wire.WireTestCase()
        conversation.serve("raw", requests, "--capture", str(self.file), "--capture-bytes", "90")
        pairs = captures.pair(captures.read(self.file))
        names = [(begin[9], end[9]) for begin, end in pairs[:5]]
        self.assertEqual(names, [(f"{name} Request{what}", f"{name} Response{what}") for name, what in (
            ("GET DESCRIPTOR", " DEVICE"), ("GET DESCRIPTOR", " STRING"), ("GET DESCRIPTOR", " CONFIGURATION"))] + [
                ("URB_CONTROL in",) * 2, ("SET INTERFACE Request", "SET INTERFACE Response")])
        # Type, endpoint, then of the submission and the completion: length, packets' lengths, bytes in the file.
        moved = sorted((begin[2], begin[3], *begin[5:9:2], begin[8], *end[5:9:2], end[8]) for begin, end in pairs[5:])
        self.assertEqual(moved, [
            ("0x00", "0x03", "16", "7,9", "112", "16", "7,9", "96"), ("0x00", "0x83", "150", "100,0,50", "112", "150", "100,0,50", "202"),
            ("0x01", "0x82", "8", "", "64", "8", "", "72"), ("0x03", "0x01", "200", "", "154", "200", "", "64"),
            ("0x03", "0x81", "300", "", "64", "300", "", "154")])

    def test_a_camera_and_a_device_behind_packets(self) -> None:
        served = self.enterContext(Running("serve", "camera", "--listen", "0", "--answer-failures", "--capture",
                                           str(self.file)))
        device = "tcp://" + served.note().split()[3].rstrip(",")
        near = self.file.with_name("near.pcapng")
        self.assertEqual(run("stream", device, "--frames", "3", "--no-transcode", "--capture", str(near),
                             "--capture-bytes", "9999999").returncode, 0)
        self.end_promptly(served, signal.SIGTERM)
        for file, length in ((self.file, str(64 + 16 + 1024)), (near, "262144")):
            pairs = captures.pair(captures.read(file))
            names = {begin[9].split("  ")[0] for begin, _ in pairs}
            self.assertLessEqual({"SET CUR Request", "GET CUR Request", "SET INTERFACE Request"}, names)
            pictures = [end for _, end in pairs if end[5] == "614400"]
            self.assertGreaterEqual(len(pictures), 3)
            for picture in pictures:
                self.assertEqual(picture[6:9], ("1,1", "614400", length))
            self.assertIn(captures.CANCELLED, {end[4] for _, end in pairs})  # The reads that were in flight at the end.

    def test_a_full_disk_and_a_kill_leave_a_file_that_can_be_read(self) -> None:
        ended = run("stream", "camera", "--frames", "3", "--no-transcode", "--capture", str(self.file), "--capture-bytes", "262144",
                    preexec_fn=lambda: resource.setrlimit(resource.RLIMIT_FSIZE, (300000, 300000)))
        self.assertEqual(ended.returncode, 0, ended.stderr)
        self.assertRegex(ended.stderr, r"\Acapture: cannot write \S+: File too large; it ends here\n"
                                       r"capture: \d+ records in \S+, [1-9]\d* left out\n\Z")
        self.assertIn(f"{len(captures.read(self.file))} records", ended.stderr)
        self.file.unlink()
        served = self.enterContext(Running("serve", "keyboard", "--stdio", "--capture", str(self.file)))
        request = wire.Request(wire.GET_DEVICE)
        served.process.stdin.write(request.encode())
        read_exactly(served.process.stdout, 34)
        while self.file.stat().st_size < 44 + 36 + 96 + 116:  # Head, device, request, reply.
            self.assertIsNone(served.process.poll())
        served.process.kill()
        served.process.wait()
        self.assertEqual(len(captures.pair(captures.read(self.file))), 1)


class Figures(ObserveTestCase):
    def test_signals_and_intervals_ask_for_figures(self) -> None:
        for options, lines in ((["--stats", "0.1"], "stderr"), (["--json"], "stdout")):
            with self.subTest(options), Running("serve", "raw", "--listen", "0", *options) as served:
                while not (note := served.note()).startswith("serving"):
                    pass
                host, port = note.split()[3].rstrip(",").split(":")
                remote = self.enterContext(socket.create_connection((host, int(port))))
                remote.sendall(wire.bulk(0x81, 1, b"", 1000).encode() + wire.bulk(0x01, 2, bytes(500)).encode() +
                               wire.bulk(0x7F, 3, b"").encode() + SPEED.encode())
                read_exactly(remote, 16 + 8 + 1000 + 16 + 8 + 500 + 16 + 8 + 20)
                if lines == "stdout":
                    served.process.send_signal(signal.SIGUSR1)
                    figures = json.loads(served.process.stdout.readline())
                    self.assertEqual({key: figures[key] for key in ("device", "transfers", "bytesIn", "bytesOut", "inFlight")},
                                     {"device": "raw", "transfers": 3, "bytesIn": 1000, "bytesOut": 500, "inFlight": 0})
                    self.assertGreaterEqual(figures["roundTripMilliseconds"]["p99"], figures["roundTripMilliseconds"]["p50"])
                    self.assertEqual(figures["total"]["failures"], figures["failures"])
                else:
                    shown = ""
                    while "3 transfers" not in shown:  # Not those of the intervals before.
                        shown = served.note()
                    self.assertRegex(shown, r"^raw: \d+\.\d s, 3 transfers, 0\.00 MB in, 0\.00 MB out, 0 in flight, "
                                            r"round trip \d+\.\d ms \(p50\) \d+\.\d ms \(p99\)")
                self.end_promptly(served, signal.SIGTERM)

    def test_what_cannot_be_captured_is_said_before_the_device_is_taken(self) -> None:
        for file, status, *parts in (("-", 2, "--capture takes a file"), ("/no/such/folder/f", 1, "cannot write /no/such"),
                                     (str(self.file.parent), 1, "Is a directory")):
            self.assert_failure(run("stream", "nosuch", "--capture", file), status, *parts)
