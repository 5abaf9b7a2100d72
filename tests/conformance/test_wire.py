"""Packets, commands and bad input. Run as a program, this file runs all tests of its folder."""

from __future__ import annotations

import re
import struct

import wire
from wire import (BULK, CANCEL, CLEAR_HALT, CONTROL, DEVICES, GET_ADDRESS, GET_BUS, GET_SPEED,
                  GET_STRING, INTERRUPT, ISO, MIB, PING, SET_ALT, SET_CONFIG, SET_POLICY,
                  USB_CAMERA, Request, Served, answer, bulk, cancel, control, filler, given_back,
                  interrupt, iso, iso_given_back, iso_raw, iso_table, pattern, policy, set_alt,
                  status, string)

# Command, request payload, reply command on the wire, i32 of the reply on the wire.
STATUS_COMMANDS = [
    (0x1006, "", "07 10", "FF 00 00 00"),           # port number
    (0x1002, "", "03 10", "00 00 00 00"),           # open
    (0x1014, "", "15 10", "00 00 00 00"),           # detach kernel driver
    (0x101A, "01 00 00 00", "1B 10", "00 00 00 00"),  # set configuration
    (0x101C, "", "1D 10", "00 00 00 00"),           # claim all interfaces
    (0x101E, "00 00 00 00 00 00 00 00", "1F 10", "00 00 00 00"),  # set alternate setting
    (0x1016, "", "17 10", "00 00 00 00"),           # clear halt
    (0x1020, "07 00 00 00", "21 10", "00 00 00 00"),  # cancel transfer
    (0x102A, "", "2B 10", "02 00 00 00"),           # device speed: full
    (0x102C, "03 00 00 00 61 62 63", "2D 10", "00 00 00 00"),  # set redirection policy
    (0x1018, "", "19 10", "00 00 00 00"),           # release all interfaces
    (0x1012, "", "13 10", "00 00 00 00"),           # attach kernel driver
    (0x1010, "", "11 10", "00 00 00 00"),           # reset device
    (0x1004, "", "05 10", "00 00 00 00")]           # close

SPEED = Request(GET_SPEED)
THREE_BY_100 = bytes.fromhex("""30 00 00 00 64 00 00 00 64 00 00 00 00 00 00 00
                                94 00 00 00 64 00 00 00 64 00 00 00 00 00 00 00
                                F8 00 00 00 64 00 00 00 64 00 00 00 00 00 00 00""")


class SynchronousCommands(wire.WireTestCase):
    """Commands that are answered at once with command + 1."""

    def test_status_replies_are_right_to_the_byte_before_and_after_open_and_close(self) -> None:
        for name in DEVICES:
            with Served(name) as device:
                for command, payload, code, result in STATUS_COMMANDS + STATUS_COMMANDS[::-1]:
                    with self.subTest(device=name, command=hex(command)):
                        request = Request(command, bytes.fromhex(payload), 0xA5, 0x11223344)
                        self.assertEqual(device.ask(request), bytes.fromhex(
                            "27 A5" + code + "44 33 22 11  14 00 00 00  00 00 00 00" + result))

    def test_bus_and_address_are_those_of_an_emulated_device_and_constant(self) -> None:
        for name in DEVICES:
            with self.subTest(device=name), Served(name) as device:
                for command, lowest in ((GET_BUS, 0), (GET_ADDRESS, 0x82)):
                    request = Request(command)
                    reply = device.ask(request)
                    number = struct.unpack("<i", reply[16:])[0]
                    self.assertTrue(lowest <= number <= 0xFF, number)
                    self.expect(device, request, status(number))
                    self.assertEqual(reply, request.reply(status(number)))

    def test_values_of_settings_are_not_refused(self) -> None:
        with Served("ch9102") as device:
            for value in (0, 2, 0xFFFFFFFF):
                self.expect(device, Request(SET_CONFIG, struct.pack("<I", value)), status(0))
            for setting in ((1, 0), (0xFF, 1), (0xFFFFFFFF, 0xFFFFFFFF)):
                self.expect(device, set_alt(*setting), status(0))
            self.expect(device, Request(CLEAR_HALT, filler(33)), status(0))
            self.assertEqual(device.finish(), [])
            self.assertEqual(re.findall(r"need \w+ camera", device.log),
                             ["need close camera"] + ["need open camera"] * 2)

    def test_request_id_and_device_id_come_back(self) -> None:
        device_ids = (0, 1, 0x7FFFFFFF, 0x80000000, 0xFFFFFFFF, 0x01020304)
        kinds = ((SPEED, status(2)), (bulk(0x81, 9, b"\0\0"), given_back(9, b"\xFF\xFE")),
                 (interrupt(0x01, 9, b"x"), given_back(9, b"x")),
                 (iso(0x81, 9, []), iso_given_back(9, 0)))
        with Served("raw") as device:
            for req_id in range(256):
                requests = [request.with_ids(req_id, device_ids[(req_id + i) % len(device_ids)])
                            for i, (request, _) in enumerate(kinds)]
                device.send(*requests)
                for request, (_, payload) in zip(requests, kinds):
                    with self.subTest(req_id=req_id, command=hex(request.command)):
                        self.assertEqual(device.receive(), request.reply(payload))

    def test_unknown_and_reply_codes_get_no_reply(self) -> None:
        codes = [*range(0x1001, 0x102E, 2), 0, 1, 2, 3, 5, 6, 0x0400, 0x0FFE, 0x102E, 0x1030,
                 0x1124, 0x2000, 0x8000, 0xFFFE, 0xFFFF]
        with Served("printer") as device:
            for code in codes:
                with self.subTest(code=hex(code)):
                    device.send(Request(code, filler(24)))
                    self.expect_alive(device)
            self.assertEqual(device.finish(), [])
            self.assertEqual(re.findall(r"unknown cmd\[(\d+)\]", device.log),
                             [str(code) for code in codes])


