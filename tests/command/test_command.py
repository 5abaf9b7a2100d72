"""The command as a person uses it. Nothing waits for time to pass: a deadline kills a command that hangs."""

from __future__ import annotations

import itertools
import json
import os
import pathlib
import re
import select
import signal
import socket
import struct
import subprocess
import threading
import time
import unittest
from typing import Any, Optional

import wire

COMMAND = os.environ["VIRTUSB"]
PROGRAM = os.environ["VIRTUSB_PROGRAM"]  # The same as the command can start it itself.
NO_MODULE = os.environ["VIRTUSB_NO_MODULE"]  # A shared library that is no driver module.
SECONDS_TO_END = float(os.environ["VIRTUSB_SECONDS_TO_END"])
SPEED = wire.Request(wire.GET_SPEED, req_id=3)
FULL_SPEED = SPEED.reply(wire.status(2))
LARGE = 32 * wire.bulk(0x81, 1, b"", wire.MIB).encode()  # Replies that fill every buffer on the way.


def run(*arguments: str, **options: Any) -> subprocess.CompletedProcess:
    """The command's end, with nothing to read on its standard input."""
    return subprocess.run([COMMAND, *arguments], stdin=subprocess.DEVNULL, stderr=subprocess.PIPE,
                          timeout=wire.DEADLINE, text=True, **{"stdout": subprocess.PIPE, **options})


class Running:
    """The command while it runs; a context manager that leaves nothing behind."""

    def __init__(self, *arguments: str, **options: Any) -> None:
        self.process = subprocess.Popen([COMMAND, *arguments], stdin=subprocess.PIPE, bufsize=0,
                                        stdout=subprocess.PIPE, stderr=subprocess.PIPE, **options)
        self._watchdog = threading.Timer(wire.DEADLINE, self._give_up)
        self._hung = False

    def _give_up(self) -> None:
        self._hung = True
        self.process.kill()

    def __enter__(self) -> Running:
        self._watchdog.start()
        return self

    def __exit__(self, *_: object) -> None:
        self._watchdog.cancel()
        self.process.kill()
        self.process.wait()
        for pipe in (self.process.stdin, self.process.stdout, self.process.stderr):
            pipe.close()
        if self._hung:
            raise TimeoutError(f"{self.process.args} was killed after {wire.DEADLINE} seconds")

    def note(self) -> str:
        """The next line on standard error."""
        return self.process.stderr.readline().decode().rstrip("\n")

    def end(self, number: Optional[signal.Signals] = None) -> tuple[int, list[str]]:
        """Exit status and the lines still to come on standard error; interrupted when told so."""
        if number is not None:
            self.process.send_signal(number)
        notes = self.process.stderr.read().decode().splitlines()
        return self.process.wait(), notes


def read_exactly(stream: Any, count: int) -> bytes:
    """`count` bytes of a pipe or socket, fewer at its end."""
    receive = stream.recv if isinstance(stream, socket.socket) else stream.read
    data = b""
    while len(data) < count and (piece := receive(count - len(data))):
        data += piece
    return data


class CommandTestCase(unittest.TestCase):
    """Assertions shared by the tests of the command."""

    def end_promptly(self, running: Running, number: signal.Signals, expected: int = 0) -> list[str]:
        """The last notes of a command that a signal ends: with this status, and in time."""
        begin = time.monotonic()
        status, notes = running.end(number)
        self.assertLess(time.monotonic() - begin, SECONDS_TO_END)
        self.assertEqual(status, expected, notes)
        return notes

    def assert_result(self, *arguments: str) -> str:
        """What a run that succeeds writes on standard output; there is nothing on standard error."""
        ended = run(*arguments)
        self.assertEqual((ended.returncode, ended.stderr), (0, ""))
        return ended.stdout

    def assert_failure(self, ended: subprocess.CompletedProcess, status: int, *parts: str) -> None:
        """One line that says what is wrong and what to do, and no result."""
        self.assertEqual((ended.returncode, ended.stdout or ""), (status, ""), ended.stderr)
        self.assertRegex(ended.stderr, r"\Avirtusb: [^\n]+\n\Z")
        for part in parts:
            self.assertIn(part, ended.stderr)


