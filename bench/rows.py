"""The kinds of work that servers are measured with: how each is done and measured, and what it aims at.

A row measures one server once with measure(), which returns a Sample; findings() says of the medians of all servers
what was reached and what was aimed at.
"""

import contextlib
import json
import statistics
import subprocess
import tempfile
import time
from dataclasses import dataclass, field

import costs
from servers import processes

GB = 1e9
KIB = 1024

# Threads of the load generator: it takes no more of the machine with two than with one, and no server waits for it.
CLIENT_THREADS = 2

UNITS_OF_CPU = {False: ("us/request", 1e6), True: ("s/GB", 1)}


@dataclass
class Sample:
    """What one server did once, or the median of several times."""

    throughput: float = 0  # requests per second, or bytes per second
    cpu: float = 0  # seconds per request, or per GB
    memory: float = 0  # KiB
    notes: dict = field(default_factory=dict)  # what else the row measures, by a name with its unit


@dataclass
class Finding:
    """One aim and what came of it."""

    server: str
    what: str
    value: float
    aim: float
    at_least: bool = False
    detail: str = ""  # what stands behind the value

    @property
    def met(self):
        return self.value >= self.aim if self.at_least else self.value <= self.aim

    def __str__(self):
        bound = "at least" if self.at_least else "at most"
        return f"{self.server}: {self.what} {self.value:.2f}, aim {bound} {self.aim:g}"


def median_of(samples):
    notes = {name: statistics.median(sample.notes[name] for sample in samples) for name in samples[0].notes}
    return Sample(
        statistics.median(sample.throughput for sample in samples),
        statistics.median(sample.cpu for sample in samples),
        max(sample.memory for sample in samples),
        notes,
    )


def is_ours(name):
    return name.startswith("nbdd")


def is_stock(name):
    return not is_ours(name) and not name.startswith("fio itself")


class Row:
    """What all rows have in common."""

    where = "memory"  # or "disk": where the image lies
    image = "dense"
    by_bytes = False
    aims = ()  # throughput at least, processor time at most, in proportion to the best stock server
    rounds = None  # at most so many
    judges_threads = True  # whether the aims hold without io_uring as well

    def servers(self, chosen):
        """Who is measured."""
        return chosen

    def judged(self, result):
        return [name for name in result if is_ours(name) and (self.judges_threads or name == "nbdd")]

    def findings(self, result):
        """Against the best stock server of this row and run; nothing to compare with, nothing found."""
        stock = [sample for name, sample in result.items() if is_stock(name)]
        if not stock or not self.aims:
            return []
        least, most = self.aims
        fastest = max(sample.throughput for sample in stock)
        cheapest = min(sample.cpu for sample in stock)
        found = []
        for name in self.judged(result):
            found.append(Finding(name, "speed", result[name].throughput / fastest, least, at_least=True))
            if most is not None and cheapest > 0:
                found.append(Finding(name, "CPU", result[name].cpu / cheapest, most))
        return found


@dataclass
class Fio(Row):
    """A load of fio's nbd engine."""

    name: str
    arguments: str
    aims: tuple
    by_bytes: bool = False
    where: str = "memory"
    image: str = "dense"

    def __post_init__(self):
        # Without io_uring it is the rows on memory that are to hold.
        self.judges_threads = self.where == "memory"

    def measure(self, served, options, images):
        command = ["--ioengine=nbd", f"--uri={served.uri}", *self.arguments.split()]
        with costs.MemoryWatch(served.pid) as memory:
            before = costs.cpu_seconds(served.pid)
            total = run_fio(command, options, images[self.image])
            cpu = costs.cpu_seconds(served.pid) - before
        if self.by_bytes:
            return Sample(total["bytesPerSecond"], cpu / total["bytes"] * GB, memory.peak)
        return Sample(total["requestsPerSecond"], cpu / total["requests"], memory.peak)


class SecuredFio(Fio):
    """The same by TLS. Servers that are not measured so are left out."""

    def servers(self, chosen):
        return [secured for server in chosen if (secured := server.with_tls())]


def run_fio(arguments, options, image):
    """Runs one job for options.seconds; what its reads and writes make together."""
    command = [processes.tool("fio"), "--name=bench", "--time_based", f"--runtime={options.seconds * 1000:.0f}ms"]
    command += [f"--size={image.stat().st_size}", "--group_reporting", "--output-format=json", "--randrepeat=1"]
    with tempfile.TemporaryDirectory(prefix="bench-") as directory:
        result = processes.run([*command, *arguments], cwd=directory, limit=60 + 5 * options.seconds)
    job = json.loads(result.out[result.out.index("{") :])["jobs"][0]
    if job["error"] != 0:
        raise RuntimeError(f"fio: {result}")
    sides = [job["read"], job["write"]]
    return {
        "requests": sum(side["total_ios"] for side in sides),
        "bytes": sum(side["io_bytes"] for side in sides),
        "requestsPerSecond": sum(side["iops"] for side in sides),
        "bytesPerSecond": sum(side["bw_bytes"] for side in sides),
    }


