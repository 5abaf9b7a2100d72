"""The command as a person uses it: what it says, where it says it, and how it ends.

Nothing here waits for time to pass. A deadline kills a command that hangs, so that its test fails.
"""

from __future__ import annotations

import json
import os
import re
import select
import signal
import socket
import struct
import subprocess
import threading
import time
import unittest
from typing import Any, Iterator, Optional

import wire

COMMAND = os.environ["VIRTUSB"]
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

    def __init__(self, *arguments: str) -> None:
        self.process = subprocess.Popen([COMMAND, *arguments], stdin=subprocess.PIPE, bufsize=0,
                                        stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        self._watchdog = threading.Timer(wire.DEADLINE, self.process.kill)

    def __enter__(self) -> Running:
        self._watchdog.start()
        return self

    def __exit__(self, *_: object) -> None:
        self._watchdog.cancel()
        self.process.kill()
        self.process.wait()
        for pipe in (self.process.stdin, self.process.stdout, self.process.stderr):
            pipe.close()

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

    def assert_prompt(self, running: Running, number: signal.Signals, notes: list[str]) -> None:
        """A signal ends the command: done, the device given back, in time."""
        begin = time.monotonic()
        self.assertEqual(running.end(number), (0, notes))
        self.assertLess(time.monotonic() - begin, SECONDS_TO_END)

    def assert_result(self, *arguments: str) -> str:
        """What a run that succeeds writes on standard output; on standard error is at most the log."""
        ended = run(*arguments)
        notes = [line for line in ended.stderr.splitlines() if " VEL_LOG " not in line]
        self.assertEqual((ended.returncode, notes), (0, []))
        self.assertTrue(ended.stdout.endswith("\n"))
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
                ("frobnicate", 'unknown command "frobnicate"', "virtusb --help"),
                ("list --frob", 'unknown option "--frob"', "virtusb list --help"),
                ("--frob list", 'unknown option "--frob"'),
                ("describe raw too many", 'unexpected argument "too"', "virtusb describe --help"),
                ("describe", "DEVICE is required"),
                ("describe nosuch", 'unknown device "nosuch"', *wire.DEVICES, "BUS:ADDRESS", "VID:PID"),
                ("describe 300:1", 'unknown device "300:1"'),
                ("serve 12345:1 --stdio", 'unknown device "12345:1"'),
                ("describe raw --module", "--module", "PATH"),
                ("--log loud list", "--log", "debug,info,warn,error,off"),
                ("serve raw", "[--stdio,--listen]"),
                ("serve raw --stdio --listen 0", "[--stdio,--listen]", "2 were given"),
                ("serve raw --listen nowhere", 'cannot listen on "nowhere"', "ADDR:PORT"),
                ("serve raw --listen 65536", 'cannot listen on "65536"', "ADDR:PORT")):
            with self.subTest(line):
                self.assert_failure(run(*line.split()), 2, *parts)

    def test_what_is_not_there_is_status_1(self) -> None:
        with socket.create_server(("127.0.0.1", 0)) as taken:
            in_use = "%s:%d" % taken.getsockname()
            for line, *parts in (
                    ("describe 250:250", "no device 250:250 is plugged in", "virtusb list"),
                    ("serve dead:beef --stdio", "no device dead:beef is plugged in", "virtusb list"),
                    ("describe raw --module /no/such", "module not found: /no/such", "--module PATH"),
                    (f"describe raw --module {__file__}", __file__, "--module PATH"),
                    (f"serve raw --stdio --module {NO_MODULE}", NO_MODULE, "VEL_DRV_MODULE", "--module PATH"),
                    (f"serve raw --listen {in_use}", f"cannot listen on {in_use}", "in use", "another port"),
                    ("serve raw --listen 192.0.2.1:0", "192.0.2.1:0", "address of this machine")):
                with self.subTest(line):
                    self.assert_failure(run(*line.split()), 1, *parts)

    def test_results_that_cannot_be_written_are_status_1(self) -> None:
        for line in ("list", "list --json", "describe raw", "demo"):
            with self.subTest(line), open("/dev/full", "w", encoding="ascii") as full:
                self.assert_failure(run(*line.split(), stdout=full), 1, "cannot write to standard output")

    def test_log_goes_to_standard_error(self) -> None:
        logged = run("describe", "raw", "--log", "debug")
        self.assertEqual((logged.returncode, logged.stdout), (0, self.assert_result("describe", "raw")))
        self.assertIn("Debug:", logged.stderr)


