"""Client side of the wire format that `virtusb serve DEVICE --stdio` speaks.

A `Request` is one packet of the remote side, and knows the header of the reply that belongs to it.
`Served` runs the command on one emulated device. Nothing here waits for time to pass: a deadline
kills a command that does not answer, so that a test fails instead of hanging.
"""

from __future__ import annotations

import io
import os
import queue
import shlex
import struct
import subprocess
import sys
import threading
import unittest
from dataclasses import dataclass, replace
from typing import Optional, Sequence, Union

DEVICES = ("keyboard", "printer", "ch340", "ch9102", "raw", "winusb")
DEADLINE = float(os.environ.get("VIRTUSB_DEADLINE", "60"))  # seconds for one run of the command
MIB = 1 << 20

PING = 0x0004
GET_DEVICE, OPEN, CLOSE, GET_PORT, GET_CONFIG = 0x1000, 0x1002, 0x1004, 0x1006, 0x1008
GET_BUS, GET_ADDRESS, GET_STRING, RESET = 0x100A, 0x100C, 0x100E, 0x1010
CLEAR_HALT, SET_CONFIG, SET_ALT, CANCEL = 0x1016, 0x101A, 0x101E, 0x1020
CONTROL, BULK, INTERRUPT, ISO = 0x1022, 0x1024, 0x1026, 0x1028
GET_SPEED, SET_POLICY = 0x102A, 0x102C

USB_CAMERA = bytes.fromhex("16 03 55 00 53 00 42 00 20 00 43 00 61 00 6D 00 65 00 72 00 61 00")


@dataclass(frozen=True)
class Request:
    """One request packet; all header fields but the length can be chosen."""

    command: int
    payload: bytes = b""
    req_id: int = 0x5A
    dev_id: int = 0x00C0FFEE
    byte_order: int = 0

    def encode(self, order: str = "<") -> bytes:
        """The packet as bytes; `order` is the byte order of the header fields."""
        return struct.pack(order + "BBHIIB3x", 0x27, self.req_id, self.command, self.dev_id,
                           16 + len(self.payload), self.byte_order) + self.payload

    def reply(self, payload: bytes) -> bytes:
        """The reply packet that answers this request with `payload`, byte for byte."""
        return struct.pack("<BBHIIB3x", 0x27, self.req_id, self.command + 1, self.dev_id,
                           16 + len(payload), 0) + payload

    def with_ids(self, req_id: int, dev_id: int) -> Request:
        return replace(self, req_id=req_id, dev_id=dev_id)


# Request payloads.

def control(request_type: int, request: int, value: int, index: int, data: bytes,
            length: Optional[int] = None) -> Request:
    """Control transfer; wLength is the size of `data` unless `length` says otherwise."""
    fields = struct.pack("<BBHHHI", request_type, request, value, index,
                         len(data) if length is None else length, 1000)
    return Request(CONTROL, fields + data)


def bulk(endpoint: int, stream: int, data: bytes, length: Optional[int] = None) -> Request:
    n = len(data) if length is None else length
    return Request(BULK, struct.pack("<III", endpoint, stream, n) + data)


def interrupt(endpoint: int, stream: int, data: bytes, length: Optional[int] = None) -> Request:
    return replace(bulk(endpoint, stream, data, length), command=INTERRUPT)


def iso_raw(endpoint: int, stream: int, packets: int, data: bytes,
            length: Optional[int] = None) -> Request:
    """Isochronous transfer whose packet table is whatever `data` begins with."""
    n = len(data) if length is None else length
    return Request(ISO, struct.pack("<IIII", endpoint, stream, packets, n) + data)


def iso_table(lengths: Sequence[int]) -> bytes:
    """Packet table of a request; only the lengths are meant to be read from it."""
    return b"".join(struct.pack("<IIII", 0, n, 0x11111111, 0x22222222) for n in lengths)


def iso(endpoint: int, stream: int, lengths: Sequence[int],
        payload: Optional[bytes] = None) -> Request:
    """Isochronous transfer with one packet per entry of `lengths`."""
    body = filler(sum(lengths)) if payload is None else payload
    return iso_raw(endpoint, stream, len(lengths), iso_table(lengths) + body)


def string(index: int, language: int, length: int) -> Request:
    return Request(GET_STRING, struct.pack("<BHI", index, language, length))


def set_alt(interface: int, setting: int) -> Request:
    return Request(SET_ALT, struct.pack("<II", interface, setting))


def cancel(stream: int) -> Request:
    return Request(CANCEL, struct.pack("<I", stream))


def policy(text: bytes, length: Optional[int] = None) -> Request:
    n = len(text) if length is None else length
    return Request(SET_POLICY, struct.pack("<I", n) + text)