class FileItself:
    """Not a server: fio on the image, for what the disk can do."""

    def __init__(self, name, direct):
        self.name = name
        self.direct = direct

    @contextlib.contextmanager
    def serving(self, _):
        yield None, None


class Cold(Row):
    """Random reads of an image of which nothing is in the page cache, beside fio on the file itself."""

    name = "4 KiB random read, cold, 1 connection, depth 32, on the disk"
    where = "disk"
    image = "cold"
    judges_threads = False
    least = 0.95
    references = ("fio itself, direct", "fio itself, buffered")
    load = "--rw=randread --bs=4k --iodepth=32"
    in_flight = "at the disk at once"

    def servers(self, chosen):
        return [*chosen, *(FileItself(name, direct) for name, direct in zip(self.references, (1, 0)))]

    def measure(self, served, options, images):
        image = images[self.image]
        costs.drop_from_cache(image)
        if isinstance(served.server, FileItself):
            source = ["--ioengine=io_uring", f"--filename={image}", f"--direct={served.server.direct}"]
            with costs.DiskWatch(image) as disk:
                total = run_fio([*source, *self.load.split()], options, image)
            return Sample(total["requestsPerSecond"], notes={self.in_flight: disk.in_flight})
        source = ["--ioengine=nbd", f"--uri={served.uri}"]
        with costs.MemoryWatch(served.pid) as memory, costs.DiskWatch(image) as disk:
            before = costs.cpu_seconds(served.pid)
            total = run_fio([*source, *self.load.split()], options, image)
            cpu = costs.cpu_seconds(served.pid) - before
        return Sample(
            total["requestsPerSecond"], cpu / total["requests"], memory.peak, {self.in_flight: disk.in_flight}
        )

    def findings(self, result):
        found = []
        for name in self.judged(result):
            for reference in self.references:
                if reference in result:
                    speed = result[name].throughput / result[reference].throughput
                    found.append(Finding(name, f"speed against {reference}", speed, self.least, at_least=True))
            if (direct := result.get(self.references[0])) and direct.notes[self.in_flight]:
                depth = result[name].notes[self.in_flight]
                share = depth / direct.notes[self.in_flight]
                what = f"queue at the disk against {self.references[0]}"
                found.append(Finding(name, what, share, self.least, True, f"{depth:.0f} at once"))
        return found


@dataclass
class Copy(Row):
    """A whole image, three quarters of it holes, copied out of the server or into it."""

    name: str
    tool: str
    out: bool
    aims: tuple = (1.2, 0.7)
    by_bytes: bool = True

    @property
    def image(self):
        return "sparse" if self.out else "target"

    def measure(self, served, _, images):
        local = images["copy"] if self.out else images["sparse"]
        size = images["sparse"].stat().st_size
        source, target = (served.uri, str(local)) if self.out else (str(local), served.uri)
        command = {
            "nbdcopy": [processes.tool("nbdcopy"), source, target],
            "qemu-img": [processes.tool("qemu-img"), "convert", "-f", "raw", "-O", "raw"]
            + ([] if self.out else ["-n", "--target-is-zero"])
            + [source, target],
        }[self.tool]
        try:
            with costs.MemoryWatch(served.pid) as memory:
                before = costs.cpu_seconds(served.pid)
                begin = time.monotonic()
                processes.run(command, limit=600)
                seconds = time.monotonic() - begin
                cpu = costs.cpu_seconds(served.pid) - before
        finally:
            images["copy"].unlink(missing_ok=True)
        return Sample(size / seconds, cpu / size * GB, memory.peak)