class WrongUse(CommandTestCase):
    def test_wrong_command_line_is_status_2(self) -> None:
        for line, *parts in (
                ("", "no command is given", "virtusb --help"),
                ("describe raw too many", 'unexpected argument "too"', "virtusb describe --help"),
                ("describe nosuch", 'unknown device "nosuch"', *wire.DEVICES, "BUS:ADDRESS", "VID:PID"),
                ("--log loud list", "--log", "debug,info,warn,error,off"),
                ("serve raw --listen 65536", 'cannot listen on "65536"', "ADDR:PORT")):
            with self.subTest(line):
                self.assert_failure(run(*line.split()), 2, *parts)

    def test_what_is_not_there_is_status_1(self) -> None:
        with socket.create_server(("127.0.0.1", 0)) as taken:
            in_use = "%s:%d" % taken.getsockname()
            for line, *parts in (
                    ("serve dead:beef --stdio", "no device dead:beef is plugged in", "virtusb list"),
                    (f"serve raw --stdio --module {NO_MODULE}", NO_MODULE, "VEL_DRV_MODULE", "--module PATH"),
                    (f"serve raw --listen {in_use}", f"cannot listen on {in_use}", "in use", "another port")):
                with self.subTest(line):
                    self.assert_failure(run(*line.split()), 1, *parts)
        for line in ("list --json", "describe raw", "demo"):
            with self.subTest(line), open("/dev/full", "w", encoding="ascii") as full:
                self.assert_failure(run(*line.split(), stdout=full), 1, "cannot write to standard output")


class Listing(CommandTestCase):
    def test_text_and_json_name_the_same_devices(self) -> None:
        document = json.loads(self.assert_result("list", "--json"))
        shown, local = self.assert_result("list").split("Local devices:")
        self.assertEqual(re.findall(r"(?m)^  (\S+) +(.+)$", shown),
                         [(device["name"], device["about"]) for device in document["emulated"]])
        self.assertEqual(re.findall(r"(?m)^  (\d+:\d+) ", local),
                         [f"{device['bus']}:{device['address']}" for device in document["local"]])
        for name in (device["name"] for device in document["emulated"]):
            text, described = (self.assert_result("describe", name, *option) for option in ((), ("--json",)))
            ids = json.loads(described)["device"]
            self.assertIn("ID %04x:%04x %s\n" % (ids["idVendor"], ids["idProduct"], ids["product"]), text)
            self.assertEqual(text.count("bEndpointAddress"), described.count("bEndpointAddress"))

    def test_every_device_answers_and_every_transfer_completes(self) -> None:
        text = self.assert_result("demo")
        self.assertEqual(set(re.findall(r"(?m)^(\w+): [0-9a-f]{4}:[0-9a-f]{4}  USB ", text)), {*wire.DEVICES, "camera"})
        transfers = re.findall(r"(?m)^  (bulk|interrupt|isochronous) (IN|OUT) .*-> completed, +[1-9]", text)
        self.assertEqual(set(transfers), {*itertools.product(("bulk", "interrupt", "isochronous"), ("IN", "OUT"))})


class ServingStdio(CommandTestCase):
    def test_remote_that_no_longer_reads_ends_the_service(self) -> None:
        with Running("serve", "raw", "--stdio") as served:
            served.process.stdout.close()
            served.process.stdin.write(SPEED.encode())  # And stays open.
            self.assertEqual(served.end(), (1, ["virtusb: the remote side went away before all replies were sent"]))
        with Running("serve", "raw", "--stdio") as served:
            served.process.stdin.write(SPEED.encode()[:15])
            served.process.stdin.close()
            self.assertRegex(str(served.end()), r"^\(1, \['virtusb: .*in the middle of a packet")

    def test_signal_ends_it_in_time(self) -> None:
        for number, more in itertools.product((signal.SIGINT, signal.SIGTERM), (b"", LARGE)):
            with self.subTest(number=number, more=len(more)), Running("serve", "raw", "--stdio") as served:
                served.process.stdin.write(SPEED.encode() + more)
                self.assertEqual(read_exactly(served.process.stdout, len(FULL_SPEED)), FULL_SPEED)
                if more:
                    select.select([served.process.stdout], [], [])
                self.assertEqual(self.end_promptly(served, number), [])
        with Running("serve", "250:250", "--stdio", "--wait") as waiting:
            while waiting.note() != "waiting for the device":  # Without udevd another line comes first.
                pass
            self.assertEqual(self.end_promptly(waiting, signal.SIGINT), [])


