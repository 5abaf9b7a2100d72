#!/usr/bin/env python3
"""Looks at what the virtual machine left behind: descriptors, pictures and sound."""
import pathlib
import re
import subprocess
import sys
import wave

import captures
import lsusb_lines

RAMP = 16000  # The values of the ramp that is played: 1 to this.


def check_descriptors(work):
    described = sorted(work.glob("results/*.describe"))
    assert described, "no device was described"
    count = 0
    for file in described:
        ours, theirs = file.read_text(), file.with_suffix(".lsusb").read_text()
        different = lsusb_lines.difference(ours, theirs)
        assert not different, f"{file.stem} {different}"
        count += len(lsusb_lines.lines(ours))
    assert count > 40 * len(described), f"only {count} lines"
    return f"describe and lsusb -v agree on {count} lines of {len(described)} devices"


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


def check_camera(work):
    """Pictures that crossed as H.264 are no worse than the encoder leaves them."""
    results = []
    for line in (work / "results/transcoded").read_text().splitlines():
        width, height, worst = re.match(r"(\d+)x(\d+): .* worst has (\S+) dB", line).groups()
        alone = float(subprocess.check_output([sys.argv[-1], "encoder", width, height], stderr=subprocess.DEVNULL))
        assert float(worst) >= alone - 0.5, f"{line}, {alone} behind the encoder alone"
        results.append(f"{worst} dB, {alone:.1f} behind the encoder alone")
    assert len(results) == 2, results
    return "the worst pictures have " + "; ".join(results)


def check_captures(work, name, devices, requests):
    """What crossed for a guest's own drivers: submissions and completions, requests by their names."""
    pairs = captures.pair(captures.read(work / f"results/{name}.pcapng.gz"))
    assert {begin[10] for begin, _ in pairs} == devices, {begin[10] for begin, _ in pairs}
    missing = requests - {begin[9].split("  ")[0] for begin, _ in pairs}
    assert not missing, missing
    return f"{len(pairs)} requests of {name} are in its capture with their completions"


EMULATED = {"keyboard", "printer", "ch340", "ch9102", "raw", "winusb", "camera"}
CLASSES = {"GET DESCRIPTOR Request CONFIGURATION", "SET CONFIGURATION Request", "SET_REPORT Request",
           "GET_DEVICE_ID request", "SET LINE CODING Request", "SET CUR Request"}


def check_attach(work):
    return check_descriptors(work) + "; " + check_captures(work, "attach", EMULATED, CLASSES)


def check_export(work):
    return check_captures(work, "export", EMULATED, CLASSES | {"SET INTERFACE Request"})


SETS = {"kernel": "describe,audio", "far": "attach,camera,export", "windows": ""}
CHECKS = {"describe": check_descriptors, "attach": check_attach, "export": check_export, "audio": check_sound, "camera": check_camera}


def main():
    """check_results.py FOLDER SCENARIO,... PROGRAM... VM_REMOTE: a check for each scenario that has one."""
    failed = False
    folder = pathlib.Path(sys.argv[1]).resolve()
    for scenario in (sys.argv[2] or SETS[folder.name]).split(","):
        try:
            if scenario in CHECKS:
                print("ok   ", CHECKS[scenario](folder))
        except (AssertionError, AttributeError, LookupError, ValueError, OSError, EOFError, wave.Error,
                subprocess.SubprocessError) as error:
            print("FAIL ", scenario, repr(error))
            failed = True
    return 1 if failed else 0


sys.exit(main())