class LoadClients:
    """Our load generator at work; see bench/load_clients.cpp for the lines that it is followed by."""

    def __init__(self, uri, *arguments, patience=60):
        self._patience = patience
        self._process = subprocess.Popen(
            [processes.program("load_clients"), uri, *map(str, arguments), "--patience", str(patience)],
            stdin=subprocess.PIPE,
            stdout=subprocess.PIPE,
            stderr=subprocess.PIPE,
            text=True,
            preexec_fn=processes.die_with_parent,
        )

    def __enter__(self):
        self.expect("standing")
        return self

    def __exit__(self, *_):
        processes.end(self._process)
        for pipe in (self._process.stdin, self._process.stdout, self._process.stderr):
            with contextlib.suppress(BrokenPipeError):
                pipe.close()

    def go(self):
        self._process.stdin.write("\n")
        self._process.stdin.flush()

    def line(self):
        if not processes.readable(self._process.stdout, self._patience + 60):
            raise RuntimeError("load_clients says nothing")
        line = self._process.stdout.readline().strip()
        if not line:
            raise RuntimeError(self._process.stderr.read().strip() or "load_clients ended")
        return line

    def expect(self, word):
        if (line := self.line()) != word:
            raise RuntimeError(f"load_clients says {line}, not {word}")

    def result(self):
        result = json.loads(self.line())
        if result["errors"]:
            raise RuntimeError(f"{result['errors']} requests failed")
        return result


def load_arguments(options):
    return ["--stay", "--seconds", options.seconds, "--warm-up", options.seconds / 4]


@dataclass
class Clients(Row):
    """Many clients at once, each with one request under way."""

    name: str
    connections: int
    spread: float  # p99 of the latency, in proportion to the median, at most
    aims: tuple
    latency = "p99/median"

    def measure(self, served, options, _):
        arguments = ["--connections", self.connections, "--threads", CLIENT_THREADS, *load_arguments(options)]
        with LoadClients(served.uri, *arguments) as clients:
            family = costs.descendants(served.pid)
            clients.go()
            clients.expect("measuring")
            before = costs.cpu_seconds(served.pid, family)
            result = clients.result()
            cpu = costs.cpu_seconds(served.pid, family) - before
            memory = costs.memory_kib(served.pid, family)
        latency, share = result["latency"], result["requestsPerConnection"]
        notes = {
            "median ms": latency["p50"] / 1000,
            "p99 ms": latency["p99"] / 1000,
            "max ms": latency["max"] / 1000,
            self.latency: latency["p99"] / latency["p50"],
            "worst/median client": share["min"] / max(share["median"], 1),
        }
        return Sample(result["requestsPerSecond"], cpu / max(result["requests"], 1), memory, notes)

    def findings(self, result):
        spreads = [
            Finding(name, "p99 against the median", result[name].notes[self.latency], self.spread)
            for name in self.judged(result)
        ]
        return super().findings(result) + spreads


