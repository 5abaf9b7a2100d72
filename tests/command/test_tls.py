"""Devices served by TLS, with the certificates that docs/security.md makes, and foreign peers that are no virtusb."""

from __future__ import annotations

import os
import pathlib
import re
import shutil
import socket
import ssl
import subprocess
import tempfile
import threading
from typing import Callable

import wire
from test_command import FULL_SPEED, SPEED, CommandTestCase, Running, read_exactly, run

DOCUMENT = pathlib.Path(__file__).resolve().parents[2] / "docs/security.md"


def sh(lines: str, folder: pathlib.Path) -> None:
    subprocess.run(["sh", "-ec", lines], cwd=folder, check=True, capture_output=True, timeout=wire.DEADLINE)


def block(first: str) -> str:
    """The lines of the document's block that begins so."""
    return re.search(rf"(?ms)^```\n({re.escape(first)}.*?)^```$", DOCUMENT.read_text())[1].replace("192.0.2.7", "127.0.0.1")


class Tls(CommandTestCase):
    @classmethod
    def setUpClass(cls) -> None:
        folder = tempfile.TemporaryDirectory()
        cls.addClassCleanup(folder.cleanup)
        top = pathlib.Path(folder.name)
        (top / "other").mkdir()
        for each in (top, top / "other"):  # Another authority of the same name.
            sh(block("umask"), each)
        cls.pki, cls.foreign = top / "pki", top / "other/pki"
        sh("openssl req -x509 -newkey ed25519 -nodes -keyout self-key.pem -out self-cert.pem -subj /CN=self "
           "-addext subjectAltName=IP:127.0.0.1; for side in client server; do openssl req -new -key $side-key.pem "
           "-subj /CN=old -addext subjectAltName=IP:127.0.0.1 -out old; cp $side-key.pem old-$side-key.pem; "
           "openssl x509 -req -in old -days -1 -copy_extensions copy -CA ca-cert.pem -CAkey ca-key.pem "
           "-out old-$side-cert.pem; done", cls.pki)

    def copy(self, **files: str) -> pathlib.Path:
        """The folder with some of its files replaced, by others of it or by bytes."""
        folder = pathlib.Path(self.enterContext(tempfile.TemporaryDirectory())) / "pki"
        shutil.copytree(self.pki, folder)
        for name, source in files.items():
            target = folder / (name.replace("_", "-") + ".pem")
            shutil.copy(self.pki / source, target) if source else target.unlink()
        return folder

    def serve(self, folder: pathlib.Path, device: str = "raw") -> tuple[Running, str]:
        served = self.enterContext(Running("serve", device, "--listen", "127.0.0.1:0", "--tls", str(folder)))
        return served, re.fullmatch(rf"serving {device} on (\S+) by TLS, one remote side .*", served.note())[1]

    def ask_by_openssl(self, address: str, *options: str) -> bytes:
        """What answers the request that follows the handshake; nothing where that fails."""
        with subprocess.Popen(["openssl", "s_client", "-quiet", "-no_ign_eof", "-connect", address, *options], bufsize=0,
                              stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL) as peer:
            try:
                peer.stdin.write(SPEED.encode())
            except BrokenPipeError:
                pass
            return read_exactly(peer.stdout, len(FULL_SPEED))

    def test_a_device_is_as_without_and_who_may_not_have_it_is_told_and_learns_nothing(self) -> None:
        served, address = self.serve(self.pki)

        def shows(name: str, folder: pathlib.Path = self.pki) -> list[str]:
            return ["-cert", f"{folder}/{name}-cert.pem", "-key", f"{folder}/{name}-key.pem"]

        for options, reason in (([], "shows no certificate"),
                                (shows("client", self.foreign), r"\(CN = guest\) is not of the authority"),
                                (shows("self"), r"\(CN = self\) is signed by itself"),
                                (shows("old-client"), r"\(CN = old\) has expired"),
                                (shows("server"), r"\(CN = laptop\) is made for another use"),
                                ([*shows("client"), "-tls1_2"], "speaks no TLS 1.3")):
            with self.subTest(reason):
                self.assertEqual(self.ask_by_openssl(address, *options), b"")
                self.assertRegex(served.note(), rf"^127\.0\.0\.1:\d+: refused, it.*{reason}[^\n]*$")
        self.assert_failure(run("describe", f"tcp://{address}"), 1, "it speaks TLS", "tls://")
        self.assertRegex(served.note(), "refused, it does not speak TLS")

        self.assertEqual(self.ask_by_openssl(address, *shows("client")), FULL_SPEED)
        described = self.assert_result("describe", f"tls://{address}", "--tls", str(self.pki))
        self.assertEqual(described, self.assert_result("describe", "raw"))
        for _ in range(2):
            self.assertRegex(served.note(), r"^127\.0\.0\.1:\d+ \(CN = guest\) connected$")
            self.assertRegex(served.note(), r"\(CN = guest\) is done, device given back$")

    def test_one_whose_certificate_is_revoked_while_the_service_runs_is_told_so(self) -> None:
        folder = self.copy()
        served, address = self.serve(folder)
        sh(block("printf"), folder)
        self.assert_failure(run("describe", f"tls://{address}", "--tls", str(self.pki)), 1,
                            "it refuses this side's certificate as revoked")
        self.assertRegex(served.note(), r"refused, its certificate \(CN = guest\) was revoked")

    def test_what_is_not_the_service_it_should_be_gets_no_request(self) -> None:
        def answer(listener: socket.socket, speak: Callable[[socket.socket], object]) -> None:
            with listener.accept()[0] as remote:
                try:
                    speak(remote)
                except OSError:
                    pass

        def shake(name: str, folder: pathlib.Path = self.pki) -> Callable[[socket.socket], object]:
            context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
            context.load_cert_chain(folder / f"{name}-cert.pem", folder / f"{name}-key.pem")

            def speak(remote: socket.socket) -> None:
                with context.wrap_socket(remote, server_side=True) as secure:
                    self.assertEqual(secure.recv(1), b"")
            return speak

        for speak, host, reason in (
                (shake("old-server"), "127.0.0.1", "its certificate (CN = old) has expired"),
                (shake("server", self.foreign), "127.0.0.1", "its certificate (CN = laptop) is not of the authority"),
                (shake("self"), "127.0.0.1", "is signed by itself"),
                (shake("client"), "127.0.0.1", "is made for another use"),
                (shake("server"), "localhost", "is for another name"),
                (shake("server"), "127.0.0.2", "is for another name"),
                (lambda remote: remote.recv(4096), "127.0.0.1", "ended the connection instead of a TLS handshake"),
                (lambda remote: remote.sendall(b"SSH-2.0-something else\r\n"), "127.0.0.1", "does not speak TLS")):
            with self.subTest((host, reason)), socket.create_server((host, 0)) as listener:
                thread = threading.Thread(target=answer, args=(listener, speak))
                thread.start()
                device = f"tls://{host}:{listener.getsockname()[1]}"
                self.assert_failure(run("describe", device, "--tls", str(self.pki)), 1, f"cannot reach {device}: it",
                                    reason)
                thread.join()
        served = self.enterContext(Running("serve", "raw", "--listen", "0"))
        device = "tls://" + served.note().split()[3].rstrip(",")
        self.assert_failure(run("describe", device, "--tls", str(self.pki)), 1, "instead of a TLS handshake")
        self.assertRegex(served.note() + served.note(), "connected127.*: it speaks TLS")

    def test_a_folder_that_would_not_do_is_refused_at_the_start(self) -> None:
        readable = self.copy()
        os.chmod(readable / "server-key.pem", 0o640)
        locked = self.copy()
        sh("openssl pkey -in server-key.pem -aes256 -passout pass:x -out k; mv k server-key.pem", locked)
        for folder, *parts in (
                (readable, "server-key.pem", "chmod 600"),
                (locked, "server-key.pem", "passphrase"),
                (self.copy(server_cert=""), "cannot read", "server-cert.pem: No such file", "--tls"),
                (self.copy(ca_cert="ca-key.pem"), "ca-cert.pem holds no certificate"),
                (self.copy(ca_crl="ca-cert.pem"), "ca-crl.pem"),
                (self.copy(server_key="client-key.pem"), "server-key.pem is not the key"),
                (self.copy(server_cert="old-server-cert.pem"), "server-cert.pem has expired"),
                (self.copy(server_cert="client-cert.pem", server_key="client-key.pem"), "is made for another use")):
            with self.subTest(parts):
                self.assert_failure(run("serve", "raw", "--listen", "0", "--tls", str(folder)), 1, *parts)
        self.assert_failure(run("describe", "tls://127.0.0.1:1"), 1, "/etc/pki/virtusb/ca-cert.pem", "--tls")

    def test_what_other_machines_reach_takes_certificates_or_a_word(self) -> None:
        for words, *parts in (("serve raw --listen 0.0.0.0:0", "--tls DIR", "--insecure"),
                              ("serve raw --listen [::]:0", "--tls DIR", "--insecure"),
                              (f"export raw --listen 0.0.0.0:0 --tls {self.pki}", "ssh -L", "--insecure"),
                              (f"serve raw --stdio --tls {self.pki}", "--listen"),
                              (f"describe tls://nowhere --tls {self.pki}", "tls://HOST:PORT")):
            with self.subTest(words):
                self.assert_failure(run(*words.split()), 2, *parts)
        for words in ("serve raw --listen 0.0.0.0:0 --insecure", f"serve raw --listen 0.0.0.0:0 --tls {self.pki}",
                      "export raw --listen 0.0.0.0:0 --insecure"):
            with self.subTest(words):
                running = self.enterContext(Running(*words.split()))
                while "interrupt to end" not in running.note():
                    pass