class ServingSockets(CommandTestCase):
    def serve(self, address: str = "0") -> tuple[Running, int]:
        served = self.enterContext(Running("serve", "raw", "--listen", address))
        match = re.fullmatch(r"serving raw on (.*):(\d+), one remote side at a time; interrupt to end", served.note())
        self.assertEqual(match[1], "[::1]" if "::1" in address else "127.0.0.1")
        return served, int(match[2])

    def connect(self, port: int, host: str = "127.0.0.1") -> socket.socket:
        return self.enterContext(socket.create_connection((host, port), timeout=wire.DEADLINE))

    def ask(self, remote: socket.socket) -> None:
        remote.sendall(SPEED.encode())
        self.assertEqual(read_exactly(remote, len(FULL_SPEED)), FULL_SPEED)

    def test_addresses_are_those_that_were_asked_for(self) -> None:
        for address in ("0", ":0", "localhost:0"):
            with self.subTest(address):
                port = self.serve(address)[1]
                self.ask(self.connect(port))
                with self.assertRaises(ConnectionRefusedError):
                    self.connect(port, "127.0.0.2")  # Would be taken on any address of this machine.
        try:
            socket.create_server(("::1", 0), family=socket.AF_INET6).close()
        except OSError as error:
            self.skipTest(f"this machine has no IPv6 loopback address: {error}")
        self.ask(self.connect(self.serve("[::1]:0")[1], "::1"))

    def test_remote_whose_machine_vanishes_is_looked_for(self) -> None:
        served, port = self.serve()
        remote = self.connect(port)
        self.ask(remote)
        own, peer = (f"0100007F:{each:04X}" for each in (port, remote.getsockname()[1]))
        line = re.search(f"{own} {peer} .*", pathlib.Path("/proc/net/tcp").read_text())[0].split()
        keepalive, jiffies = line[4].split(":")
        self.assertEqual(keepalive, "02")
        self.assertLessEqual(int(jiffies, 16), 5 * os.sysconf("SC_CLK_TCK"))

    def test_second_remote_waits_until_the_first_is_done(self) -> None:
        served, port = self.serve()
        first, second = self.connect(port), self.connect(port)
        self.ask(first)
        second.sendall(SPEED.encode())
        self.assertEqual(select.select([second], [], [], 0)[0], [])
        first.close()
        self.assertEqual(read_exactly(second, len(FULL_SPEED)), FULL_SPEED)
        notes = [served.note() for _ in range(3)]
        self.assertRegex("\n".join(notes), r"connected\n.* is done, device given back\n.*connected$")

    def test_remote_that_vanishes_gives_the_device_back_and_the_next_is_served(self) -> None:
        served, port = self.serve()
        reset_is = "is gone" if not PROGRAM.endswith(".exe") else ""  # Wine tells of an end where Windows tells of a reset.
        for stream, reset, part in ((SPEED.encode()[:7], False, "in the middle of a packet"),
                                    (SPEED.encode()[:7], True, reset_is),
                                    (LARGE, False, "(is gone|went away)"),
                                    (LARGE, True, "(is gone|went away)")):
            with self.subTest(stream=stream[:20], reset=reset):
                remote = self.connect(port)
                remote.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", reset, 0))
                self.ask(remote)
                self.assertRegex(served.note(), r"^127\.0\.0\.1:\d+ connected$")
                remote.sendall(stream)
                if stream is LARGE:
                    select.select([remote], [], [])  # Replies are under way.
                remote.close()
                self.assertRegex(served.note(), f"^127.0.0.1:.*{part}.*; device given back$")
        self.ask(self.connect(port))
