"""Bulk, interrupt and isochronous transfers of the emulated devices."""

from __future__ import annotations

import struct
from typing import Sequence

import wire
from wire import (BULK, DEVICES, INTERRUPT, MIB, OPEN, Request, Served, bulk, cancel, filler,
                  given_back, interrupt, iso, iso_given_back, iso_raw, iso_table, pattern, status)

SILENT = ("keyboard", "ch9102")  # their interrupt endpoints never have anything to say
ANSWERING = tuple(name for name in DEVICES if name not in SILENT)
EXTREME_IDS = (0, 1, 0x7FFFFFFF, 0x80000000, 0xFFFFFFFF)


def records(lengths: Sequence[int], base: int) -> bytes:
    """Packet table of a finished transfer whose first packet lies at `base`."""
    table = b""
    for length in lengths:
        table += struct.pack("<IIII", base, length, length, 0)
        base += length
    return table


class BulkAndInterrupt(wire.WireTestCase):
    """The two transfer types that carry plain data."""

    def check_both_directions(self, name: str, command: int) -> None:
        make = {BULK: bulk, INTERRUPT: interrupt}[command]
        with Served(name) as device:
            for length in (0, 1, 254, 255, 256, 300, 255 * 3 + 1, MIB):
                with self.subTest(device=name, command=hex(command), length=length):
                    self.expect(device, make(0x82, length, filler(length)),
                                given_back(length, pattern(length)))
                    self.expect(device, make(0x02, length, filler(length)),
                                given_back(length, filler(length)))

    def test_bulk_in_gives_the_pattern_and_bulk_out_gives_its_data_back(self) -> None:
        for name in DEVICES:
            self.check_both_directions(name, BULK)

    def test_interrupt_does_as_bulk_where_the_device_answers_it(self) -> None:
        for name in ANSWERING:
            self.check_both_directions(name, INTERRUPT)

    def test_pattern_counts_down_from_ff_to_01_and_starts_again(self) -> None:
        with Served("ch340") as device:
            data = device.ask(bulk(0x82, 9, b"\0" * 300))[24:]
            self.assertEqual(len(data), 300)
            self.assertEqual(data[:4] + data[252:258] + data[298:],
                             bytes.fromhex("FF FE FD FC  03 02 01 FF FE FD  D4 D3"))

    def test_in_transfers_do_not_need_their_filler_data(self) -> None:
        for name in ANSWERING:
            with self.subTest(device=name), Served(name) as device:
                for sent in (0, 1, 299):
                    self.expect(device, bulk(0x81, 5, filler(sent), 300),
                                given_back(5, pattern(300)))
                    self.expect(device, interrupt(0x81, 5, filler(sent), 300),
                                given_back(5, pattern(300)))

    def test_bytes_behind_the_data_are_ignored(self) -> None:
        with Served("raw") as device:
            self.expect(device, bulk(0x01, 6, b"abcde", 3), given_back(6, b"abc"))
            self.expect(device, bulk(0x81, 6, b"abcde", 3), given_back(6, b"\xFF\xFE\xFD"))

    def test_any_stream_id_comes_back_even_when_used_twice(self) -> None:
        with Served("raw") as device:
            for stream in EXTREME_IDS + EXTREME_IDS:
                with self.subTest(stream=hex(stream)):
                    first, second = bulk(0x81, stream, b"\0"), interrupt(0x02, stream, b"ab")
                    third = iso(0x83, stream, [1])
                    device.send(first, second, third)
                    self.assertEqual(device.receive(), first.reply(given_back(stream, b"\xFF")))
                    self.assertEqual(device.receive(), second.reply(given_back(stream, b"ab")))
                    self.assertEqual(device.receive(), third.reply(
                        iso_given_back(stream, 1, records([1], 16) + b"\xFF")))

    def test_interrupt_stays_pending_where_nothing_ever_happens(self) -> None:
        for name in SILENT:
            with self.subTest(device=name), Served(name) as device:
                self.expect(device, Request(OPEN), status(0))
                for stream, request in enumerate((interrupt(0x81, 0, bytes(8)),
                                                  interrupt(0x83, 1, b"", 16),
                                                  interrupt(0x81, 2, b""),
                                                  interrupt(0x01, 3, b"abc"))):
                    device.send(request)
                    self.expect_alive(device)
                    if stream != 1:  # that one stays until the input ends
                        self.expect(device, cancel(stream), status(0))
                        self.expect_alive(device)
                self.expect(device, bulk(0x82, 4, bytes(2)), given_back(4, b"\xFF\xFE"))
                device.send(interrupt(0x81, 0xFFFFFFFF, bytes(MIB)))
                self.assertEqual(device.finish(), [])

    def test_more_than_256_mib_of_pending_transfers_is_refused(self) -> None:
        with Served("keyboard") as device:
            for stream in range(4):
                device.send(interrupt(0x81, stream, b"", 60 * MIB))
            self.expect_alive(device)
            one_more = interrupt(0x81, 4, b"", 60 * MIB)
            self.assertEqual(device.ask(one_more)[:24],
                             one_more.reply(struct.pack("<Ii", 4, 1))[:24])
            self.expect(device, bulk(0x81, 5, b"", 3), given_back(5, b"\xFF\xFE\xFD"))


