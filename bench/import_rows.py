"""Work on imports: a remote export as a file of this host or as a socket, beside other ways to reach the same server.

The servers of these rows are what stands between the load and a remote nbdd: processor time and memory are theirs, not
the remote's.
"""

import contextlib
from dataclasses import dataclass

import clients
import costs
from rows import GB, Finding, Row, Sample, run_fio
from servers import Cleanups, Ours
from support.far import FarLink


def load_on(address):
    """How fio is told of a file or a URI."""
    return ["--ioengine=nbd", f"--uri={address}"] if "://" in address else ["--ioengine=psync", f"--filename={address}"]


def measure(served, arguments, options, image, by_bytes):
    if served.pid is None:
        total = run_fio([*load_on(served.uri), *arguments.split()], options, image)
        return Sample(total["bytesPerSecond"] if by_bytes else total["requestsPerSecond"])
    with costs.MemoryWatch(served.pid) as memory:
        before = costs.cpu_seconds(served.pid)
        total = run_fio([*load_on(served.uri), *arguments.split()], options, image)
        cpu = costs.cpu_seconds(served.pid) - before
    if by_bytes:
        return Sample(total["bytesPerSecond"], cpu / total["bytes"] * GB, memory.peak)
    return Sample(total["requestsPerSecond"], cpu / total["requests"], memory.peak)


@dataclass
class File(Row):
    """The node "file" beside nbdfuse."""

    name: str
    arguments: str
    aims: tuple
    by_bytes: bool = False

    def servers(self, _):
        return [clients.Through(clients.Import("file")), clients.Through(clients.Nbdfuse())]

    def measure(self, served, options, images):
        return measure(served, self.arguments, options, images[self.image], self.by_bytes)


@dataclass
class Socket(Row):
    """The node "socket" beside a connection to the remote server itself."""

    name: str
    arguments: str
    least: float
    direct = "fio itself, no import"

    def servers(self, _):
        return [clients.Through(clients.Import("socket")), clients.Through(clients.Direct(self.direct))]

    def measure(self, served, options, images):
        return measure(served, self.arguments, options, images[self.image], self.by_bytes)

    def findings(self, result):
        if not {"nbdd", self.direct} <= result.keys():
            return []
        ours, direct = result["nbdd"].throughput, result[self.direct].throughput
        detail = f"{ours / 1000:.1f}k/s of {direct / 1000:.1f}k/s"
        return [Finding("nbdd", "speed against no import", ours / direct, self.least, True, detail)]


class FarServer:
    """The remote server behind a path of 20 ms, on which every connection has a window."""

    round_trip = 0.02

    def __init__(self, window):
        self._window = window

    @contextlib.contextmanager
    def serving(self, image):
        with Ours().serving(image) as (uri, pid), Cleanups() as cleanups:
            port = uri.split(":")[2].split("/")[0]
            link = FarLink(cleanups, int(port), self.round_trip, self._window)
            yield uri.replace(port, str(link.port), 1), pid


@dataclass
class Far(Row):
    """Reading a far server from the beginning to the end, 128 KiB at a time as cp(1) does."""

    name: str
    least: float
    window = 1 << 20
    by_bytes = True
    reader = "fio itself, no import"
    arguments = "--rw=read --bs=128k"

    def servers(self, _):
        far = FarServer(self.window)
        return [
            clients.Through(clients.Import("file"), far),
            clients.Through(clients.Direct(self.reader), far),
            clients.Through(clients.Nbdfuse(), far),
        ]

    def measure(self, served, options, images):
        return measure(served, self.arguments, options, images[self.image], True)

    def findings(self, result):
        if not {"nbdd", self.reader} <= result.keys():
            return []
        ours, alone = result["nbdd"].throughput, result[self.reader].throughput
        detail = f"{ours / 1e6:.0f} MB/s to {alone / 1e6:.1f}"
        return [Finding("nbdd", "speed against one synchronous reader", ours / alone, self.least, True, detail)]


IMPORT_ROWS = {
    "import-read-4k": File(
        "file of an import, 4 KiB random read, 4 threads", "--rw=randread --bs=4k --direct=1 --numjobs=4 --thread", (1.5, 0.7)
    ),
    "import-read-1m": File("file of an import, 1 MiB sequential read", "--rw=read --bs=1m", (1.2, 0.7), True),
    "import-write-4k": File("file of an import, 4 KiB random write", "--rw=randwrite --bs=4k", (1.3, 0.7)),
    "import-socket-4k": Socket(
        "socket of an import, 4 KiB random read, depth 32", "--rw=randread --bs=4k --iodepth=32", 0.8
    ),
    "import-far": Far("file of an import, sequential read over a path of 20 ms", 4),
}