class Framing(wire.WireTestCase):
    """How the stream of bytes is cut into packets, and the order of replies."""

    def test_packets_may_arrive_byte_by_byte(self) -> None:
        requests = (SPEED, bulk(0x01, 3, b"hello"), string(1, 0x0409, 255))
        with Served("printer") as device:
            for byte in b"".join(request.encode() for request in requests):
                device.write(bytes([byte]))
            self.assertEqual(device.finish(), [
                requests[0].reply(status(2)), requests[1].reply(given_back(3, b"hello")),
                requests[2].reply(answer(USB_CAMERA))])

    def test_packets_may_be_cut_anywhere(self) -> None:
        first, second = SPEED, bulk(0x81, 0x01020304, b"\0\0")
        with Served("raw") as device:
            for cut in range(len(second.encode()) + 1):
                with self.subTest(cut=cut):
                    device.write(first.encode() + second.encode()[:cut])
                    self.assertEqual(device.receive(), first.reply(status(2)))
                    device.write(second.encode()[cut:])
                    self.assertEqual(device.receive(),
                                     second.reply(given_back(0x01020304, b"\xFF\xFE")))

    def test_replies_keep_the_order_of_500_requests_and_survive_the_end_of_input(self) -> None:
        for name in ("winusb", "printer"):
            requests, replies = [], []
            for i in range(500):
                kinds = ((SPEED, status(2)),
                         (bulk(0x82, i, filler(i)), given_back(i, pattern(i))),
                         (control(0x80, 6, 0x0301, 0, filler(i)), answer(USB_CAMERA[:i])),
                         (bulk(0x02, i, filler(3 * i)), given_back(i, filler(3 * i))),
                         (string(i & 0xFF, 0, 22), answer(USB_CAMERA)),
                         (interrupt(0x82, i, filler(7)), given_back(i, pattern(7))),
                         (iso(0x83, i, [100] * 3),
                          iso_given_back(i, 3, THREE_BY_100 + pattern(300))),
                         (cancel(i), status(0)),
                         (interrupt(0x02, i, b""), given_back(i)))
                request, payload = kinds[i % len(kinds)]
                requests.append(request.with_ids(i & 0xFF, i * 0x01010101 & 0xFFFFFFFF))
                replies.append(requests[-1].reply(payload))
            with self.subTest(device=name), Served(name) as device:
                device.send(*requests)
                got = device.finish()
                self.assertEqual(len(got), 500)
                for i, (reply, expected) in enumerate(zip(got, replies)):
                    self.assertEqual(reply, expected, f"reply {i}")

    def test_no_input_at_all_ends_cleanly_without_output(self) -> None:
        for name in DEVICES:
            with self.subTest(device=name), Served(name) as device:
                self.assertEqual(device.finish(), [])

    def test_request_types_that_print_a_message_leave_the_reply_stream_intact(self) -> None:
        for name in DEVICES:
            with self.subTest(device=name), Served(name) as device:
                for request_type in (0x40, 0xC0, 0x60, 0xE0):
                    self.expect(device, control(request_type, 0x55, 0, 0, b"abc"), answer(b"abc"))
                self.assertEqual(device.finish(), [])

    def test_byte_order_of_the_header_changes_nothing_but_the_ping(self) -> None:
        request = string(1, 0x0409, 22)
        foreign = Request(request.command, request.payload, byte_order=1)
        with Served("keyboard") as device:
            self.expect(device, foreign, answer(USB_CAMERA))


