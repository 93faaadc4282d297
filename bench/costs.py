"""What a server costs: processor time and memory of its processes, what the kernel holds for its connections, and
how busy it keeps a disk."""

import contextlib
import ctypes
import mmap
import os
import statistics
import threading
import time
from pathlib import Path

TICKS_PER_SECOND = os.sysconf("SC_CLK_TCK")
PAGE = os.sysconf("SC_PAGE_SIZE")


def descendants(pid):
    """The process and all its children, and theirs."""
    found = [pid]
    for task in Path(f"/proc/{pid}/task").glob("*/children"):
        with contextlib.suppress(OSError):
            for child in task.read_text().split():
                found += descendants(int(child))
    return found


# Processor time.


def process_clock(pid):
    """The clock of another process's processor time, as the kernel numbers it (CPUCLOCK_SCHED): user and system
    time of all its threads, those that have ended too, in nanoseconds. The ticks of /proc/PID/stat will not do: what a
    thousand processes did in a few milliseconds each would be rounded away."""
    return (~pid << 3) | 2


def children_ticks(pid):
    """Processor time of the children that have ended and were waited for."""
    fields = Path(f"/proc/{pid}/stat").read_text().rsplit(")", 1)[1].split()
    return sum(int(field) for field in fields[13:15])  # cutime, cstime


def cpu_seconds(pid, family=()):
    """User and system time of a server and all its children, those that have ended too. Who knows its processes and
    that they stay gives them as `family`: to look for a thousand of them would disturb the measurement."""
    seconds = 0
    for process in family or descendants(pid):
        with contextlib.suppress(OSError):
            seconds += time.clock_gettime(process_clock(process))
            seconds += 0 if family else children_ticks(process) / TICKS_PER_SECOND
    return seconds


# Memory.


def memory_kib(pid, family=()):
    """Resident memory of a server and all its children. What several processes share is divided among them (the
    kernel's PSS), so a server of many processes is not charged for the same page many times. The page cache is
    nobody's: a file in memory that is mapped does not count either."""
    total = 0
    for process in family or descendants(pid):
        with contextlib.suppress(OSError):
            for line in Path(f"/proc/{process}/smaps_rollup").read_text().splitlines():
                if line.startswith(("Pss_Anon:", "Pss_File:")):
                    total += int(line.split()[1])
    return total


class MemoryWatch:
    """The most that a server and its children held at any look, in KiB; one look every half second."""

    def __init__(self, pid):
        self._pid = pid
        self._over = threading.Event()
        self._thread = threading.Thread(target=self._watch, daemon=True)
        self.peak = 0

    def _watch(self):
        while True:
            self.peak = max(self.peak, memory_kib(self._pid))
            if self._over.wait(0.5):
                return

    def __enter__(self):
        self._thread.start()
        return self

    def __exit__(self, *_):
        self._over.set()
        self._thread.join()


def kernel_kib():
    """What the kernel holds for sockets, processes and threads: slab, stacks, page tables, and the pages of TCP.
    Of the whole machine, so only a difference says something."""
    fields = dict(line.split(":") for line in Path("/proc/meminfo").read_text().splitlines())
    held = sum(int(fields[name].split()[0]) for name in ("Slab", "KernelStack", "PageTables"))
    tcp = next(line for line in Path("/proc/net/sockstat").read_text().splitlines() if line.startswith("TCP:")).split()
    return held + int(tcp[tcp.index("mem") + 1]) * PAGE // 1024


# The disk.


def block_device(path):
    """The folder in /sys of the block device that holds a file; None for a file on no device."""
    device = os.stat(path).st_dev
    folder = Path(f"/sys/dev/block/{os.major(device)}:{os.minor(device)}")
    return folder if (folder / "inflight").is_file() else None


class DiskWatch:
    """How many requests a disk had at once, looked at every 5 ms while it was busy: the median."""

    def __init__(self, path):
        self._device = block_device(path)
        self._over = threading.Event()
        self._thread = threading.Thread(target=self._watch, daemon=True)
        self._looks = []

    def _watch(self):
        while self._device and not self._over.wait(0.005):
            if requests := sum(map(int, (self._device / "inflight").read_text().split())):
                self._looks.append(requests)

    @property
    def in_flight(self):
        return statistics.median(self._looks) if self._looks else 0

    def __enter__(self):
        self._thread.start()
        return self

    def __exit__(self, *_):
        self._over.set()
        self._thread.join()


def cached_share(path):
    """The share of a file that is in the page cache."""
    libc = ctypes.CDLL(None, use_errno=True)
    libc.mincore.argtypes = [ctypes.c_void_p, ctypes.c_size_t, ctypes.c_char_p]
    with open(path, "r+b") as file, mmap.mmap(file.fileno(), 0) as mapped:
        pages = ctypes.create_string_buffer((len(mapped) + PAGE - 1) // PAGE)
        view = (ctypes.c_char * len(mapped)).from_buffer(mapped)
        failed = libc.mincore(ctypes.addressof(view), len(mapped), pages)
        del view
        if failed:
            raise OSError(ctypes.get_errno(), "mincore")
        return sum(byte & 1 for byte in pages.raw) / len(pages)


def drop_from_cache(path):
    """Takes a file out of the page cache, and sees to it that it is gone."""
    with open(path, "r+b") as file:
        os.fsync(file.fileno())
        if os.geteuid() == 0:
            with contextlib.suppress(OSError):  # a container may forbid it
                Path("/proc/sys/vm/drop_caches").write_text("3")
        os.posix_fadvise(file.fileno(), 0, 0, os.POSIX_FADV_DONTNEED)
    if (share := cached_share(path)) > 0.001:
        raise RuntimeError(f"{share:.1%} of {path} stay in the page cache")
