"""Imports: exports of remote servers, stock ones and nbdd itself, used through the nodes on this host."""

import errno
import hashlib
import mmap
import os
import signal
import socket
import subprocess
import unittest
from pathlib import Path

from support import images, processes, remotes
from support.service import Service
from support.varlink import Failed

NO_SUCH_IMPORT, NO_SUCH_REMOTE_EXPORT, IMPORT_IN_USE = 0x30, 0x31, 0x32
CONNECTION_REFUSED, REMOTE_PROTOCOL_ERROR = 0x51, 0x53
INVALID_ARGUMENT, WRONG_STATE = 0x10, 0x15


def checksum(path):
    return hashlib.sha256(images.content(path)).hexdigest()


class Importing:
    """A service that imports, and what is asked of it."""

    def setUp(self):
        self.service = Service(self).start()
        self.addCleanup(self.unmount)
        self.image = self.service.images / "remote.img"
        images.write_holes(self.image)

    def unmount(self):
        """What a killed service has left mounted would keep its directory."""
        self.service.end()
        for line in Path("/proc/self/mountinfo").read_text().splitlines():
            if (place := line.split()[4]).startswith(str(self.service.root)):
                processes.run([processes.tool("umount"), "-l", place])

    def add(self, remote, **more):
        server = {"address": "127.0.0.1", "port": remote.port}
        with self.service.control() as control:
            return control.ImportAdd(descriptor={"name": remote.name, "server": server, **more})["id"]

    def enable(self, number):
        with self.service.control() as control:
            control.ImportEnable(id=number)

    def disable(self, number, force=True):
        with self.service.control() as control:
            control.ImportDisable(id=number, force=force)

    def info(self, number):
        with self.service.control() as control:
            return control.ImportInfo(id=number)["info"]

    def nodes(self, number):
        with self.service.control() as control:
            entries = control.ImportListNodeInterfaces(id=number)["interfaces"]
        return {entry["name"]: {each["name"]: each.get("text", each.get("number")) for each in entry["nested"]}
                for entry in entries}

    def socket_uri(self, number):
        return f"nbd+unix:///?socket={self.nodes(number)['socket']['path']}"

    def imported(self, remote, **more):
        number = self.add(remote, **more)
        self.enable(number)
        return number

    def await_state(self, number, state):
        processes.wait_until(lambda: self.info(number)["state"] == state, f"state {state}")


class Nodes(Importing, unittest.TestCase):
    """Every stock server, read and written through every node."""

    def test_the_content_is_that_of_the_remote_export(self):
        for kind in remotes.KINDS:
            with self.subTest(server=kind.__name__):
                remote = kind(self, self.image).start()
                number = self.imported(remote)
                info = self.info(number)
                self.assertEqual(info["state"], "connected")
                self.assertEqual(info["size"], images.SIZE)
                copy = self.service.root / "copy"
                processes.run([processes.tool("nbdcopy"), self.socket_uri(number), copy])
                self.assertEqual(checksum(copy), checksum(self.image))
                self.disable(number)
                remote.kill()

    def test_what_is_written_arrives_and_is_flushed(self):
        for kind in remotes.KINDS:
            with self.subTest(server=kind.__name__):
                remote = kind(self, self.image).start()
                number = self.imported(remote)
                source = self.service.root / "source"
                source.write_bytes(images.random_bytes(images.SIZE, seed=hash(kind.__name__) % 1000))
                processes.run([processes.tool("nbdcopy"), "--flush", source, self.socket_uri(number)])
                self.assertEqual(checksum(self.image), checksum(source))
                self.disable(number)
                remote.kill()

    def test_the_map_passes_through(self):
        remote = remotes.Nbdd(self, self.image).start()
        number = self.imported(remote)
        command = [processes.tool("nbdinfo"), "--map", "--totals"]
        through = processes.run([*command, self.socket_uri(number)]).out
        direct = processes.run([*command, remote.service.uri(remote.name)]).out
        self.assertEqual(through, direct)
        self.assertIn("hole", through)

    def test_zeroes_and_trims_pass_through(self):
        remote = remotes.Nbdd(self, self.image).start()
        number = self.imported(remote)
        script = "\n".join(["write -P 7 0 1M", "write -z 64k 64k", "discard 512k 64k", "flush", ""])
        processes.run([processes.tool("qemu-io"), "-f", "raw", self.socket_uri(number)], stdin=script)
        content = images.content(self.image)
        self.assertEqual(content[: 64 * 1024], b"\7" * 65536)
        self.assertEqual(content[64 * 1024 : 128 * 1024], bytes(65536))
        self.assertEqual(content[128 * 1024 : 512 * 1024], b"\7" * (384 * 1024))

    def test_read_only_is_read_only(self):
        for kind, flags in ((remotes.Nbdkit, []), (remotes.Nbdd, []), (remotes.Nbdkit, ["forceReadOnly"])):
            with self.subTest(server=kind.__name__, flags=flags):
                remote = kind(self, self.image, read_only=not flags).start()
                number = self.imported(remote, flags=flags)
                told = processes.run([processes.tool("nbdinfo"), self.socket_uri(number)]).out
                self.assertIn("is_read_only: true", told)
                before = checksum(self.image)
                result = processes.run(
                    [processes.tool("nbdcopy"), self.image, self.socket_uri(number)], check=False
                )
                self.assertNotEqual(result.status, 0)
                self.assertEqual(checksum(self.image), before)
                self.disable(number)
                remote.kill()

    def test_read_errors_stay_errors(self):
        class Failing(remotes.Remote):
            def command(self):
                words = [processes.tool("nbdkit"), "-f", "-i", "127.0.0.1", "-p", self.port, "--filter=error"]
                return [*words, "file", self.image, "error-pread=EIO", "error-pread-rate=100%"]

        number = self.imported(Failing(self, self.image).start())
        copy = self.service.root / "copy"
        result = processes.run([processes.tool("nbdcopy"), self.socket_uri(number), copy], check=False)
        self.assertNotEqual(result.status, 0)

    def test_many_clients_use_the_socket_at_once(self):
        remote = remotes.Nbdd(self, self.image).start()
        number = self.imported(remote)
        processes.run(
            [
                processes.tool("fio"), "--name=verify", "--ioengine=nbd", f"--uri={self.socket_uri(number)}",
                "--rw=randwrite", "--bs=4k", "--size=8m", "--iodepth=32", "--verify=crc32c", "--do_verify=1",
                "--verify_fatal=1",
            ]
        )  # fmt: skip
        self.assertGreaterEqual(self.info(number)["connections"], 2, "the server allows several connections")


