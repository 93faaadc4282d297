"""The NBD servers that are measured, each started as a sensible administrator would, on one image at a time."""

import atexit
import contextlib
import functools
import os
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
from pathlib import Path

from costs import descendants

sys.path.insert(0, str(Path(__file__).resolve().parent.parent / "tests" / "system"))

from support import certificates, processes  # noqa: E402
from support.service import Service  # noqa: E402

# As many clients as any row has; the default of qemu-nbd is one.
MOST_CLIENTS = 2000


def free_port():
    with socket.create_server(("127.0.0.1", 0)) as listener:
        return listener.getsockname()[1]


class Cleanups(contextlib.ExitStack):
    """Stands in for the test case that the fixture of the system tests asks for."""

    def addCleanup(self, function, *words):  # noqa: N802: the fixture's word
        self.callback(function, *words)


@functools.cache
def certificate_directory():
    """A server's certificate and its authority's, as all servers read them; the same for all of them."""
    root = Path(tempfile.mkdtemp(prefix="bench-"))
    atexit.register(shutil.rmtree, root)
    return certificates.Authority(root / "authority").issue(root / "server", "server", "server")


def secured(uri):
    """The URI of the same export by TLS, for libnbd. Whom it speaks to makes no difference to what is measured."""
    return uri.replace("nbd://", "nbds://", 1) + "?tls-verify-peer=false"


class Stock:
    """A stock server: a command line, ready when its port is open. The image is its default export."""

    def __init__(self, name, arguments, tls=None):
        """`tls`: the words behind the program's name that make it demand TLS, from the directory of certificates."""
        self.name = name
        self._arguments = arguments
        self._tls = tls

    def with_tls(self):
        """The same server by TLS; None if it is not measured so."""

        def arguments(*words):
            command = self._arguments(*words)
            return [command[0], *self._tls(certificate_directory()), *command[1:]]

        return Secured(Stock(self.name, arguments)) if self._tls else None

    @contextlib.contextmanager
    def serving(self, image):
        port = free_port()
        with tempfile.TemporaryDirectory(prefix="bench-") as directory, Cleanups() as cleanups:
            command = self._arguments(image, port, Path(directory))
            command[0] = processes.tool(command[0])
            process = subprocess.Popen(
                command,
                stdin=subprocess.DEVNULL,
                stdout=subprocess.DEVNULL,
                stderr=subprocess.DEVNULL,
                preexec_fn=processes.die_with_parent,
            )
            cleanups.callback(processes.end, process)
            processes.wait_until(lambda: listens(process, port), f"{self.name} to listen", 20)
            yield f"nbd://127.0.0.1:{port}/", process.pid


def listens(process, port):
    if process.poll() is not None:
        raise RuntimeError(f"{process.args[0]} ended with {process.returncode}: {process.args}")
    return is_open(port)


def is_open(port):
    with contextlib.suppress(ConnectionRefusedError), socket.create_connection(("127.0.0.1", port)):
        return True
    return False


class Secured:
    """A server that demands TLS."""

    def __init__(self, server):
        self.name = server.name
        self._server = server

    @contextlib.contextmanager
    def serving(self, image):
        with self._server.serving(image) as (uri, pid):
            yield secured(uri), pid


class Ours:
    name = "nbdd"

    def __init__(self, name="nbdd", engine="io_uring", settings=""):
        self.name = name
        self._engine = engine
        self._settings = settings

    def with_tls(self):
        settings = f'[tls]\nmode = "required"\ndirectory = "{certificate_directory()}"\n'
        return Secured(Ours(self.name, self._engine, settings))

    @contextlib.contextmanager
    def serving(self, image):
        with Cleanups() as cleanups:
            service = Service(cleanups, listen=("127.0.0.1",), engine=self._engine)
            service.configuration.write_text(service.configuration.read_text() + self._settings)
            service.start().start_server()
            _, name = service.publish(image)
            yield service.uri(name), service.process.pid


def nbdkit(*threads):
    return lambda image, port, _: ["nbdkit", "-f", "-i", "127.0.0.1", "-p", str(port), *threads, "file", str(image)]


def qemu_nbd(aio):
    return lambda image, port, _: (
        ["qemu-nbd", "-f", "raw", "-b", "127.0.0.1", "-p", str(port), "--persistent", "-e", str(MOST_CLIENTS)]
        + ["--discard=unmap", f"--aio={aio}", str(image)]
    )


class NbdServer:
    """Serves each connection in a process of its own, and only as a daemon: so it is found by its PID file."""

    name = "nbd-server"

    def with_tls(self):
        return None

    @contextlib.contextmanager
    def serving(self, image):
        port = free_port()
        with tempfile.TemporaryDirectory(prefix="bench-") as directory, Cleanups() as cleanups:
            configuration, pid_file = Path(directory) / "config", Path(directory) / "pid"
            configuration.write_text(
                f"[generic]\nport = {port}\nlistenaddr = 127.0.0.1\nallowlist = true\n"
                f"[image]\nexportname = {image}\nflush = true\nfua = true\ntrim = true\n"
            )
            # Before it runs: whenever we are interrupted, it ends.
            cleanups.callback(self._end, pid_file)
            processes.run([processes.tool("nbd-server"), "-C", configuration, "-p", pid_file])
            pid = processes.wait_until(lambda: self._pid(pid_file), "nbd-server", 20)
            processes.wait_until(lambda: is_open(port), "nbd-server to listen", 20)
            yield f"nbd://127.0.0.1:{port}/image", pid

    @staticmethod
    def _pid(pid_file):
        with contextlib.suppress(OSError, ValueError):
            return int(pid_file.read_text())
        return None

    def _end(self, pid_file):
        if (pid := self._pid(pid_file)) is not None:
            for process in descendants(pid):
                with contextlib.suppress(ProcessLookupError):
                    os.kill(process, signal.SIGKILL)
            processes.wait_for_end_of(pid)


def nbdkit_tls(directory):
    return ["--tls=require", f"--tls-certificates={directory}"]


def qemu_tls(directory):
    credentials = f"tls-creds-x509,id=tls,endpoint=server,verify-peer=no,dir={directory}"
    return ["--object", credentials, "--tls-creds", "tls"]


def all_servers():
    """Ours first."""
    return [
        Ours(),
        Ours("nbdd, threads", "threads"),
        Stock("nbdkit file", nbdkit(), nbdkit_tls),
        Stock("nbdkit -t 2 file", nbdkit("-t", "2"), nbdkit_tls),
        Stock("qemu-nbd", qemu_nbd("threads"), qemu_tls),
        Stock("qemu-nbd io_uring", qemu_nbd("io_uring"), qemu_tls),
        NbdServer(),
    ]
