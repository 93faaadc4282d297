"""The programs that make a remote export a file of this host, and the servers that they are measured on."""

import contextlib
import subprocess
import tempfile
from pathlib import Path
from urllib.parse import unquote, urlsplit

from servers import Cleanups, Ours, processes
from support.service import Service


def is_mounted(place):
    return any(line.split()[4] == str(place) for line in Path("/proc/self/mountinfo").read_text().splitlines())


class Nbdfuse:
    """As it comes: up to four connections, several threads."""

    name = "nbdfuse"

    @contextlib.contextmanager
    def importing(self, uri):
        with tempfile.TemporaryDirectory(prefix="bench-") as directory, Cleanups() as cleanups:
            place = Path(directory) / "disk"
            place.touch()
            process = subprocess.Popen(
                [processes.tool("nbdfuse"), str(place), uri],
                stdin=subprocess.DEVNULL,
                stdout=subprocess.DEVNULL,
                stderr=subprocess.DEVNULL,
                preexec_fn=processes.die_with_parent,
            )
            cleanups.callback(self._end, process, place)
            processes.wait_until(lambda: process.poll() is not None or is_mounted(place), "nbdfuse to mount")
            if process.returncode is not None:
                raise RuntimeError(f"nbdfuse ended with {process.returncode}")
            yield str(place), process.pid

    @staticmethod
    def _end(process, place):
        processes.run([processes.tool("fusermount3"), "-u", "-z", place], check=False)
        with contextlib.suppress(subprocess.TimeoutExpired):
            process.wait(10)
        processes.end(process)


class Import:
    """An import of nbdd, through one of its nodes."""

    name = "nbdd"

    def __init__(self, node):
        self._node = node

    @contextlib.contextmanager
    def importing(self, uri):
        with Cleanups() as cleanups:
            service = Service(cleanups, listen=("127.0.0.1",)).start()
            parts = urlsplit(uri)
            descriptor = {
                "name": unquote(parts.path[1:]),
                "server": {"address": parts.hostname, "port": parts.port},
            }
            with service.control() as control:
                number = control.ImportAdd(descriptor=descriptor)["id"]
                control.ImportEnable(id=number)
                cleanups.callback(self._disable, service, number)
                nodes = control.ImportListNodeInterfaces(id=number)["interfaces"]
            facts = next(entry["nested"] for entry in nodes if entry["name"] == self._node)
            texts = {fact["name"]: fact.get("text") for fact in facts}
            if texts.get("state") != "active":
                raise RuntimeError(f"the node {self._node}: {texts}")
            yield self._address(texts["path"]), service.process.pid

    def _address(self, path):
        return path if self._node == "file" else f"nbd+unix:///?socket={path}"

    @staticmethod
    def _disable(service, number):
        with service.control() as control:
            control.ImportDisable(id=number, force=True)


class Direct:
    """Nothing between: the server itself."""

    def __init__(self, name):
        self.name = name

    @contextlib.contextmanager
    def importing(self, uri):
        yield uri, None


class Through:
    """A client in the place of a server: what it offers of a remote server's export is measured, and what it costs.
    The remote server is the same for all."""

    def __init__(self, client, remote=None):
        self.name = client.name
        self._client = client
        self._remote = remote or Ours()

    @contextlib.contextmanager
    def serving(self, image):
        with self._remote.serving(image) as (uri, _), self._client.importing(uri) as imported:
            yield imported
