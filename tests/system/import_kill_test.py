"""Programs that are killed while they wait for a remote server: they end, and what they wanted does not happen later."""

import os
import signal
import subprocess
import unittest
from pathlib import Path

from support import images, processes, remotes
from support.importing import Importing

BLOCK = 4096
READ, WRITE, FSYNC = 0, 1, 74  # the numbers of the system calls, on x86-64

# Reads a block past the cache, and ends with the error if there was one: neither dd nor Python's own functions let EINTR be seen.
READER = """
import ctypes, mmap, os, signal, sys
signal.signal(signal.SIGUSR1, lambda *_: None)
file = os.open(sys.argv[1], os.O_RDONLY | os.O_DIRECT)
block = mmap.mmap(-1, 4096)
libc = ctypes.CDLL(None, use_errno=True)
count = libc.read(file, ctypes.byref(ctypes.c_char.from_buffer(block)), len(block))
sys.exit(0 if count == len(block) else ctypes.get_errno())
"""


class OneByOne(remotes.Remote):
    """Takes whole blocks alone, so that other writes are made by reading and writing around them."""

    def command(self):
        words = [processes.tool("nbdkit"), "-f", "-i", "127.0.0.1", "-p", self.port, "--filter=blocksize-policy"]
        return [*words, "file", self.image, "blocksize-minimum=4096", "blocksize-error-policy=error"]


class Killed(Importing, unittest.TestCase):
    def waiting(self, call, file, command):
        """The process of a program that waits for the file in the given system call."""
        process = subprocess.Popen(
            [str(word) for word in command], stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
            preexec_fn=processes.die_with_parent,
        )  # fmt: skip
        self.addCleanup(processes.end, process)

        def waits():
            self.assertIsNone(process.poll(), f"{command} did not wait")
            # The number of the call and what it was given: a descriptor at first.
            words = Path(f"/proc/{process.pid}/syscall").read_text().split()
            if words[0] != str(call):
                return False
            try:
                return os.readlink(f"/proc/{process.pid}/fd/{int(words[1], 16)}") == str(file)
            except FileNotFoundError:
                return False

        processes.wait_until(waits, f"{command} to wait")
        return process

    def read(self, file, block, *more):
        words = ["dd", f"if={file}", "of=/dev/null", f"bs={BLOCK}", "count=1", f"skip={block}", *more]
        return self.waiting(READ, file, words)

    def write(self, file, block, *more, size=BLOCK):
        words = ["dd", "if=/dev/zero", f"of={file}", f"bs={size}", "count=1", f"seek={block}", "conv=notrunc", *more]
        return self.waiting(WRITE, file, words)

    def assert_ends(self, process):
        process.terminate()
        self.assertEqual(process.wait(processes.LIMIT_SECONDS), -signal.SIGTERM)

    def test_programs_end_while_the_server_is_away(self):
        self.image.write_bytes(images.random_bytes(images.SIZE, seed=1))
        before = images.content(self.image)
        for kind in (remotes.Nbdkit, OneByOne):
            with self.subTest(server=kind.__name__):
                remote = kind(self, self.image).start()
                number = self.imported(remote)
                file = self.file(number)
                remote.kill()
                self.await_state(number, "connecting")
                programs = [
                    self.read(file, 0),
                    self.read(file, 1, "iflag=direct"),
                    self.write(file, 2),
                    self.write(file, 100, size=100),
                    self.waiting(FSYNC, file, ["sync", file]),
                ]
                for program in programs:
                    self.assert_ends(program)
                remote.start()
                self.await_state(number, "connected")
                self.assertEqual(images.content(file), before)
                processes.run(["dd", f"if={self.image}", f"of={file}", "bs=1M", "conv=notrunc,fsync"])
                self.assertEqual(images.content(self.image), before, "nothing that was given up has been written")
                self.disable(number)
                remote.kill()

    def test_what_several_threads_have_asked_is_given_up_too(self):
        remote = remotes.Nbdd(self, self.image).start()
        number = self.imported(remote)
        file = self.file(number)
        before = images.content(self.image)
        os.kill(remote.service.process.pid, signal.SIGSTOP)
        programs = [self.read(file, block, "iflag=direct") for block in range(8)]
        # The kernel lets one writer at a file at a time.
        programs.append(self.write(file, 9))
        remote.kill()
        self.await_state(number, "connecting")
        for program in programs:
            self.assert_ends(program)
        remote.start()
        self.await_state(number, "connected")
        self.assertEqual(images.content(file), before)

    def test_a_reader_of_a_frozen_server_ends(self):
        remote = remotes.Nbdkit(self, self.image).start()
        number = self.imported(remote)
        file = self.file(number)
        os.kill(remote.process.pid, signal.SIGSTOP)
        self.assert_ends(self.read(file, 0, "iflag=direct"))
        os.kill(remote.process.pid, signal.SIGCONT)
        self.assertEqual(images.content(file), images.content(self.image))

    def test_a_signal_that_kills_nobody_changes_nothing(self):
        remote = remotes.Nbdkit(self, self.image).start()
        number = self.imported(remote)
        file = self.file(number)
        remote.kill()
        self.await_state(number, "connecting")
        reader = self.waiting(READ, file, ["/usr/bin/python3", "-c", READER, file])
        reader.send_signal(signal.SIGUSR1)
        self.assert_ends(self.read(file, 1, "iflag=direct"))  # so the service has looked
        remote.start()
        self.assertEqual(reader.wait(processes.LIMIT_SECONDS), 0)


if __name__ == "__main__":
    unittest.main()
