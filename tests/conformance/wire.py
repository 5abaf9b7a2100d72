"""Client side of the wire format that `virtusb serve DEVICE --stdio` speaks; it shares no code with the command."""

from __future__ import annotations

import os
import struct
import subprocess
import unittest
from dataclasses import dataclass, replace
from typing import Optional, Sequence

DEVICES = ("keyboard", "printer", "ch340", "ch9102", "raw", "winusb")
DEADLINE = 60.0  # Seconds for one run of the command; only a command that hangs needs them.
MIB = 1 << 20

PING = 0x0004
GET_DEVICE, OPEN = 0x1000, 0x1002
GET_CONFIG, GET_BUS, GET_ADDRESS, GET_STRING = 0x1008, 0x100A, 0x100C, 0x100E
SET_CONFIG, SET_ALT, CANCEL = 0x101A, 0x101E, 0x1020
CONTROL, BULK, INTERRUPT, ISO = 0x1022, 0x1024, 0x1026, 0x1028
GET_SPEED, SET_POLICY = 0x102A, 0x102C


@dataclass(frozen=True)
class Request:
    """One request packet; all header fields but the length can be chosen."""

    command: int
    payload: bytes = b""
    req_id: int = 0x5A
    dev_id: int = 0x00C0FFEE
    byte_order: int = 0

    def encode(self) -> bytes:
        return struct.pack("<BBHIIB3x", 0x27, self.req_id, self.command, self.dev_id, 16 + len(self.payload),
                           self.byte_order) + self.payload

    def reply(self, payload: bytes) -> bytes:
        """The reply packet that answers this request with `payload`, byte for byte."""
        return struct.pack("<BBHIIB3x", 0x27, self.req_id, self.command + 1, self.dev_id, 16 + len(payload),
                           0) + payload


# Request payloads. A length is that of the data unless it is given.

def control(request_type: int, request: int, value: int, index: int, data: bytes,
            length: Optional[int] = None) -> Request:
    fields = struct.pack("<BBHHHI", request_type, request, value, index, len(data) if length is None else length, 1000)
    return Request(CONTROL, fields + data)


def bulk(endpoint: int, stream: int, data: bytes, length: Optional[int] = None) -> Request:
    return Request(BULK, struct.pack("<III", endpoint, stream, len(data) if length is None else length) + data)


def interrupt(endpoint: int, stream: int, data: bytes, length: Optional[int] = None) -> Request:
    return replace(bulk(endpoint, stream, data, length), command=INTERRUPT)


def iso_raw(endpoint: int, stream: int, packets: int, data: bytes, length: Optional[int] = None) -> Request:
    """Isochronous transfer whose packet table is whatever `data` begins with."""
    n = len(data) if length is None else length
    return Request(ISO, struct.pack("<IIII", endpoint, stream, packets, n) + data)


def iso_table(lengths: Sequence[int]) -> bytes:
    """Packet table of a request; only the lengths are meant to be read from it."""
    return b"".join(struct.pack("<IIII", 0, n, 0x11111111, 0x22222222) for n in lengths)


def iso(endpoint: int, stream: int, lengths: Sequence[int]) -> Request:
    """Isochronous transfer with one packet of filler per entry of `lengths`."""
    return iso_raw(endpoint, stream, len(lengths), iso_table(lengths) + filler(sum(lengths)))


def string(index: int, language: int, length: int) -> Request:
    return Request(GET_STRING, struct.pack("<BHI", index, language, length))


def policy(text: bytes, length: Optional[int] = None) -> Request:
    return Request(SET_POLICY, struct.pack("<I", len(text) if length is None else length) + text)


def filler(n: int) -> bytes:
    """Request data that looks neither like zeroes nor like an answer."""
    return (bytes((7 * i + 3) & 0xFF for i in range(251)) * (n // 251 + 1))[:n]


# Reply payloads.

def status(result: int) -> bytes:
    return struct.pack("<i", result)


def answer(data: bytes) -> bytes:
    """Result and data of a control transfer or a string descriptor."""
    return status(len(data)) + data


def given_back(stream: int, data: bytes = b"", result: int = 0) -> bytes:
    """A bulk or interrupt transfer."""
    return struct.pack("<Ii", stream, result) + data


def iso_given_back(stream: int, lengths: Sequence[int], data: bytes) -> bytes:
    """An isochronous transfer whose packets of these lengths lie behind their table."""
    table, base = b"", 16 * len(lengths)
    for length in lengths:
        table += struct.pack("<IIII", base, length, length, 0)
        base += length
    return struct.pack("<IiI", stream, 0, len(lengths)) + table + data


def pattern(n: int) -> bytes:
    """What the emulated endpoints send: FF FE .. 01 FF FE .."""
    return (bytes(range(0xFF, 0x00, -1)) * (n // 255 + 1))[:n]


class WireTestCase(unittest.TestCase):
    """Exchanges with the command, each in a run of its own."""

    def serve(self, device: str, requests: Sequence[Request], *options: str) -> tuple[list[bytes], str]:
        """The replies to all requests, and what was written on standard error, of a clean run."""
        ended = subprocess.run([os.environ["VIRTUSB"], "serve", device, "--stdio", *options],
                               env={"VEL_LOG_LEVEL": "warn", **os.environ},
                               input=b"".join(request.encode() for request in requests), capture_output=True,
                               timeout=DEADLINE, check=False)
        log = ended.stderr.decode("utf-8", "backslashreplace")
        self.assertEqual(ended.returncode, 0, log)
        replies, rest = [], ended.stdout
        while rest:
            length = max(struct.unpack_from("<I", rest, 8)[0], 16)
            replies.append(rest[:length])
            rest = rest[length:]
        return replies, log

    def expect(self, device: str, exchanges: Sequence[tuple[Request, Optional[bytes]]], *options: str) -> str:
        """Each request is answered, in order, with its payload (None: not at all), whole packets compared. The log."""
        replies, log = self.serve(device, [request for request, _ in exchanges], *options)
        answered = [(request, payload) for request, payload in exchanges if payload is not None]
        for number, ((request, payload), reply) in enumerate(zip(answered, replies)):
            self.assertEqual(reply, request.reply(payload),
                             f"{device}: reply {number}, to {request.command:#x} {request.payload[:24].hex()}")
        self.assertEqual(len(replies), len(answered), device)
        return log
