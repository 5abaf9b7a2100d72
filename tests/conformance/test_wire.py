"""Packets, commands and bad input."""

from __future__ import annotations

import os
import re
import struct
from dataclasses import replace
from unittest import mock

import wire
from wire import (BULK, CANCEL, CONTROL, DEVICES, GET_ADDRESS, GET_BUS, GET_DEVICE, GET_SPEED, GET_STRING, INTERRUPT,
                  ISO, MIB, PING, SET_ALT, SET_CONFIG, SET_POLICY, Request, answer, bulk, control, filler, given_back,
                  interrupt, iso, iso_given_back, iso_raw, iso_table, pattern, policy, status, string)

# Command, request payload, reply command and i32 of the reply on the wire.
STATUS_COMMANDS = [
    (0x1006, "", "07 10", "FF 00 00 00"),           # port number
    (0x1002, "", "03 10", "00 00 00 00"),           # open
    (0x1014, "", "15 10", "00 00 00 00"),           # detach kernel driver
    (0x101A, "FF FF FF FF", "1B 10", "00 00 00 00"),  # set configuration
    (0x101C, "", "1D 10", "00 00 00 00"),           # claim all interfaces
    (0x101E, "FF 00 00 00 01 00 00 00", "1F 10", "00 00 00 00"),  # set alternate setting
    (0x1016, "", "17 10", "00 00 00 00"),           # clear halt
    (0x1020, "07 00 00 00", "21 10", "00 00 00 00"),  # cancel transfer
    (0x102A, "", "2B 10", "02 00 00 00"),           # device speed: full
    (0x102C, "03 00 00 00 61 62 63", "2D 10", "00 00 00 00"),  # set redirection policy
    (0x1018, "", "19 10", "00 00 00 00"),           # release all interfaces
    (0x1012, "", "13 10", "00 00 00 00"),           # attach kernel driver
    (0x1010, "", "11 10", "00 00 00 00"),           # reset device
    (0x1004, "", "05 10", "00 00 00 00")]           # close

NAME = bytes.fromhex("16 03 55 00 53 00 42 00 20 00 43 00 61 00 6D 00 65 00 72 00 61 00")
ALIVE = (Request(GET_SPEED, req_id=0x77), status(2))

# What a guest's class drivers ask: device, bmRequestType, bRequest, wValue, wIndex and the answer.
CLASS_REQUESTS = [
    ("ch340", 0xC0, 0x7F, 0x0302, 0, NAME),
    ("keyboard", 0x81, 0x06, 0x2200, 0, bytes.fromhex("""
        05 01 09 06 A1 01 05 07 19 E0 29 E7 15 00 25 01 75 01 95 08 81 02 95 01 75 08 81 01 95 05 75 01
        05 08 19 01 29 05 91 02 95 01 75 03 91 01 95 06 75 08 15 00 25 65 05 07 19 00 29 65 81 00 C0""")),
    ("printer", 0xA1, 0x00, 0x0000, 0, b"\x00\x1AMFG:DV3;CMD:PDF;MDL:VTL;"),
    ("winusb", 0x80, 0x06, 0x03EE, 0, bytes.fromhex("12 03 4D 00 53 00 46 00 54 00 31 00 30 00 30 00 01 00")),
    ("winusb", 0xC0, 0xA0, 0, 4, bytes.fromhex("28 00 00 00 00 01 04 00 01 00") + bytes(8) + b"WINUSB" + bytes(16)),
    ("winusb", 0xC1, 0xA0, 0, 5, bytes.fromhex("8E 00 00 00 00 01 05 00 01 00  84 00 00 00 01 00 00 00 28 00") +
     "DeviceInterfaceGUID\0".encode("utf-16-le") + bytes.fromhex("4E 00 00 00") +
     "{13EB360B-BC1E-46CB-AC8B-EF3DA47B4062}\0".encode("utf-16-le"))]