class Listing(CommandTestCase):
    def test_text_and_json_name_the_same_devices(self) -> None:
        document = json.loads(self.assert_result("list", "--json"))
        text = self.assert_result("list")
        emulated = {device["name"]: device["about"] for device in document["emulated"]}
        self.assertLessEqual(set(wire.DEVICES), set(emulated))
        shown, local = re.fullmatch(r"Emulated devices:\n(.*)Local devices:(.*)", text, re.DOTALL).groups()
        self.assertEqual(dict(re.findall(r"^  (\S+) +(.+)$", shown, re.MULTILINE)), emulated)
        self.assertEqual(re.findall(r"^  (\d+:\d+) ", local, re.MULTILINE),
                         [f"{device['bus']}:{device['address']}" for device in document["local"]])


def fields_of_json(node: Any) -> Iterator[tuple[str, Any, str]]:
    """Name, value and the name that people know for it, in the document's order."""
    if isinstance(node, list):
        for item in node:
            yield from fields_of_json(item)
        return
    name: Optional[str] = None
    for key, value in node.items():
        if isinstance(value, (dict, list)):
            if name is not None:
                yield name, number, note
                name = None
            yield from fields_of_json(value)
        elif not isinstance(value, str) or key.startswith("bcd"):
            if name is not None:
                yield name, number, note
            name, number, note = key, value, ""
        elif key != "extra":
            note = value
    if name is not None:
        yield name, number, note


class Describing(CommandTestCase):
    TEXT_NAMES = {"iSerialNumber": "iSerial", "maxPowerMilliamperes": "MaxPower"}
    LINE = re.compile(r"^ +(Transfer Type|\w+) +(\S+) *(.*)$")

    def fields_of_text(self, text: str, names: set[str]) -> Iterator[tuple[str, Any, str]]:
        found = [match.groups() for match in map(self.LINE.match, text.splitlines()) if match]
        for index, (name, value, note) in enumerate(found):
            if name not in names:
                continue
            if name == "bEndpointAddress":
                note = note.rsplit(" ")[-1].lower()
            if name == "bmAttributes" and found[index + 1][0] == "Transfer Type":
                note = found[index + 1][1]
            if name == "wMaxPacketSize":
                note = ""  # In words what the number says.
            yield name, value if name.startswith("bcd") else int(value.removesuffix("mA"), 0), note

    def test_text_and_json_agree(self) -> None:
        for device in (item["name"] for item in json.loads(run("list", "--json").stdout)["emulated"]):
            with self.subTest(device):
                text = self.assert_result("describe", device)
                document = json.loads(self.assert_result("describe", device, "--json"))
                parts = document["device"], document["configuration"]
                expected = [(self.TEXT_NAMES.get(name, name), value, note)
                            for part in parts for name, value, note in fields_of_json(part)]
                self.assertGreater(len(expected), 25)
                self.assertEqual(list(self.fields_of_text(text, {name for name, _, _ in expected})), expected)
                ids = document["device"]
                self.assertEqual(text.splitlines()[0], "Bus %03d Device %03d: ID %04x:%04x %s" % (
                    document["bus"], document["address"], ids["idVendor"], ids["idProduct"], ids["product"]))


class Demonstrating(CommandTestCase):
    def test_every_device_answers_and_every_transfer_completes(self) -> None:
        text = self.assert_result("demo")
        for device in wire.DEVICES:
            self.assertRegex(text, rf"(?m)^{device}: [0-9a-f]{{4}}:[0-9a-f]{{4}}  USB [12]\.\d\d, full speed, class .+$")
        transfers = re.findall(r"(?m)^  (bulk|interrupt|isochronous) (IN|OUT) .*-> completed, +[1-9]", text)
        kinds = {(kind, way) for kind in ("bulk", "interrupt", "isochronous") for way in ("IN", "OUT")}
        self.assertEqual(set(transfers), kinds)
        self.assertRegex(text, r"(?m)^  close +-> 0$")


class ServingStdio(CommandTestCase):
    def test_streams_that_end_wrong_are_status_1(self) -> None:
        for stream, part in ((SPEED.encode()[:15], "in the middle of a packet"),
                             (SPEED.encode() + wire.bulk(1, 1, bytes(64)).encode()[:-1], "in the middle of a packet"),
                             (b"GET / HTTP/1.1\r\nHost: localhost\r\n\r\n", "holds no packet")):
            with self.subTest(stream), Running("serve", "raw", "--stdio") as served:
                served.process.stdin.write(stream)
                served.process.stdin.close()
                served.process.stdin = open(os.devnull, "wb")  # Closed later as the pipe would be.
                status, notes = served.end()
                self.assertEqual((status, len(notes)), (1, 1), notes)
                self.assertRegex(notes[0], "^virtusb: .*" + part)

    def test_remote_that_no_longer_reads_ends_the_service(self) -> None:
        with Running("serve", "raw", "--stdio") as served:
            served.process.stdout.close()
            served.process.stdin.write(SPEED.encode())  # And stays open.
            self.assertEqual(served.end(), (1, ["virtusb: the remote side went away before all replies were sent"]))

    def test_signal_ends_it_in_time(self) -> None:
        for number in (signal.SIGINT, signal.SIGTERM):
            for more in (b"", LARGE):  # Idle, and while nobody reads the replies.
                with self.subTest(number=number, more=len(more)), Running("serve", "raw", "--stdio") as served:
                    served.process.stdin.write(SPEED.encode() + more)
                    self.assertEqual(read_exactly(served.process.stdout, len(FULL_SPEED)), FULL_SPEED)
                    if more:
                        select.select([served.process.stdout], [], [])
                    self.assert_prompt(served, number, [])
            with self.subTest(number=number), Running("serve", "250:250", "--stdio", "--wait") as waiting:
                self.assertEqual(waiting.note(), "waiting for the device")
                self.assert_prompt(waiting, number, [])


