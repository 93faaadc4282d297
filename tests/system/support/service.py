"""An nbdd of the test's own, in directories of its own, on a port of its own."""

import contextlib
import ctypes
import os
import shutil
import signal
import subprocess
import tempfile
import urllib.parse
from pathlib import Path

from support import processes
from support.varlink import Control

LOOPBACK = {4: "127.0.0.1", 6: "::1"}

# The tests of the data path run once for each way to wait for storage.
ENGINE = os.environ.get("TALVEK_ENGINE", "io_uring")


def ring_allowed():
    """Whether the kernel gives io_uring to this process."""
    setup = 425
    descriptor = ctypes.CDLL(None, use_errno=True).syscall(setup, 8, ctypes.create_string_buffer(120))
    if descriptor >= 0:
        os.close(descriptor)
    return descriptor >= 0


class Service:
    """nbdd and its directories. The directories stay over any number of starts."""

    def __init__(self, test, listen=None, port=None, engine=ENGINE, host=None, **environment):
        """`engine`: "threads" or "io_uring", as in NBDD_IO. Everything ends with `test`.

        `host`: one of support.hosts in whose network everything runs; there it listens on all addresses, on NBD's
        own port, unless it is told otherwise.
        """
        self._wrapper = host.wrapper if host else []
        self.root = Path(tempfile.mkdtemp(prefix="talvek-"))
        test.addCleanup(shutil.rmtree, self.root)
        self.runtime = self.root / "runtime"
        self.state = self.root / "state"
        self.images = self.root / "images"
        self.images.mkdir()
        self.log = self.root / "stderr"
        self.socket = self.runtime / "org.talvek.NBD"
        self.configuration = self.root / "nbdd.toml"
        if listen is None:
            listen = () if host else tuple(LOOPBACK.values())
        self.configure(listen, port if port is not None else 10809 if host else 0)
        self.environment = {
            "PATH": os.environ.get("PATH", "/usr/bin:/bin"),
            "HOME": str(self.root),
            "LC_ALL": "C.UTF-8",
            "NBDD_RUNTIME_DIR": str(self.runtime),
            "NBDD_STATE_DIR": str(self.state),
            "NBDD_CONFIG": str(self.configuration),
            "NBDD_IO": engine,
            **environment,
        }
        self.process = None
        test.addCleanup(self.end)

    def configure(self, listen, port, more=""):
        """`listen`: addresses, none for all. `more`: further lines of the configuration."""
        addresses = ", ".join(f'"{address}"' for address in listen)
        listening = f"listen = [{addresses}]\n" if listen else ""
        self.configuration.write_text(f"[server]\n{listening}port = {port}\n{more}")

    # Life.

    def start(self, wrapper=()):
        """Starts nbdd and waits until it serves; raises with what it said if it does not come up."""
        self.spawn(wrapper)
        if not self.await_ready():
            self.process.wait(processes.LIMIT_SECONDS)
            raise AssertionError(f"nbdd ended with {self.process.returncode}: {self.log_text()}")
        return self

    def spawn(self, wrapper=()):
        self._ready, ready_end = os.pipe()
        with open(self.log, "ab") as log:
            self.process = subprocess.Popen(
                [*self._wrapper, *wrapper, processes.program("nbdd"), "--ready-fd", str(ready_end)],
                env=self.environment,
                pass_fds=[ready_end],
                stdin=subprocess.DEVNULL,
                stdout=log,
                stderr=log,
                preexec_fn=processes.die_with_parent,
            )
        os.close(ready_end)

    def await_ready(self):
        """True: it serves. False: it has ended without."""
        try:
            if not processes.readable(self._ready):
                raise AssertionError(f"nbdd is not ready: {self.log_text()}")
            return os.read(self._ready, 1) != b""
        finally:
            os.close(self._ready)

    def stop(self):
        """Asks it to end and returns its exit status."""
        self.process.send_signal(signal.SIGTERM)
        return self.process.wait(processes.LIMIT_SECONDS)

    def kill(self):
        """kill -9"""
        self.process.kill()
        self.process.wait(processes.LIMIT_SECONDS)

    def end(self):
        """Whatever runs on these directories is gone afterwards, started by us or by nbdctl."""
        processes.end(self.process)
        with contextlib.suppress(OSError), self.control() as control:
            pid = control.peer()
            os.kill(pid, signal.SIGKILL)
            processes.wait_for_end_of(pid)

    def log_text(self):
        return self.log.read_text(errors="replace")

    # Control.

    def control(self):
        return Control(self.socket)

    def nbdctl(self, *words, stdin=None, check=True):
        """What nbdctl says to one command, or to the lines of `stdin`."""
        command = [*self._wrapper, processes.program("nbdctl"), *words]
        return processes.run(command, environment=self.environment, stdin=stdin, check=check).out

    def start_server(self):
        """Starts the NBD server; afterwards `port` is known."""
        with self.control() as control:
            control.ServerStart()
        return self

    @property
    def port(self):
        return self.properties()["port"]["number"]

    def properties(self):
        with self.control() as control:
            entries = control.ServerGetNamedProperties()["properties"]
        return {entry["name"]: entry for entry in entries}

    def publish(self, node, read_only=False):
        """Adds and enables an export of `node`; returns its id and its name."""
        descriptor = {"node": str(node), "flags": ["readOnly"] if read_only else []}
        with self.control() as control:
            number = control.ExportAdd(descriptor=descriptor)["id"]
            control.ExportEnable(id=number)
            return number, control.ExportInfo(id=number)["info"]["descriptor"]["name"]

    def info(self, number):
        with self.control() as control:
            return control.ExportInfo(id=number)["info"]

    def uri(self, name, family=4):
        host = "127.0.0.1" if family == 4 else "[::1]"
        return f"nbd://{host}:{self.port}/{urllib.parse.quote(name)}"
