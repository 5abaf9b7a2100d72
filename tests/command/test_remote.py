"""DEVICE behind packets: one that is served elsewhere, and one that a command carries."""

from __future__ import annotations

import itertools
import json
import os
import pathlib
import re
import shlex
import signal
import socket
import threading

import wire
from test_command import PROGRAM, CommandTestCase, Running, run

SERVE = f"exec:{shlex.quote(PROGRAM)} --log off serve"


class Remote(CommandTestCase):
    def test_a_device_behind_packets_is_as_a_local_one(self) -> None:
        served = self.enterContext(Running("serve", "keyboard", "--listen", "0"))
        address = served.note().split()[3].rstrip(",")
        for device in (f"tcp://{address}", f"{SERVE} keyboard --stdio"):
            for options in ((), ("--json",)):
                self.assertEqual(self.assert_result("describe", device, *options),
                                 self.assert_result("describe", "keyboard", *options))
        streamed = run("stream", f"{SERVE} camera --stdio", "--frames", "3", "--json")
        self.assertEqual((streamed.returncode, json.loads(streamed.stdout or "{}").get("frames")), (0, 3), streamed)

    def test_what_does_not_answer_is_one_line(self) -> None:
        with socket.socket() as unheard:
            unheard.bind(("127.0.0.1", 0))
            refused = "tcp://127.0.0.1:%d" % unheard.getsockname()[1]
            for device, status, *parts in (
                    (refused, 1, f"cannot reach {refused}: Connection refused", "virtusb serve"),
                    ("tcp://[::g]:1", 1, "cannot reach tcp://[::g]:1: ", "check the host's name"),
                    ("tcp://[::1]", 2, "tcp://HOST:PORT"),
                    ("exec:no-such-program", 1, 'cannot run "no-such-program"', "PATH"),
                    ("exec:false", 1, '"false" ended the connection (exit status 1)', "virtusb serve"),
                    ("exec:sh -c 'kill -9 $$'", 1, "(killed by signal 9)"),
                    ("exec:head -c 10", 1, "ended in the middle of a packet"),
                    ("exec:echo SSH-2.0-something else", 1, "speaks something else: the stream holds no packet"),
                    ("exec:yes", 1, "speaks something else"),
                    ("exec:sh -c 'head -c 16 >/dev/null; echo HTTP/1.1 400 Bad Request; cat'", 1, "speaks something else"),
                    ("exec:", 2, "names no command"),
                    ("exec:a 'b", 2, "quote"),
                    ("exec:a | b", 2, "sh -c")):
                with self.subTest(device):
                    self.assert_failure(run("describe", device), status, *parts)

    def test_a_far_end_that_dies_is_said_at_once_and_what_nobody_asked_for_is_passed_over(self) -> None:
        unasked = wire.bulk(0x81, 9, b"").reply(wire.given_back(9)) + wire.Request(wire.PING).reply(b"") + bytes(
            wire.Request(0x7776).reply(b"abc"))

        def answer_once() -> None:
            remote = listener.accept()[0]
            with remote:
                request = remote.recv(16)
                opened = wire.Request(wire.OPEN, req_id=request[1], dev_id=1).reply(wire.status(0))
                remote.sendall(unasked + opened + unasked[:7])
                remote.shutdown(socket.SHUT_WR)
                while remote.recv(4096):
                    pass

        with socket.create_server(("127.0.0.1", 0)) as listener:
            thread = threading.Thread(target=answer_once)
            thread.start()
            self.assert_failure(run("describe", "tcp://127.0.0.1:%d" % listener.getsockname()[1]), 1,
                                "the device is gone", "in the middle of a packet")
            thread.join()

    def test_an_interrupt_ends_every_wait(self) -> None:
        with socket.create_server(("127.0.0.1", 0)) as silent, socket.create_server(("127.0.0.1", 0),
                                                                                  backlog=0) as full:
            port, full_port = silent.getsockname()[1], full.getsockname()[1]
            held = [self.enterContext(socket.socket()) for _ in range(3)]
            for each in held:  # What comes behind them is not answered.
                each.setblocking(False)
                each.connect_ex(("127.0.0.1", full_port))

            def accepted(_: Running) -> None:
                held.append(self.enterContext(silent.accept()[0]))

            def connecting(running: Running) -> None:
                pending = f":{full_port:04X} 02 "  # State SYN_SENT.
                while running.process.poll() is None and pathlib.Path("/proc/net/tcp").read_text().count(pending) < 3:
                    pass

            child = "exec:sh -c 'echo child >&2; exec sleep 1000'"
            commands = ["describe"], ["stream"], ["export", "--listen", "0"]
            for (phase, words, device), command in itertools.product(
                    ((accepted, [], f"tcp://127.0.0.1:{port}"), (connecting, [], f"tcp://127.0.0.1:{full_port}"),
                     (Running.note, [], child),
                     (accepted, ["--camera-source", f"tcp://127.0.0.1:{port}"], "camera")), commands):
                with self.subTest(device, command=command), Running("--log", "off", *words, *command, device) as running:
                    phase(running)
                    self.assertEqual(self.end_promptly(running, signal.SIGINT, 1), ["virtusb: interrupted"])

    def test_export_ends_with_the_last_of_its_devices(self) -> None:
        served = [self.enterContext(Running("serve", "raw", "--listen", "0")) for _ in range(2)]
        devices = ["tcp://" + each.note().split()[3].rstrip(",") for each in served]
        running = self.enterContext(Running("export", *devices, "--listen", "0"))
        while "interrupt to end" not in running.note():
            pass
        for each, device in zip(served, devices):
            each.process.send_signal(signal.SIGINT)
            self.assertEqual(running.note(), f"{device}: {device} ended the connection")
        self.assertEqual(running.end(), (1, ["virtusb: the devices are gone"]))

    def test_an_interrupt_ends_a_stream_whose_far_end_hangs(self) -> None:
        served = self.enterContext(Running("serve", "camera", "--listen", "0"))
        device = "tcp://" + served.note().split()[3].rstrip(",")
        running = self.enterContext(Running("stream", device))
        self.assertRegex(running.note(), "pictures")
        served.process.send_signal(signal.SIGSTOP)
        self.end_promptly(running, signal.SIGINT)

    def test_a_terminals_interrupt_gives_the_device_back_before_the_command_behind_it_ends(self) -> None:
        device = SERVE.replace("exec:", "exec:sh -c 'echo child $$ >&2; exec ") + " camera --stdio'"
        running = self.enterContext(Running("--log", "off", "stream", device, start_new_session=True))
        child = int(re.fullmatch(r"child (\d+)", running.note())[1])
        self.assertRegex(running.note(), "pictures")
        os.killpg(running.process.pid, signal.SIGINT)
        status, notes = running.end()
        late = "virtusb: the remote side went away before all replies were sent"  # On a machine that is busy.
        self.assertEqual((status, [note for note in notes if "pictures" not in note and note != late]), (0, []))
        with self.assertRaises(ProcessLookupError):
            os.kill(child, 0)