class Isochronous(wire.WireTestCase):
    """Packet tables, their data, and the packet count of the reply."""

    def check(self, name: str, request: Request, packets: int, data: bytes) -> None:
        with self.subTest(device=name, packets=packets), Served(name) as device:
            self.expect(device, request, iso_given_back(7, packets, data))

    def test_three_packets_of_100_bytes_lie_at_48_148_and_248(self) -> None:
        table = bytes.fromhex("""30 00 00 00 64 00 00 00 64 00 00 00 00 00 00 00
                                 94 00 00 00 64 00 00 00 64 00 00 00 00 00 00 00
                                 F8 00 00 00 64 00 00 00 64 00 00 00 00 00 00 00""")
        for name in DEVICES:
            self.check(name, iso(0x83, 7, [100] * 3), 3, table + pattern(300))
            self.check(name, iso(0x03, 7, [100] * 3, filler(300)), 3, table + filler(300))

    def test_packets_of_differing_and_zero_length_follow_each_other(self) -> None:
        table = bytes.fromhex("""40 00 00 00 05 00 00 00 05 00 00 00 00 00 00 00
                                 45 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00
                                 45 00 00 00 2C 01 00 00 2C 01 00 00 00 00 00 00
                                 71 01 00 00 01 00 00 00 01 00 00 00 00 00 00 00""")
        for name in DEVICES:
            self.check(name, iso(0x83, 7, [5, 0, 300, 1]), 4, table + pattern(306))
            self.check(name, iso(0x03, 7, [5, 0, 300, 1], filler(306)), 4, table + filler(306))

    def test_packets_may_all_be_empty_or_missing(self) -> None:
        empty = bytes.fromhex("20 00 00 00") + bytes(12)
        for endpoint in (0x83, 0x03):
            self.check("raw", iso(endpoint, 7, [0, 0]), 2, empty * 2)
            self.check("raw", iso(endpoint, 7, []), 0, b"")

    def test_largest_regular_transfer_has_15_packets(self) -> None:
        self.check("raw", iso(0x83, 7, [10] * 15), 15, records([10] * 15, 240) + pattern(150))

    def test_in_transfer_does_not_need_its_filler_data(self) -> None:
        request = iso_raw(0x83, 7, 3, iso_table([100] * 3), 348)
        self.check("raw", request, 3, records([100] * 3, 48) + pattern(300))

    def test_from_16_packets_on_the_data_starts_at_the_table_size_modulo_256(self) -> None:
        for packets, length, start in ((16, 20, 0), (16, 4, 0), (17, 1, 16), (17, 300, 16),
                                       (20, 0, 64), (31, 9, 240), (32, 100, 0), (33, 2, 16),
                                       (1024, 0, 0), (1024, 3, 0)):
            request = iso(0x83, 7, [length] * packets)
            with self.subTest(packets=packets, length=length), Served("raw") as device:
                payload = device.ask(request)[16:]
                # Offsets may count from the whole table or from its size modulo 256.
                self.assertIn(payload, [
                    iso_given_back(7, packets, records([length] * packets, base)[:start]
                                   + pattern(packets * length)) for base in (packets * 16, start)])

    def test_out_of_16_and_more_packets_gives_table_and_data_back(self) -> None:
        for packets, length in ((16, 20), (17, 1), (20, 0), (1024, 3)):
            data = filler(packets * length)
            with self.subTest(packets=packets, length=length), Served("raw") as device:
                payload = device.ask(iso(0x03, 7, [length] * packets, data))[16:]
                self.assertIn(payload, [
                    iso_given_back(7, packets, records([length] * packets, base) + data)
                    for base in (packets * 16, packets * 16 % 256)])

    def test_endpoint_ff_is_answered_like_any_other(self) -> None:
        for name in DEVICES:
            self.check(name, iso(0xFF, 7, [2]), 1, records([2], 16) + b"\xFF\xFE")


if __name__ == "__main__":
    wire.main()
