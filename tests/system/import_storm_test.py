"""Imports of servers that are killed under load, and of servers that are far away."""

import os
import subprocess
import threading
import unittest

from support import images, nbd, processes, remotes
from support.far import FarLink
from support.importing import Importing, fio

ROUNDS = int(os.environ.get("TALVEK_STORMS", "100"))
BLOCK = 128 * 1024  # bytes that a simple reader asks for at a time


class Load(threading.Thread):
    """Runs a command again and again, until it is told that it is enough or the command fails."""

    def __init__(self, test, command):
        super().__init__(daemon=True)
        self._command = command
        self._enough = threading.Event()
        self._process = None
        self.runs = 0
        self.failure = None
        test.addCleanup(lambda: processes.end(self._process))
        self.start()

    def run(self):
        while not self._enough.is_set():
            self._process = subprocess.Popen(
                self._command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
                preexec_fn=processes.die_with_parent,
            )  # fmt: skip
            out, _ = self._process.communicate()
            self.runs += 1
            if self._process.returncode != 0:
                self.failure = out
                return

    def finish(self):
        """Lets the present run go on to its end."""
        self._enough.set()
        self.join(processes.LIMIT_SECONDS)
        assert not self.is_alive(), "the load does not come to an end"


class Storms(Importing, unittest.TestCase):
    """Servers that are killed under load."""

    def storm(self, remote, number, command):
        """Kills and restarts the server while `command` writes and verifies, each time after it has written."""
        load = Load(self, command)
        for _ in range(ROUNDS):
            before = self.image.stat().st_mtime_ns
            processes.wait_until(
                lambda: load.failure or self.image.stat().st_mtime_ns != before, "something to be written"
            )
            remote.kill()
            remote.start()
            self.await_state(number, "connected")
            self.assertIsNone(load.failure)
        load.finish()
        self.assertIsNone(load.failure)
        self.assertGreater(load.runs, 0)

    def test_no_error_and_no_wrong_byte_while_the_server_is_killed(self):
        remote = remotes.Nbdd(self, self.image).start()
        number = self.imported(remote)
        self.storm(remote, number, fio(self.socket_uri(number), "--iodepth=16", "--loops=3"))

    def test_the_file_lives_through_it_too(self):
        remote = remotes.Nbdkit(self, self.image).start()
        number = self.imported(remote)
        self.storm(remote, number, fio(self.file(number), "--loops=3"))

    def test_the_file_with_several_threads_lives_through_it_too(self):
        remote = remotes.Nbdd(self, self.image).start()
        number = self.imported(remote)
        file = self.file(number)
        self.storm(
            remote, number,
            fio(file, "--loops=3", "--numjobs=4", "--thread", "--size=2m", "--offset_increment=2m", "--direct=1"),
        )  # fmt: skip


class OneConnection(remotes.Remote):
    """Does not promise that several connections see the same."""

    def command(self):
        words = [processes.tool("nbdkit"), "-f", "-i", "127.0.0.1", "-p", self.port, "--filter=multi-conn"]
        return [*words, "file", self.image, "multi-conn-mode=disable"]


class Far(Importing, unittest.TestCase):
    """A server behind a path of 20 ms. What is counted is bytes that are on their way at once: what a reader gets in
    each round trip."""

    def setUp(self):
        super().setUp()
        self.image.write_bytes(images.random_bytes(images.SIZE, seed=20))

    def far(self, remote, **more):
        self.link = FarLink(self, remote.port, **more)

        class There:
            name = remote.name
            port = self.link.port

        return There

    def read_file(self, number):
        """From its beginning to its end, as cp(1) does. Returns how much was on its way at once."""
        self.link.forget()
        with open(self.file(number), "rb", buffering=0) as file:
            content = b"".join(iter(lambda: file.read(BLOCK), b""))
        self.assertEqual(images.first_difference(content, images.content(self.image)), "")
        return self.link.replies.most

    def read_synchronously(self, there):
        with nbd.Client(there.port, there.name) as client:
            self.link.forget()
            for offset in range(0, 8 * BLOCK, BLOCK):
                error, _ = client.request(nbd.READ, offset, BLOCK)
                self.assertEqual(error, 0)
            return self.link.replies.most

    def test_a_sequential_reader_has_much_on_its_way(self):
        there = self.far(remotes.Nbdd(self, self.image).start())
        alone = self.read_synchronously(there)
        self.assertLess(alone, 2 * BLOCK)
        self.assertGreaterEqual(self.read_file(self.imported(there)), 4 * alone)

    def test_several_connections_carry_more_than_one(self):
        window = 2 * BLOCK
        one = self.far(OneConnection(self, self.image).start(), window=window)
        number = self.imported(one)
        most_of_one = self.read_file(number)
        self.assertEqual(self.info(number)["connections"], 1)
        self.assertLessEqual(most_of_one, window)
        several = self.far(remotes.Nbdd(self, self.image).start(), window=window)
        number = self.imported(several)
        processes.wait_until(lambda: self.info(number)["connections"] > 1, "more connections")
        self.assertGreaterEqual(self.read_file(number), 2 * window)


if __name__ == "__main__":
    unittest.main()
