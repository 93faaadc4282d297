"""Remote servers to import from: stock ones and nbdd itself, each serving one file on a port of its own."""

import os
import signal
import socket
import subprocess
from pathlib import Path

from support import processes
from support.service import Service


def free_port():
    """A port that nobody listens on just now. Another program may take it first: then the server says so."""
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


def await_port(port, process):
    def answers():
        if process.poll() is not None:
            raise AssertionError(f"the server on port {port} ended with {process.returncode}")
        try:
            socket.create_connection(("127.0.0.1", port), 1).close()
        except OSError:
            return False
        return True

    processes.wait_until(answers, f"port {port}")


class Remote:
    """A server that can be killed and started again on the same port. `name`: that of its export."""

    name = ""

    def __init__(self, test, image, read_only=False):
        self.image = image
        self.read_only = read_only
        self.port = free_port()
        self.process = None
        test.addCleanup(self.kill)
        self.directory = image.parent

    def start(self):
        self.process = subprocess.Popen(
            [str(word) for word in self.command()],
            stdin=subprocess.DEVNULL,
            stdout=subprocess.DEVNULL,
            stderr=subprocess.DEVNULL,
            preexec_fn=processes.die_with_parent,
        )
        await_port(self.port, self.process)
        return self

    def kill(self):
        processes.end(self.process)


class Nbdkit(Remote):
    def command(self):
        words = [processes.tool("nbdkit"), "-f", "-i", "127.0.0.1", "-p", self.port]
        return [*words, *(["-r"] if self.read_only else []), "file", self.image]


class NbdkitDirectory(Remote):
    """Serves every file of a directory."""

    def command(self):
        return [processes.tool("nbdkit"), "-f", "-i", "127.0.0.1", "-p", self.port, "file", f"dir={self.image}"]


class QemuNbd(Remote):
    def command(self):
        words = [processes.tool("qemu-nbd"), "-t", "-e", "8", "-f", "raw", "-b", "127.0.0.1", "-p", self.port]
        return [*words, *(["-r"] if self.read_only else []), self.image]


class NbdServer(Remote):
    """Runs in the background, with a child for each client."""

    name = "disk"
    pid = None

    def start(self):
        configuration, pid_file = self.directory / "nbd-server.conf", self.directory / "nbd-server.pid"
        pid_file.unlink(missing_ok=True)
        configuration.write_text(
            f"[generic]\nlistenaddr = 127.0.0.1\nport = {self.port}\nallowlist = true\n"
            f"[{self.name}]\nexportname = {self.image}\nreadonly = {str(self.read_only).lower()}\n"
            "flush = true\nfua = true\ntrim = true\n"
        )
        processes.run([processes.tool("nbd-server"), "-C", configuration, "-p", pid_file])
        self.pid = int(processes.wait_until(lambda: pid_file.exists() and pid_file.read_text(), "nbd-server"))
        return self

    def kill(self):
        if self.pid is None:
            return
        for child in Path(f"/proc/{self.pid}/task/{self.pid}/children").read_text().split():
            os.kill(int(child), signal.SIGKILL)
        os.kill(self.pid, signal.SIGKILL)
        processes.wait_for_end_of(self.pid)
        self.pid = None


class Nbdd(Remote):
    """Another instance of nbdd."""

    def __init__(self, test, image, read_only=False):
        super().__init__(test, image, read_only)
        self.service = Service(test, listen=("127.0.0.1",), port=self.port)
        self.published = False

    def start(self):
        self.service.start()
        if not self.published:
            self.service.start_server()
            _, self.name = self.service.publish(self.image, self.read_only)
            self.published = True
        await_port(self.port, self.service.process)
        return self

    def kill(self):
        if self.published:
            processes.end(self.service.process)


KINDS = (Nbdkit, QemuNbd, NbdServer, Nbdd)