class Commands(wire.WireTestCase):
    def test_status_replies_are_right_to_the_byte_before_and_after_open_and_close(self) -> None:
        for name in DEVICES:
            rows = STATUS_COMMANDS + STATUS_COMMANDS[::-1]
            replies, _ = self.serve(name, [Request(command, bytes.fromhex(payload), 0xA5, 0x11223344)
                                           for command, payload, _, _ in rows])
            self.assertEqual(replies, [bytes.fromhex("27 A5" + code + "44 33 22 11  14 00 00 00  00 00 00 00" + result)
                                       for _, _, code, result in rows])
            replies, _ = self.serve(name, [Request(GET_BUS), Request(GET_ADDRESS)])
            bus, address = (struct.unpack("<i", reply[16:])[0] for reply in replies)
            self.assertTrue(0 <= bus <= 0xFF and 0x82 <= address <= 0xFF, (bus, address))

    def test_replies_keep_ids_and_order_and_survive_the_end_of_input(self) -> None:
        for name in ("winusb", "printer"):
            exchanges = []
            for i in range(512):
                kinds = (ALIVE, (bulk(0x82, i, filler(i)), given_back(i, pattern(i))),
                         (control(0x80, 6, 0x0301, 0, filler(i)), answer(NAME[:i])),
                         (bulk(0x02, i, filler(3 * i)), given_back(i, filler(3 * i))),
                         (string(i & 0xFF, 0, 22), answer(NAME)),
                         (interrupt(0x82, i, filler(7)), given_back(i, pattern(7))),
                         (iso(0x83, i, [100] * 3), iso_given_back(i, [100] * 3, pattern(300))),
                         (Request(CANCEL, struct.pack("<I", i)), status(0)),
                         (interrupt(0x02, 0xFFFFFFFF - i, b""), given_back(0xFFFFFFFF - i)))
                request, payload = kinds[i % len(kinds)]
                exchanges.append((replace(request, req_id=i & 0xFF, dev_id=i * 0x01010101 & 0xFFFFFFFF), payload))
            self.expect(name, exchanges)

    def test_class_requests_are_answered_and_cut_and_others_echoed(self) -> None:
        for name, *setup, data in CLASS_REQUESTS:
            self.expect(name, [(control(*setup, filler(n)), answer(data[:n])) for n in (0, len(data) - 1, 255)] +
                        [(control(0xC0, 0x01, 0, 4, filler(n)), answer(filler(n))) for n in (0, 300, 0xFFFF)])

    def test_device_descriptor_command_makes_endpoint_zero_64_bytes_for_good(self) -> None:
        original = bytes.fromhex("12 01 10 01 FF 00 00 08 86 1A 23 75 54 02 00 02 00 01")
        patched = original[:7] + b"\x40" + original[8:]
        read = control(0x80, 6, 0x0100, 0, filler(64))
        self.expect("ch340", [(read, answer(original)), (Request(GET_DEVICE), patched), (read, answer(patched))])

    def test_unknown_and_reply_codes_get_no_reply(self) -> None:
        codes = [*range(0x1001, 0x102E, 2), 0, 1, 2, 3, 5, 6, 0x0400, 0x102E, 0x1124, 0x8000, 0xFFFF]
        log = self.expect("printer", [pair for code in codes for pair in ((Request(code, filler(24)), None), ALIVE)])
        self.assertEqual(re.findall(r"unknown cmd\[(\d+)\]", log), [str(code) for code in codes])

    def test_ping_is_read_in_the_byte_order_that_the_header_names(self) -> None:
        exchanges = [(Request(PING, struct.pack(order + "IQ", 0x01020304, 5), byte_order=number), None)
                     for number, order in enumerate("<>")]
        short = [(Request(PING, bytes(size)), None) for size in (0, 3, 4, 11)]
        log = self.expect("raw", [*exchanges, *short, ALIVE], "--log", "debug")
        self.assertEqual(log.count("streamid = 16909060 camera time test end at time"), 2)
        self.assertGreaterEqual(log.count("Error:"), len(short))
        for level, shown in (("debug", True), ("loud", False), ("", False)):
            with mock.patch.dict(os.environ, VEL_LOG_LEVEL=level):
                self.assertEqual("Debug:" in self.expect("raw", [ALIVE]), shown)

    def test_request_text_and_bytes_cannot_forge_output(self) -> None:
        log = self.expect("keyboard", [(policy(b"first\nforged line\r\x1B[31m"), status(0))] +
                          [(control(kind, 0x55, 0, 0, b"abc"), answer(b"abc")) for kind in (0x40, 0xC0, 0x60, 0xE0)],
                          "--log", "debug")
        self.assertIn("onSetRedirPolicy policy:first", log)
        self.assertNotRegex(log, r"(?m)^forged|\x1B\[31m|\r")


