"""Where a server's processor time goes, by what it asks of the kernel: samples of perf, each put where its stack says."""

import collections
import contextlib
import shutil
import signal
import subprocess
import tempfile
from pathlib import Path

from support import processes

# The first that occurs in a stack, in this order, names it.
PLACES = (
    ("waiting and waking", ("__x64_sys_epoll_pwait2", "__x64_sys_epoll_wait", "__x64_sys_futex")),
    ("receiving", ("__x64_sys_recvfrom", "__x64_sys_recvmsg")),
    ("sending file contents", ("__x64_sys_sendfile64",)),
    ("sending", ("__x64_sys_sendto", "__x64_sys_sendmsg")),
    ("copying mapped bytes", ("copyGuarded", "::copy", "::copyPast")),
    ("reading files", ("do_preadv", "__x64_sys_pread64")),
    ("writing files", ("__x64_sys_pwrite64",)),
    ("syncing files", ("__x64_sys_fdatasync", "io_fsync")),
    ("holes", ("__x64_sys_lseek", "__x64_sys_fallocate", "io_fallocate")),
    ("io_uring", ("__do_sys_io_uring_enter", "io_wq_worker")),
    ("other system calls", ("do_syscall_64",)),
    ("interrupts", ("asm_sysvec", "asm_common_interrupt")),
    ("nbdd itself", ("Nbdd::", "Nbd::", "nbdd")),
)


def place_of(stack):
    for name, marks in PLACES:
        if any(mark in symbol for symbol in stack for mark in marks):
            return name
    return "other"


@contextlib.contextmanager
def profile(pid):
    """Samples the process while the block runs; gives a Counter of samples by place, filled at its end."""
    if not shutil.which("perf"):
        raise RuntimeError("perf is missing: install the package linux-perf")
    samples = collections.Counter()
    with tempfile.TemporaryDirectory(prefix="bench-") as directory:
        data = Path(directory) / "perf.data"
        recorder = subprocess.Popen(
            ["perf", "record", "--quiet", "--freq=997", "-g", f"--pid={pid}", f"--output={data}"],
            stdin=subprocess.DEVNULL,
            preexec_fn=processes.die_with_parent,
        )
        try:
            yield samples
        finally:
            recorder.send_signal(signal.SIGINT)
            recorder.wait()
        printed = subprocess.run(
            ["perf", "script", f"--input={data}", "--fields=ip,sym"], capture_output=True, text=True, check=True
        ).stdout
        for block in printed.split("\n\n"):
            stack = [line.split(None, 1)[-1] for line in block.splitlines() if line.strip()]
            if stack:
                samples[place_of(stack)] += 1


def shares(samples):
    """In words, the largest first; what is below a hundredth is left out."""
    total = sum(samples.values())
    return ", ".join(
        f"{name} {100 * count / total:.0f} %" for name, count in samples.most_common() if count >= total / 100
    )
