#!/usr/bin/env python3
"""Looks at what the virtual machine left behind: descriptors, sound and serial data.

check_results.py WORK_DIR: prints a line for each subject whose files are there; exit status 1 when one is wrong.
"""
import json
import pathlib
import re
import sys
import wave

DEVICE_FIELDS = {
    "idVendor": "idVendor", "idProduct": "idProduct", "bcdUSB": "bcdUSB", "bcdDevice": "bcdDevice",
    "bDeviceClass": "bDeviceClass", "bDeviceSubClass": "bDeviceSubClass", "bDeviceProtocol": "bDeviceProtocol",
    "iManufacturer": "iManufacturer", "iProduct": "iProduct", "iSerial": "iSerialNumber",
    "bNumConfigurations": "bNumConfigurations",
}
STRINGS = {"iManufacturer": "manufacturer", "iProduct": "product", "iSerial": "serialNumber"}
CONFIG_FIELDS = ("wTotalLength", "bConfigurationValue", "iConfiguration", "bmAttributes")
INTERFACE_FIELDS = ("bInterfaceNumber", "bAlternateSetting", "bInterfaceClass", "bInterfaceSubClass",
                    "bInterfaceProtocol", "iInterface")
RAMP = 16000  # The values of the ramp that is played: 1 to this.
ENDPOINT_FIELDS = ("bEndpointAddress", "bmAttributes", "wMaxPacketSize", "bInterval")


def number(text):
    return int(text, 16) if text.startswith("0x") else text if "." in text else int(text)


def read_lsusb(text):
    """The descriptors of lsusb -v as (kind, {field: (value, rest of the line)}), in their order."""
    blocks = []
    for line in text.splitlines():
        heading = re.match(r"\s*(.*Descriptor):\s*$", line)
        if heading:
            blocks.append((heading[1], {}))
            continue
        field = re.match(r"\s+(\w+)\s+(0x[0-9a-f]+|\d+(?:\.\d+)?(?:mA)?)\s?(.*)$", line)
        if field and blocks:
            blocks[-1][1].setdefault(field[1], (field[2], field[3].strip()))
    return blocks


class Comparison:
    def __init__(self):
        self.count = 0

    def same(self, what, ours, theirs):
        self.count += 1
        if ours != theirs:
            raise AssertionError(f"{what}: {ours!r}, lsusb has {theirs!r}")

    def fields(self, what, ours, theirs, names):
        for name in names:
            self.same(f"{what} {name}", ours[name], number(theirs[name][0]))


def compare_device(name, ours, text):
    blocks = read_lsusb(text)
    of_kind = lambda kind: [fields for heading, fields in blocks if heading == kind]
    check = Comparison()
    device, (theirs,) = ours["device"], of_kind("Device Descriptor")
    bus, address = re.search(r"Bus (\d+) Device (\d+)", text).groups()
    check.same(f"{name} place", (ours["bus"], ours["address"]), (int(bus), int(address)))
    for their_name, our_name in DEVICE_FIELDS.items():
        value = theirs[their_name][0]
        check.same(f"{name} {our_name}", device[our_name], value.strip() if "." in value else number(value))
    for their_name, our_name in STRINGS.items():
        check.same(f"{name} {our_name}", device[our_name], theirs[their_name][1])
    config = ours["configuration"]
    (theirs,) = of_kind("Configuration Descriptor")
    check.fields(f"{name} configuration", config, theirs, CONFIG_FIELDS)
    check.same(f"{name} MaxPower", f"{config['maxPowerMilliamperes']}mA", theirs["MaxPower"][0])
    check.same(f"{name} configuration text", config["configuration"], theirs["iConfiguration"][1])
    check.same(f"{name} bNumInterfaces", len(config["interfaces"]), number(theirs["bNumInterfaces"][0]))
    settings = [setting for settings in config["interfaces"] for setting in settings]
    interfaces, endpoints = of_kind("Interface Descriptor"), of_kind("Endpoint Descriptor")
    check.same(f"{name} alternate settings", len(settings), len(interfaces))
    for setting, theirs in zip(settings, interfaces):
        what = f"{name} interface {setting['bInterfaceNumber']}.{setting['bAlternateSetting']}"
        check.fields(what, setting, theirs, INTERFACE_FIELDS)
        check.same(what + " text", setting["interface"], theirs["iInterface"][1])
        check.same(what + " bNumEndpoints", len(setting["endpoints"]), number(theirs["bNumEndpoints"][0]))
    ours = [endpoint for setting in settings for endpoint in setting["endpoints"]]
    check.same(f"{name} endpoints", len(ours), len(endpoints))
    for endpoint, theirs in zip(ours, endpoints):
        check.fields(f"{name} endpoint 0x{endpoint['bEndpointAddress']:02x}", endpoint, theirs, ENDPOINT_FIELDS)
    return check.count


def check_descriptors(work):
    documents = sorted(work.glob("results/*.json"))
    assert documents, "no device was described"
    count = sum(compare_device(document.stem, json.loads(document.read_text()),
                               document.with_suffix(".lsusb").read_text()) for document in documents)
    return f"describe --json and lsusb -v agree on {count} values of {len(documents)} devices"


def check_sound(work):
    """The machine's sound card plays the ramp that was sent, from its first frame to its last."""
    frames = int((work / "results/sound.frames").read_text())
    with wave.open(str(work / "sound.wav")) as sound:
        data = sound.readframes(sound.getnframes())
    samples = memoryview(data).cast("h")
    # The mixer rounds, and the player ends within the last transfer.
    played = len(samples) // 2
    assert played >= frames * 0.99, f"{played} of {frames} frames were played"
    # The card has a volume, which is not at its maximum; the ramp's highest value says which.
    volume = max(samples[0::2]) / RAMP
    assert 0.5 < volume <= 1, f"the volume is {volume}"
    for i in range(played):
        expected = (i % RAMP + 1) * volume
        left, right = samples[2 * i], samples[2 * i + 1]
        assert abs(left - expected) <= 2 and abs(right + expected) <= 2, f"frame {i} is {left}, {right}"
    return f"{played} frames of sound came out of the machine as they were sent"


def check_serial(work):
    expected = (work / "results/serial.expected").read_bytes()
    arrived = (work / "serial.out").read_bytes()
    assert arrived == expected, f"{len(arrived)} bytes came out of the serial adapter, {len(expected)} were sent"
    return f"{len(arrived)} bytes came out of the serial adapter as they were sent"


CHECKS = {"describe": check_descriptors, "audio": check_sound, "serial": check_serial}


def main():
    """check_results.py WORK_DIR SCENARIO,...: a check for each scenario that has one."""
    failed = False
    for scenario in sys.argv[2].split(","):
        try:
            if scenario in CHECKS:
                print("ok   ", CHECKS[scenario](pathlib.Path(sys.argv[1])))
        except (AssertionError, LookupError, ValueError, OSError, EOFError, wave.Error) as error:
            print("FAIL ", scenario, repr(error))
            failed = True
    return 1 if failed else 0


sys.exit(main())