def filler(n: int) -> bytes:
    """Request data that looks neither like zeroes nor like an answer."""
    return (bytes((7 * i + 3) & 0xFF for i in range(251)) * (n // 251 + 1))[:n]


# Reply payloads.

def status(result: int) -> bytes:
    return struct.pack("<i", result)


def answer(data: bytes) -> bytes:
    """Result and data of a control transfer or a string descriptor."""
    return status(len(data)) + data


def given_back(stream: int, data: bytes = b"") -> bytes:
    """A bulk or interrupt transfer that succeeded."""
    return struct.pack("<Ii", stream, 0) + data


def iso_given_back(stream: int, packets: int, data: bytes = b"") -> bytes:
    """An isochronous transfer that succeeded."""
    return struct.pack("<IiI", stream, 0, packets) + data


def pattern(n: int) -> bytes:
    """What the emulated endpoints send: FF FE .. 01 FF FE .."""
    return (bytes(range(0xFF, 0x00, -1)) * (n // 255 + 1))[:n]


class Served:
    """The command serving one emulated device; a context manager.

    Leaving the block closes the command's input and fails unless it then exits with 0 and has no
    reply left that nobody asked for. `log` is what it wrote on standard error, once it has ended.
    """

    def __init__(self, device: str, *after: str, before: Sequence[str] = ()) -> None:
        if not os.environ.get("VIRTUSB"):
            raise RuntimeError("set VIRTUSB to the path of the command")
        command = shlex.split(os.environ["VIRTUSB"])
        self._command = [*command, *before, "serve", device, "--stdio", *after]
        self._replies: queue.Queue[Union[bytes, str, None]] = queue.Queue()
        self._lines: list[str] = []
        self._finished = False
        self._expired = False

    @property
    def log(self) -> str:
        return "".join(self._lines)

    def __enter__(self) -> Served:
        self._process = subprocess.Popen(self._command, stdin=subprocess.PIPE, bufsize=0,
                                         stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        self._threads = [threading.Thread(target=self._read_replies, daemon=True),
                         threading.Thread(target=self._read_log, daemon=True)]
        self._watchdog = threading.Timer(DEADLINE, self._expire)
        self._watchdog.daemon = True
        for thread in (*self._threads, self._watchdog):
            thread.start()
        return self

    def __exit__(self, kind: object, *_: object) -> None:
        if kind is not None:
            self._process.kill()
            self._reap()
        elif not self._finished:
            left = self.finish()
            if left:
                raise AssertionError(f"{len(left)} replies too many, first {left[0][:64].hex()}")

    def write(self, data: bytes) -> None:
        """Write raw bytes to the command."""
        rest = memoryview(data)
        try:
            while rest:
                rest = rest[self._process.stdin.write(rest):]
        except OSError as error:
            raise AssertionError(self._describe(f"does not read its input: {error}")) from error

    def send(self, *requests: Request) -> None:
        """Send packets, all in one write."""
        self.write(b"".join(request.encode() for request in requests))

    def receive(self) -> bytes:
        """The next reply packet."""
        reply = self._next()
        if reply is None:
            raise AssertionError(self._describe("ended its output before this reply"))
        return reply

    def ask(self, request: Request) -> bytes:
        self.send(request)
        return self.receive()

    def finish(self) -> list[bytes]:
        """End the input; return the replies still to come after a clean exit."""
        self._process.stdin.close()
        replies = []
        try:
            while (reply := self._next()) is not None:
                replies.append(reply)
            self._process.wait()
        finally:
            self._process.kill()  # a no-op after the exit; ends it when its output made no sense
            self._reap()
        if self._process.returncode != 0:
            raise AssertionError(self._describe(f"exited with {self._process.returncode}"))
        return replies

    def _next(self) -> Optional[bytes]:
        item = self._replies.get()
        if not isinstance(item, bytes):
            self._replies.put(item)  # the end stays the end for whoever asks again
        if isinstance(item, str):
            raise AssertionError(self._describe(item))
        return item

    def _describe(self, what: str) -> str:
        late = f" (killed after {DEADLINE:g} s)" if self._expired else ""
        messages = f"; its messages end with: {self.log[-2000:]}" if self._lines else ""
        return f"{shlex.join(self._command)} {what}{late}{messages}"

    def _expire(self) -> None:
        self._expired = True
        self._process.kill()

    def _reap(self) -> None:
        self._finished = True
        self._process.wait()
        self._watchdog.cancel()
        for thread in self._threads:
            thread.join()
        for pipe in (self._process.stdin, self._process.stdout, self._process.stderr):
            pipe.close()

    def _read_replies(self) -> None:
        with io.BufferedReader(self._process.stdout) as stream:
            while header := stream.read(16):
                if len(header) < 16 or header[0] != 0x27:
                    return self._replies.put(f"wrote something that is no packet: {header!r}")
                length = struct.unpack_from("<I", header, 8)[0]
                body = stream.read(length - 16) if length >= 16 else b""
                if 16 + len(body) != length:
                    return self._replies.put(f"wrote an incomplete packet: {header.hex()}")
                self._replies.put(header + body)
        self._replies.put(None)

    def _read_log(self) -> None:
        with io.BufferedReader(self._process.stderr) as stream:
            for line in stream:
                self._lines.append(line.decode("utf-8", "backslashreplace"))


class WireTestCase(unittest.TestCase):
    """Assertions shared by the wire tests."""

    def expect(self, device: Served, request: Request, payload: bytes) -> None:
        """`request` is answered, whole packet compared."""
        self.assertEqual(device.ask(request), request.reply(payload))

    def expect_alive(self, device: Served) -> None:
        """The next reply is the one to a request sent just now."""
        self.expect(device, Request(GET_SPEED, req_id=0x77, dev_id=0x1234567), status(2))


def main(everything: bool = False) -> None:
    """Run the calling file's tests or the whole folder's; `sys.argv[1]` may be the command."""
    if len(sys.argv) > 1 and os.path.isfile(sys.argv[1]):
        os.environ["VIRTUSB"] = shlex.quote(sys.argv.pop(1))
    if not os.environ.get("VIRTUSB"):
        sys.exit(f"usage: VIRTUSB=/path/to/virtusb {sys.argv[0]} [-v], or give the path first")
    if everything:
        folder = os.path.dirname(os.path.abspath(__file__))
        unittest.main(module=None, argv=[sys.argv[0], "discover", "-s", folder, *sys.argv[1:]])
    else:
        unittest.main()