class BadInput(wire.WireTestCase):
    """Packets that contradict themselves are refused with a line each, and the device goes on answering."""

    def check(self, device: str, exchanges: list[tuple[Request, bytes]]) -> None:
        log = self.expect(device, [*exchanges, ALIVE])
        self.assertGreaterEqual(log.count("Error:"), len(exchanges))

    def test_synchronous_requests_get_status_minus_2(self) -> None:
        sizes = ((GET_STRING, 7), (SET_CONFIG, 4), (SET_ALT, 8), (CANCEL, 4), (CONTROL, 12), (SET_POLICY, 4))
        requests = [Request(command, bytes(n)) for command, size in sizes for n in range(size)]
        requests += [control(0x21, 9, 0, 0, b"", 1), control(0x40, 1, 0, 0, filler(299), 300), policy(b"", 1),
                     policy(b"abc", 4), policy(b"a" * 0x10001), policy(b"a", 0xFFFFFFFF)]
        self.check("raw", [(request, status(-2)) for request in requests])

    def test_transfers_are_given_back_with_status_1(self) -> None:
        fields = struct.pack("<III", 0x81, 0x0BADCAFE, 0)
        exchanges = [(Request(command, fields[:n]), fields[4:8] * (n >= 8) + bytes(4) * (n < 8) + status(1))
                     for command in (BULK, INTERRUPT) for n in range(12)]
        exchanges += [(request, given_back(5, result=1)) for request in (
            bulk(0x01, 5, b"", 1), bulk(0x01, 5, b"", MIB), interrupt(0x01, 5, filler(299), 300))]
        exchanges += [(make(endpoint, 5, b"", length), given_back(5, result=1)) for make in (bulk, interrupt)
                      for endpoint in (0x01, 0x81) for length in (64 * MIB + 1, 0x80000000, 0xFFFFFFFF)]
        self.check("raw", exchanges)
        self.check("keyboard", [(interrupt(0x81, 5, b"", 64 * MIB + 1), given_back(5, result=1))])

    def test_isochronous_tables_that_do_not_fit_are_given_back_with_status_1(self) -> None:
        requests = [iso_raw(0x01, 5, 2, iso_table([5, 5]) + filler(9)), iso_raw(0x01, 5, 2, iso_table([0, 0]), 42)]
        for endpoint in (0x01, 0x81):
            requests += [iso_raw(endpoint, 5, 1025, iso_table([0] * 1025)), iso_raw(endpoint, 5, 1, b""),
                         iso_raw(endpoint, 5, 0xFFFFFFFF, iso_table([0])),
                         iso_raw(endpoint, 5, 0x10000000, iso_table([0])),           # table of 2^32 bytes
                         iso_raw(endpoint, 5, 2, iso_table([0, 0])[:31]),
                         iso_raw(endpoint, 5, 2, iso_table([0x80000000, 0x80000000])),  # sum of 2^32
                         iso_raw(endpoint, 5, 1, iso_table([4]), 64 * MIB + 1)]
        requests += [Request(ISO, requests[0].payload[:n]) for n in range(16)]
        replies, log = self.serve("raw", [*requests, ALIVE[0]])
        self.assertEqual(len(replies), len(requests) + 1)
        for request, reply in zip(requests, replies):  # The packet count in a refusal is not told.
            stream = request.payload[4:8] if len(request.payload) >= 8 else bytes(4)
            self.assertEqual(reply, request.reply(stream + status(1) + reply[24:28].ljust(4, b"?")))
        self.assertGreaterEqual(log.count("Error:"), len(requests))

    def test_what_is_lenient_stays_lenient(self) -> None:
        self.expect("raw", [*((control(0xC0, 1, 0, 0, b"\xEE" * n, 8), answer(b"\xEE" * n + bytes(8 - n)))
                              for n in (0, 1, 7)),  # IN data that is missing counts as zeroes.
                            (bulk(0x81, 5, b"", 300), given_back(5, pattern(300))),
                            (interrupt(0x81, 5, filler(299), 300), given_back(5, pattern(300))),
                            (iso_raw(0x83, 5, 1, iso_table([9]), 25), iso_given_back(5, [9], pattern(9))),
                            (bulk(0x01, 6, b"abcde", 3), given_back(6, b"abc")),  # More than was said is ignored.
                            (policy(b""), status(0)), (policy(b"a" * 0x10000), status(0)), ALIVE])