class Life(Importing, unittest.TestCase):
    """States, restarts, and servers that are not there."""

    def test_an_import_survives_a_restart_at_the_same_path(self):
        remote = remotes.Nbdkit(self, self.image).start()
        first = self.imported(remote)
        second = self.add(remote, flags=["dontAnnounceStorage"])
        node = self.info(first)["node"]
        self.assertTrue(node)
        for end in (self.service.stop, self.service.kill):
            end()
            self.service.start()
            self.await_state(first, "connected")
            self.assertEqual(self.info(first)["node"], node)
            self.assertEqual(self.info(second)["state"], "added")
            self.assertEqual(self.info(second)["descriptor"]["flags"], ["dontAnnounceStorage"])
            processes.run([processes.tool("nbdinfo"), self.socket_uri(first)])

    def test_an_import_waits_for_its_server_after_a_restart(self):
        remote = remotes.Nbdkit(self, self.image).start()
        number = self.imported(remote)
        self.service.stop()
        remote.kill()
        self.service.start()
        processes.wait_until(lambda: "nothing listens" in self.info(number).get("description", ""), "its reason")
        self.assertEqual(self.info(number)["state"], "connecting")
        remote.start()
        self.await_state(number, "connected")

    def test_a_lost_server_is_waited_for(self):
        remote = remotes.QemuNbd(self, self.image).start()
        number = self.imported(remote)
        remote.kill()
        self.await_state(number, "connecting")
        self.assertIn("waiting for the server", self.info(number)["description"])
        remote.start()
        self.await_state(number, "connected")

    def test_disabling_ends_at_once_whatever_the_server_does(self):
        with socket.socket() as listener:
            listener.bind(("127.0.0.1", 0))
            listener.listen()

            class Silent:
                port = listener.getsockname()[1]
                name = "x"

            number = self.add(Silent)
            with self.service.control() as enabling:
                # Asked, and not awaited.
                enabling._socket.sendall(
                    b'{"method":"org.talvek.NBD.ImportEnable","parameters":{"id":%d}}\0' % number
                )
                self.await_state(number, "connecting")
                self.disable(number)
                info = self.info(number)
                self.assertEqual((info["state"], info["disableReason"]), ("disabled", "clientRequest"))
                self.assertIn(b"Failed", enabling._socket.recv(4096))

    def test_a_frozen_server_does_not_keep_an_import(self):
        remote = remotes.Nbdkit(self, self.image).start()
        number = self.imported(remote)
        os.kill(remote.process.pid, signal.SIGSTOP)
        reading = subprocess.Popen(
            [processes.tool("nbdcopy"), self.socket_uri(number), "null:"], stderr=subprocess.DEVNULL
        )
        self.addCleanup(processes.end, reading)
        processes.wait_until(lambda: self.nodes(number)["socket"]["users"] > 0, "a client")
        with self.assertRaises(Failed) as refused:
            self.disable(number, force=False)
        self.assertEqual(refused.exception.code, IMPORT_IN_USE)
        self.disable(number)
        self.assertEqual(self.info(number)["state"], "disabled")
        self.assertNotEqual(reading.wait(processes.LIMIT_SECONDS), 0)
        self.assertEqual(self.info(number)["node"], "")

    def test_a_server_that_comes_back_with_another_size_is_not_used(self):
        remote = remotes.Nbdkit(self, self.image).start()
        number = self.imported(remote)
        remote.kill()
        os.truncate(self.image, images.SIZE // 2)
        remote.start()
        processes.wait_until(
            lambda: f"{images.SIZE // 2} bytes now instead of" in self.info(number).get("description", ""), "why"
        )
        self.assertEqual(self.info(number)["state"], "connecting")
        remote.kill()
        os.truncate(self.image, images.SIZE)
        remote.start()
        self.await_state(number, "connected")

    def test_why_an_import_cannot_be_enabled(self):
        remote = remotes.Nbdd(self, self.image).start()
        wrong_name = remotes.Nbdd.__new__(remotes.Nbdd)
        wrong_name.port, wrong_name.name = remote.port, "no such export"
        nobody = remotes.Nbdkit(self, self.image)
        with socket.socket() as stranger:
            stranger.bind(("127.0.0.1", 0))
            stranger.listen()
            cases = ((wrong_name, NO_SUCH_REMOTE_EXPORT), (nobody, CONNECTION_REFUSED))
            for subject, code in cases:
                number = self.add(subject)
                with self.assertRaises(Failed) as refused:
                    self.enable(number)
                self.assertEqual(refused.exception.code, code)
                info = self.info(number)
                self.assertEqual((info["state"], info["disableReason"]), ("disabled", "connectionFailed"))
                with self.service.control() as control:
                    control.ImportRemove(id=number)

    def test_what_makes_no_sense_is_refused(self):
        with self.service.control() as control:
            for address in ("", "300.1.1.1", "a b", "::zz", "x" * 300, "host\n"):
                with self.assertRaises(Failed) as refused:
                    control.ImportAdd(descriptor={"name": "x", "server": {"address": address}})
                self.assertEqual(refused.exception.code, INVALID_ARGUMENT, address)
            for method in (control.ImportInfo, control.ImportEnable, control.ImportRemove,
                           control.ImportListNodeInterfaces):  # fmt: skip
                with self.assertRaises(Failed) as refused:
                    method(id=77)
                self.assertEqual(refused.exception.code, NO_SUCH_IMPORT)

    def test_an_enabled_import_is_not_removed(self):
        remote = remotes.Nbdkit(self, self.image).start()
        number = self.imported(remote)
        with self.service.control() as control:
            with self.assertRaises(Failed) as refused:
                control.ImportRemove(id=number)
            self.assertEqual(refused.exception.code, WRONG_STATE)
            control.ImportDisable(id=number, force=False)
            control.ImportRemove(id=number)
            self.assertEqual(control.ImportList()["ids"], [])


class Storms(Importing, unittest.TestCase):
    """Servers that are killed under load."""

    ROUNDS = int(os.environ.get("TALVEK_STORMS", "20"))

    def test_no_error_and_no_wrong_byte_while_the_server_is_killed(self):
        remote = remotes.Nbdd(self, self.image).start()
        number = self.imported(remote)
        job = subprocess.Popen(
            [
                processes.tool("fio"), "--name=verify", "--ioengine=nbd", f"--uri={self.socket_uri(number)}",
                "--rw=randwrite", "--bs=4k", "--size=8m", "--iodepth=16", "--verify=crc32c", "--do_verify=1",
                "--verify_fatal=1", "--loops=1000", "--time_based=1", f"--runtime={max(self.ROUNDS // 2, 5)}",
            ],
            stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
        )  # fmt: skip
        self.addCleanup(processes.end, job)
        self.kill_and_restart(remote, number)
        out, _ = job.communicate(timeout=processes.LIMIT_SECONDS)
        self.assertEqual(job.returncode, 0, out)

    def kill_and_restart(self, remote, number):
        for _ in range(self.ROUNDS):
            remote.kill()
            remote.start()
            self.await_state(number, "connected")