class PingAndLog(wire.WireTestCase):
    """The ping, seen through the log, and what else the log shows of remote data."""

    PINGED = re.compile(r"streamid = (-?\d+) camera time test end at time")

    def check_ping(self, packet: bytes, before: tuple[str, ...] = (),
                   after: tuple[str, ...] = ("--log", "debug")) -> None:
        with Served("keyboard", *after, before=before) as device:
            device.write(packet)
            self.expect_alive(device)
            self.assertEqual(device.finish(), [])
            self.assertEqual(self.PINGED.findall(device.log), ["16909060"])

    def test_ping_payload_is_read_in_the_byte_order_that_the_header_names(self) -> None:
        little = Request(PING, struct.pack("<IQ", 0x01020304, 0x1122334455667788))
        big = Request(PING, struct.pack(">IQ", 0x01020304, 0x1122334455667788), byte_order=1)
        self.check_ping(little.encode())
        self.check_ping(little.encode(), before=("--log", "debug"), after=())
        self.check_ping(big.encode())

    def test_ping_may_come_with_a_big_endian_header(self) -> None:
        big = Request(PING, struct.pack(">IQ", 0x01020304, 5), byte_order=1)
        self.check_ping(big.encode(">"))

    def test_ping_that_is_too_short_is_logged_and_gets_no_reply(self) -> None:
        with Served("raw") as device:
            for size in (0, 3, 4, 11):
                for byte_order in (0, 1):
                    device.send(Request(PING, bytes(size), byte_order=byte_order))
                    self.expect_alive(device)
            self.assertEqual(device.finish(), [])
            self.assertGreaterEqual(device.log.count("Error:"), 8)

    def test_debug_lines_appear_only_when_asked_for(self) -> None:
        for options, wanted in (((), False), (("--log", "debug"), True)):
            with self.subTest(options=options), Served("raw", *options) as device:
                self.expect_alive(device)
                self.assertEqual(device.finish(), [])
                self.assertEqual("onGetDeviceSpeed ret:2" in device.log, wanted)
                self.assertEqual("Debug:" in device.log, wanted)

    def test_dump_shows_32_bytes_at_most_and_none_of_an_interrupt_transfer(self) -> None:
        with Served("printer", "--log", "debug") as device:
            for request in (bulk(1, 1, b"\x01\xAB\xFF"), bulk(1, 2, bytes(range(100))),
                            interrupt(1, 3, b"\x55\x55"), bulk(1, 4, b"")):
                device.ask(request)
            self.assertEqual(device.finish(), [])
            self.assertEqual([text.split() for text in
                              re.findall(r"ret:((?:0x[0-9a-f]{2} ?)+)", device.log)],
                             [["0x01", "0xab", "0xff"], [f"0x{i:02x}" for i in range(32)]])

    def test_policy_text_cannot_forge_log_lines(self) -> None:
        with Served("raw", "--log", "debug") as device:
            self.expect(device, policy(b"first\nforged line\r\x1B[31m"), status(0))
            self.assertEqual(device.finish(), [])
            self.assertRegex(device.log, r"onSetRedirPolicy policy:first")
            self.assertNotRegex(device.log, r"(?m)^forged|\x1B\[31m|\r")


