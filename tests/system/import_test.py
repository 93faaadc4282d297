"""Imports: exports of remote servers, stock ones and nbdd itself, used through the nodes on this host."""

import errno
import mmap
import os
import signal
import socket
import subprocess
import unittest
from pathlib import Path

from support import images, processes, remotes
from support.importing import Importing, checksum, fio
from support.varlink import Failed

NO_SUCH_IMPORT, NO_SUCH_REMOTE_EXPORT, IMPORT_IN_USE = 0x30, 0x31, 0x32
CONNECTION_REFUSED, REMOTE_PROTOCOL_ERROR = 0x51, 0x53
INVALID_ARGUMENT, WRONG_STATE = 0x10, 0x15


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
                "--verify_fatal=1", "--verify_state_save=0",
            ]
        )  # fmt: skip
        self.assertGreaterEqual(self.info(number)["connections"], 2, "the server allows several connections")


class Files(Importing, unittest.TestCase):
    """The node "file"."""

    def test_files_are_copied_in_and_out(self):
        for kind in remotes.KINDS:
            with self.subTest(server=kind.__name__):
                remote = kind(self, self.image).start()
                number = self.imported(remote)
                file = self.file(number)
                self.assertEqual(self.info(number)["node"], str(file))
                self.assertEqual(file.stat().st_size, images.SIZE)
                self.assertEqual(checksum(file), checksum(self.image))
                source = self.service.root / "source"
                source.write_bytes(images.random_bytes(images.SIZE, seed=len(kind.__name__)))
                processes.run(["cp", source, file])
                processes.run(["sync", file])
                self.assertEqual(checksum(self.image), checksum(source))
                self.disable(number)
                self.assertFalse(file.exists())
                remote.kill()

    def test_a_file_system_on_a_loop_device_is_whole(self):
        remote = remotes.Nbdd(self, self.image).start()
        number = self.imported(remote)
        device = images.loop_device(self, self.file(number))
        processes.run([processes.tool("mkfs.ext4"), "-q", device])
        place = self.service.root / "mounted"
        place.mkdir()
        content = images.random_bytes(2 * images.MIB, seed=5)
        for _ in range(2):
            processes.run([processes.tool("mount"), device, place])
            try:
                (place / "file").write_bytes(content)
                self.assertEqual((place / "file").read_bytes(), content)
            finally:
                processes.run([processes.tool("umount"), place])
            processes.run([processes.tool("e2fsck"), "-f", "-n", device])
        processes.run([processes.tool("e2fsck"), "-f", "-n", self.image])

    def test_it_is_like_a_disk(self):
        images.write_odd(self.image)
        remote = remotes.Nbdkit(self, self.image).start()
        file = self.file(self.imported(remote))
        with open(file, "r+b", buffering=0) as node:
            os.lseek(node.fileno(), images.ODD_SIZE - 3, os.SEEK_SET)
            self.assertEqual(node.write(b"abcdef"), 3, "what does not fit is not written")
            with self.assertRaises(OSError) as refused:
                node.write(b"x")
            self.assertEqual(refused.exception.errno, errno.ENOSPC)
            self.assertEqual(os.pread(node.fileno(), 100, images.ODD_SIZE - 3), b"abc")
            self.assertEqual(os.pread(node.fileno(), 100, images.ODD_SIZE), b"")
            with self.assertRaises(OSError):
                os.truncate(file, 4096)
            with mmap.mmap(node.fileno(), 0) as mapped:
                mapped[100:104] = b"mmap"
                mapped.flush()
            os.fsync(node.fileno())
        content = images.content(self.image)
        self.assertEqual(len(content), images.ODD_SIZE)
        self.assertEqual(content[-3:], b"abc")
        self.assertEqual(content[100:104], b"mmap")

    def test_holes_are_found_punched_and_zeroed(self):
        remote = remotes.Nbdd(self, self.image).start()
        file = self.file(self.imported(remote))
        with open(file, "r+b", buffering=0) as node:
            self.assertEqual(os.lseek(node.fileno(), 0, os.SEEK_HOLE), images.MIB)
            self.assertEqual(os.lseek(node.fileno(), images.MIB, os.SEEK_DATA), 2 * images.MIB)
            for offset, *mode in ((4096, "--punch-hole"), (128 * 1024 + 7, "--zero-range", "--keep-size")):
                processes.run(
                    [processes.tool("fallocate"), *mode, "--offset", offset, "--length", 65536 + 5, file]
                )
                self.assertEqual(images.content(self.image)[offset : offset + 65541], bytes(65541))
                self.assertEqual(os.pread(node.fileno(), 65541, offset), bytes(65541))

    def test_writes_that_are_no_whole_blocks(self):
        class Strict(remotes.Remote):
            """Takes whole blocks alone."""

            def command(self):
                words = [processes.tool("nbdkit"), "-f", "-i", "127.0.0.1", "-p", self.port]
                rules = ["blocksize-minimum=4096", "blocksize-preferred=4096", "blocksize-maximum=64k"]
                return [*words, "--filter=blocksize-policy", "file", self.image, *rules,
                        "blocksize-error-policy=error"]  # fmt: skip

        expected = bytearray(images.content(self.image))
        file = self.file(self.imported(Strict(self, self.image).start()))
        with open(file, "r+b", buffering=0) as node:
            for index, length in enumerate((1, 100, 4096, 5000, 300_000)):
                offset, data = 1000 + 400_000 * index, images.random_bytes(length, seed=length)
                self.assertEqual(os.pwrite(node.fileno(), data, offset), length)
                expected[offset : offset + length] = data
            os.fsync(node.fileno())
        self.assertEqual(images.first_difference(images.content(self.image), bytes(expected)), "")

    def test_read_only_is_read_only(self):
        remote = remotes.Nbdkit(self, self.image).start()
        file = self.file(self.imported(remote, flags=["forceReadOnly"]))
        with self.assertRaises(OSError) as refused:
            open(file, "r+b")
        self.assertEqual(refused.exception.errno, errno.EROFS)
        self.assertEqual(file.stat().st_mode & 0o777, 0o400)

    def test_read_errors_stay_errors(self):
        class Failing(remotes.Remote):
            def command(self):
                words = [processes.tool("nbdkit"), "-f", "-i", "127.0.0.1", "-p", self.port, "--filter=error"]
                return [*words, "file", self.image, "error-pread=EIO", "error-pread-rate=100%"]

        file = self.file(self.imported(Failing(self, self.image).start()))
        with self.assertRaises(OSError) as failed:
            file.read_bytes()
        self.assertEqual(failed.exception.errno, errno.EIO)

    def test_what_is_used_is_taken_away_by_force_alone(self):
        remote = remotes.Nbdkit(self, self.image).start()
        number = self.imported(remote)
        file = self.file(number)
        with open(file, "rb", buffering=0) as node:
            with self.assertRaises(Failed) as refused:
                self.disable(number, force=False)
            self.assertEqual(refused.exception.code, IMPORT_IN_USE)
            os.kill(remote.process.pid, signal.SIGSTOP)
            reading = subprocess.Popen(["cat", file], stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
            self.addCleanup(processes.end, reading)
            processes.wait_until(lambda: self.nodes(number)["file"]["users"] == 2, "the reader")
            self.disable(number)
            self.assertNotEqual(reading.wait(processes.LIMIT_SECONDS), 0)
            with self.assertRaises(OSError):
                os.pread(node.fileno(), 4096, 4 * images.MIB)
        self.assertFalse(file.exists())

    def test_the_path_is_the_same_after_kill_9(self):
        remote = remotes.Nbdkit(self, self.image).start()
        number = self.imported(remote)
        file = self.file(number)
        self.service.kill()
        self.service.start()
        self.await_state(number, "connected")
        self.assertEqual(self.file(number), file)
        self.assertEqual(checksum(file), checksum(self.image))

    def test_nothing_is_left_mounted(self):
        remote = remotes.Nbdkit(self, self.image).start()
        file = self.file(self.imported(remote))
        self.service.stop()
        self.assertNotIn(str(file), Path("/proc/self/mountinfo").read_text())

    def test_many_programs_write_and_verify(self):
        remote = remotes.Nbdd(self, self.image).start()
        file = self.file(self.imported(remote))
        processes.run(fio(file, "--numjobs=1"))
        processes.run(fio(file, "--ioengine=libaio", "--direct=1", "--iodepth=32"))


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


if __name__ == "__main__":
    unittest.main()