@dataclass
class Idle(Row):
    """What a client costs that is connected and asks for nothing; afterwards each is served once."""

    name: str
    connections: int
    most_kib: float = 32  # memory of the server's processes for each connection
    only_ours: bool = False
    patience: int = 60
    rounds = 1
    each = "KiB each"
    served_ms = "all served in ms"

    def servers(self, chosen):
        return [server for server in chosen if is_ours(server.name) or not self.only_ours]

    def measure(self, served, options, _):
        connections = max(self.connections // options.divisor, 10)
        memory, kernel = costs.memory_kib(served.pid), costs.kernel_kib()
        begin = time.monotonic()
        arguments = ["--idle", "--connections", connections]
        with LoadClients(served.uri, *arguments, patience=self.patience) as clients:
            stood = time.monotonic() - begin
            family = costs.descendants(served.pid)
            held = costs.memory_kib(served.pid, family)
            notes = {
                self.each: (held - memory) / connections,
                # The client's end of each connection is in it.
                "kernel KiB, both ends": (costs.kernel_kib() - kernel) / connections,
                "processes": len(family),
                "connected in s": stood,
            }
            clients.go()
            answer = clients.result()
            if answer["answered"] != connections:
                raise RuntimeError(f"only {answer['answered']} of {connections} clients were served")
            notes[self.served_ms] = answer["latency"]["max"] / 1000
        return Sample(memory=held, notes=notes)

    def findings(self, result):
        return [
            Finding(name, "KiB for each idle connection", result[name].notes[self.each], self.most_kib)
            for name in self.judged(result)
        ]


@dataclass
class Neighbour(Row):
    """Four clients with one request under way each: by themselves, and then beside another that behaves badly. Four,
    so that some of them share a thread of the server with it. The worst served of them is shown too, because a client
    that is made to wait adds little to a latency that is taken over all requests; it is not judged, because with more
    threads than processors the scheduler has more to say in it than the server."""

    name: str
    other: str  # "stalled" or "greedy", as load_clients knows them
    most: float  # the median beside it, in proportion to by themselves
    figures = ("median us", "p99 us", "worst client's mean us")

    def measure(self, served, options, _):
        alone = self._figures(served, options)
        beside = self._figures(served, options, f"--{self.other}", 1)
        notes = {}
        for figure, before, after in zip(self.figures, alone, beside):
            notes |= {figure: before, f"{figure} beside": after}
        return Sample(notes=notes)

    @staticmethod
    def _figures(served, options, *arguments):
        with LoadClients(served.uri, "--connections", 4, *load_arguments(options), *arguments) as clients:
            clients.go()
            clients.expect("measuring")
            result = clients.result()
        return result["latency"]["p50"], result["latency"]["p99"], result["meanLatencyPerConnection"]["max"]

    def findings(self, result):
        found = []
        for name in self.judged(result):
            notes = result[name].notes
            pairs = ((figure, notes[figure], notes[f"{figure} beside"]) for figure in self.figures)
            detail = "; ".join(f"{figure} {before:.0f} to {after:.0f}" for figure, before, after in pairs)
            ratio = notes[f"{self.figures[0]} beside"] / notes[self.figures[0]]
            found.append(Finding(name, f"median beside a {self.other} client", ratio, self.most, detail=detail))
        return found


ROWS = {
    "read-4k-d1": Fio("4 KiB random read, 1 connection, depth 1", "--rw=randread --bs=4k --iodepth=1", (1.2, 0.7)),
    "read-4k": Fio("4 KiB random read, 1 connection, depth 32", "--rw=randread --bs=4k --iodepth=32", (1.4, 0.55)),
    "read-4k-c4": Fio(
        "4 KiB random read, 4 connections, depth 32", "--rw=randread --bs=4k --iodepth=32 --numjobs=4", (2.2, 0.2)
    ),
    "write-4k": Fio("4 KiB random write, 1 connection, depth 32", "--rw=randwrite --bs=4k --iodepth=32", (1.3, 0.6)),
    "read-64k": Fio("64 KiB random read, depth 32", "--rw=randread --bs=64k --iodepth=32", (1.5, 0.55)),
    "read-1m": Fio("1 MiB sequential read, depth 16", "--rw=read --bs=1m --iodepth=16", (1.4, 0.65), True),
    "write-1m": Fio("1 MiB sequential write, depth 16", "--rw=write --bs=1m --iodepth=16", (1.2, 0.55), True),
    "tls-read-64k": SecuredFio("TLS, 64 KiB random read, depth 32", "--rw=randread --bs=64k --iodepth=32", (1.0, 1.0)),
    "tls-read-1m": SecuredFio(
        "TLS, 1 MiB sequential read, depth 16", "--rw=read --bs=1m --iodepth=16", (1.0, 1.0), True
    ),
    "tls-write-64k": SecuredFio(
        "TLS, 64 KiB random write, depth 32", "--rw=randwrite --bs=64k --iodepth=32", (1.0, 1.0)
    ),
    "tls-write-1m": SecuredFio(
        "TLS, 1 MiB sequential write, depth 16", "--rw=write --bs=1m --iodepth=16", (1.0, 1.0), True
    ),
    "tls-read-4k": SecuredFio("TLS, 4 KiB random read, depth 32", "--rw=randread --bs=4k --iodepth=32", (1.0, 1.0)),
    "nbdcopy-out": Copy("nbdcopy out, 4 GiB, 75 % holes", "nbdcopy", True),
    "nbdcopy-in": Copy("nbdcopy in, 4 GiB, 75 % holes", "nbdcopy", False),
    "convert-out": Copy("qemu-img convert out, 4 GiB, 75 % holes", "qemu-img", True),
    "convert-in": Copy("qemu-img convert in, 4 GiB, 75 % holes", "qemu-img", False),
    "clients-1000": Clients("4 KiB random read, 1,000 connections, depth 1", 1000, 3.0, (1.5, 0.6)),
    "beside-stalled": Neighbour(
        "4 KiB random read, 4 connections, depth 1, beside one that never reads", "stalled", 1.2
    ),
    # A greedy client and the server at its work keep two processors busy. The others can ask for a fair half of them.
    "beside-greedy": Neighbour(
        "4 KiB random read, 4 connections, depth 1, beside one with 256 MiB under way", "greedy", 2.0
    ),
    "idle-1000": Idle("1,000 idle connections", 1000),
    "idle-10000": Idle("10,000 idle connections", 10_000, only_ours=True, patience=300),
    "fsync-1": Fio(
        "4 KiB random write, each flushed, on the disk",
        "--rw=randwrite --bs=4k --iodepth=1 --fsync=1",
        (1.0, None),
        where="disk",
    ),
    "fsync-16": Fio(
        "4 KiB random write, every 16th flushed, 4 connections, on the disk",
        "--rw=randwrite --bs=4k --iodepth=16 --fsync=16 --numjobs=4",
        (1.0, None),
        where="disk",
    ),
    "cold-4k": Cold(),
}