class ServingSockets(CommandTestCase):
    def serve(self, address: str = "0") -> tuple[Running, int]:
        served = self.enterContext(Running("serve", "raw", "--listen", address))
        line = served.note()
        match = re.fullmatch(r"serving raw on (.*):(\d+), one remote side at a time; interrupt to end", line)
        self.assertTrue(match, line)
        self.assertEqual(match[1], "[::1]" if "::1" in address else "127.0.0.1")
        return served, int(match[2])

    def connect(self, port: int, host: str = "127.0.0.1") -> socket.socket:
        return self.enterContext(socket.create_connection((host, port), timeout=wire.DEADLINE))

    def ask(self, remote: socket.socket) -> None:
        remote.sendall(SPEED.encode())
        self.assertEqual(read_exactly(remote, len(FULL_SPEED)), FULL_SPEED)

    def test_port_alone_is_on_the_loopback_address(self) -> None:
        for address in ("0", ":0", "127.0.0.1:0", "localhost:0"):
            with self.subTest(address):
                _, port = self.serve(address)
                self.ask(self.connect(port))
                with self.assertRaises(ConnectionRefusedError):
                    self.connect(port, "127.0.0.2")  # Would be taken on any address of this machine.

    def test_ipv6_address_goes_in_brackets(self) -> None:
        try:
            socket.create_server(("::1", 0), family=socket.AF_INET6).close()
        except OSError as error:
            self.skipTest(f"this machine has no IPv6 loopback address: {error}")
        self.ask(self.connect(self.serve("[::1]:0")[1], "::1"))

    def test_second_remote_waits_until_the_first_is_done(self) -> None:
        served, port = self.serve()
        first, second = self.connect(port), self.connect(port)
        second.sendall(SPEED.encode())
        self.ask(first)
        self.assertEqual(select.select([second], [], [], 0)[0], [])
        first.close()
        self.assertEqual(read_exactly(second, len(FULL_SPEED)), FULL_SPEED)
        notes = [served.note() for _ in range(3)]
        self.assertRegex("\n".join(notes), r"connected\n.* is done, device given back\n.*connected$")

    def test_remote_that_vanishes_gives_the_device_back_and_the_next_is_served(self) -> None:
        served, port = self.serve()
        reset_on_close = struct.pack("ii", 1, 0)
        for stream, reset, part in ((SPEED.encode()[:7], False, "in the middle of a packet"),
                                    (SPEED.encode()[:7], True, "is gone"),
                                    (b"GET / HTTP/1.1\r\n\r\n", False, "holds no packet"),
                                    (LARGE, False, "(is gone|went away)"),
                                    (LARGE, True, "(is gone|went away)")):
            with self.subTest(stream=stream[:20], reset=reset):
                remote = self.connect(port)
                if reset:
                    remote.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, reset_on_close)
                self.ask(remote)
                self.assertRegex(served.note(), r"^127\.0\.0\.1:\d+ connected$")
                remote.sendall(stream)
                if stream is LARGE:
                    select.select([remote], [], [])  # Replies are under way.
                remote.close()
                self.assertRegex(served.note(), f"^127.0.0.1:.*{part}.*; device given back$")
        self.ask(self.connect(port))

    def test_signal_ends_it_in_time(self) -> None:
        for number in (signal.SIGINT, signal.SIGTERM):
            with self.subTest(number=number, remote=False):
                self.assert_prompt(self.serve()[0], number, [])
            for more in (b"", LARGE):
                with self.subTest(number=number, more=len(more)):
                    served, port = self.serve()
                    remote = self.connect(port)
                    self.ask(remote)
                    self.assertRegex(served.note(), "connected$")
                    remote.sendall(more)
                    if more:
                        select.select([remote], [], [])
                    self.assert_prompt(served, number, ["interrupted, device given back"])


if __name__ == "__main__":
    unittest.main()