class BadInput(wire.WireTestCase):
    """Packets that contradict themselves are refused, and the device goes on answering."""

    def check_refused_with_status(self, *requests: Request) -> None:
        with Served("raw") as device:
            for request in requests:
                with self.subTest(command=hex(request.command), payload=request.payload[:16].hex()):
                    self.expect(device, request, status(-2))
            self.expect_alive(device)
            self.assertEqual(device.finish(), [])
            self.assertGreaterEqual(device.log.count("Error:"), len(requests))

    def check_given_back_failed(self, *requests: Request, device_name: str = "raw") -> None:
        """Each reply is stream id (where the request holds it), status 1 and no data."""
        with Served(device_name) as device:
            for request in requests:
                with self.subTest(command=hex(request.command), payload=request.payload[:16].hex(),
                                  size=len(request.payload)):
                    reply = device.ask(request)
                    known = request.payload[4:8] if len(request.payload) >= 8 else reply[16:20]
                    packets = reply[24:28].ljust(4, b"?") if request.command == ISO else b""
                    self.assertEqual(reply, request.reply(known + b"\1\0\0\0" + packets))
            self.expect_alive(device)
            self.assertEqual(device.finish(), [])
            self.assertGreaterEqual(device.log.count("Error:"), len(requests))

    def test_synchronous_payload_shorter_than_its_fields(self) -> None:
        for command, size in ((GET_STRING, 7), (SET_CONFIG, 4), (SET_ALT, 8), (CANCEL, 4),
                              (CONTROL, 12), (SET_POLICY, 4)):
            self.check_refused_with_status(*(Request(command, bytes(n)) for n in range(size)))

    def test_control_out_data_missing(self) -> None:
        self.check_refused_with_status(control(0x21, 9, 0, 0, b"", 1),
                                       control(0x40, 1, 0, 0, filler(299), 300),
                                       control(0x00, 9, 1, 0, filler(10), 0xFFFF))

    def test_control_in_data_missing_counts_as_zeroes(self) -> None:
        with Served("raw") as device:
            for sent in (0, 1, 7):
                self.expect(device, control(0xC0, 1, 0, 0, b"\xEE" * sent, 8),
                            answer(b"\xEE" * sent + bytes(8 - sent)))
            self.expect(device, control(0x80, 6, 0x0305, 0, b"", 255), answer(USB_CAMERA))

    def test_policy_text_may_have_64_kib_and_must_be_there(self) -> None:
        self.check_refused_with_status(policy(b"", 1), policy(b"abc", 4))
        with Served("raw") as device:
            self.expect(device, policy(b""), status(0))
            self.expect(device, policy(b"a" * 0x10000), status(0))
            self.expect(device, policy(b"a" * 0x10001), status(-2))
            self.expect(device, policy(b"a", 0xFFFFFFFF), status(-2))
            self.expect_alive(device)

    def test_asynchronous_payload_shorter_than_its_fields(self) -> None:
        fields = struct.pack("<IIII", 0x81, 0x0BADCAFE, 0, 0)
        for command, size in ((BULK, 12), (INTERRUPT, 12), (ISO, 16)):
            self.check_given_back_failed(*(Request(command, fields[:n]) for n in range(size)))

    def test_out_data_missing(self) -> None:
        table = iso_table([5, 5])
        self.check_given_back_failed(
            bulk(0x01, 1, b"", 1), bulk(0x01, 2, filler(299), 300),
            bulk(0x01, 0xFFFFFFFF, b"", MIB),
            interrupt(0x01, 3, b"", 1), interrupt(0x01, 4, filler(299), 300),
            iso_raw(0x01, 5, 2, table + filler(9), 42), iso_raw(0x01, 6, 2, table[:31], 42))

    def test_length_above_64_mib_is_refused_without_the_data(self) -> None:
        for length in (64 * MIB + 1, 0x80000000, 0xFFFFFFF4, 0xFFFFFFFF):
            self.check_given_back_failed(*(
                request for endpoint in (0x01, 0x81) for request in (
                    bulk(endpoint, 1, b"", length), interrupt(endpoint, 2, b"", length),
                    iso_raw(endpoint, 3, 1, iso_table([4]), length))))

    def test_isochronous_table_that_does_not_fit(self) -> None:
        for endpoint in (0x01, 0x81):
            self.check_given_back_failed(
                iso_raw(endpoint, 1, 1025, iso_table([0] * 1025)),           # one packet too many
                iso_raw(endpoint, 2, 0xFFFFFFFF, iso_table([0])),
                iso_raw(endpoint, 3, 0x10000000, iso_table([0])),            # table of 2^32 bytes
                iso_raw(endpoint, 4, 1, b""), iso_raw(endpoint, 5, 2, iso_table([0, 0])[:31]),
                iso_raw(endpoint, 6, 1, iso_table([0xFFFFFFFF])),
                iso_raw(endpoint, 7, 2, iso_table([0x80000000, 0x80000000])))  # sum of 2^32
        self.check_given_back_failed(iso_raw(0x01, 8, 2, iso_table([5, 5]) + filler(9)))

    def test_refusals_reach_the_requester_where_transfers_stay_pending(self) -> None:
        self.check_given_back_failed(interrupt(0x81, 1, b"", 64 * MIB + 1),
                                     interrupt(0x01, 2, b"ab", 3), device_name="keyboard")

    def test_huge_string_buffer_gets_no_more_than_the_string(self) -> None:
        with Served("raw") as device:
            for length in (0x7FFFFFFF, 0x80000000, 0xFFFFFFFF):
                request = string(1, 0, length)
                reply = device.ask(request)
                result = struct.unpack_from("<i", reply, 16)[0]
                self.assertIn(result, (22, 0, -1, -2))
                self.assertEqual(reply, request.reply(status(result) + USB_CAMERA[:max(result, 0)]))
            self.expect_alive(device)


if __name__ == "__main__":
    wire.main(everything=True)
