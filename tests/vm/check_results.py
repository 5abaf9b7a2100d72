#!/usr/bin/env python3
"""Looks at what the virtual machine left behind: descriptors and sound."""
import json
import pathlib
import re
import sys
import wave

RENAMED = {"iSerial": "iSerialNumber"}  # Of lsusb's names; the others are those of the standard, as ours.
TEXTS = {"iManufacturer": "manufacturer", "iProduct": "product", "iSerialNumber": "serialNumber",
         "iConfiguration": "configuration", "iInterface": "interface"}
RAMP = 16000  # The values of the ramp that is played: 1 to this.


def number(text):
    return text.strip() if "." in text else int(text.removesuffix("mA"), 16 if text.startswith("0x") else 10)


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


def ours_in_order(document):
    """Our descriptors as lsusb prints them. What the module says of endpoint 0 is its own."""
    config = document["configuration"]
    yield "Device Descriptor", {name: value for name, value in document["device"].items() if name != "bMaxPacketSize0"}
    yield "Configuration Descriptor", config | {"MaxPower": config["maxPowerMilliamperes"],
                                                "bNumInterfaces": len(config["interfaces"])}
    for setting in (setting for settings in config["interfaces"] for setting in settings):
        yield "Interface Descriptor", setting | {"bNumEndpoints": len(setting["endpoints"])}
        yield from (("Endpoint Descriptor", endpoint) for endpoint in setting["endpoints"])


def compare_device(name, document, text):
    """Compares what both have; returns how many values those are."""
    ours = list(ours_in_order(document))
    blocks = [block for block in read_lsusb(text) if block[0] in {kind for kind, _ in ours}]
    assert [kind for kind, _ in ours] == [kind for kind, _ in blocks], f"{name}: {[kind for kind, _ in blocks]}"
    bus, address = re.search(r"Bus (\d+) Device (\d+)", text).groups()
    pairs = [(name, (document["bus"], document["address"]), (int(bus), int(address)))]
    for (kind, fields), (_, theirs) in zip(ours, blocks):
        for their_name, (value, rest) in theirs.items():
            field = RENAMED.get(their_name, their_name)
            pairs += [(f"{name} {kind} {field}", fields[field], number(value))] if field in fields else []
            pairs += [(f"{name} {kind} {TEXTS[field]}", fields[TEXTS[field]], rest)] if field in TEXTS else []
    for what, our_value, their_value in pairs:
        assert our_value == their_value, f"{what}: {our_value!r}, lsusb has {their_value!r}"
    return len(pairs)


def check_descriptors(work):
    documents = sorted(work.glob("results/*.json"))
    assert documents, "no device was described"
    count = sum(compare_device(document.stem, json.loads(document.read_text()),
                               document.with_suffix(".lsusb").read_text()) for document in documents)
    assert count > 40 * len(documents), f"only {count} values"
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


CHECKS = {"describe": check_descriptors, "audio": check_sound}


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
