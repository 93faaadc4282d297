"""Programs that are run and ended: every one has a time limit, and none outlives the test."""

import ctypes
import os
import select
import shutil
import signal
import subprocess
import time

# How long anything may take. Only a hang reaches it: no test asserts how fast something is.
LIMIT_SECONDS = 120

PR_SET_PDEATHSIG = 1
_libc = ctypes.CDLL(None, use_errno=True)


def die_with_parent():
    """Runs in a new child: the kernel ends it when the test ends, however that happens."""
    _libc.prctl(PR_SET_PDEATHSIG, signal.SIGKILL)


def program(name):
    """The path of a program of the build under test."""
    directory = os.environ.get("TALVEK_BIN")
    if not directory:
        raise RuntimeError("set TALVEK_BIN to the build's bin directory")
    path = os.path.join(directory, name)
    if not os.access(path, os.X_OK):
        raise RuntimeError(f"{path} is not there: build it first")
    return path


def tool(name):
    """The path of a stock tool. One that is missing is a failure, never a skip."""
    path = shutil.which(name, path=os.environ.get("PATH", "") + ":/usr/sbin:/sbin")
    if path is None:
        raise RuntimeError(f"{name} is not installed: see tools/packages")
    return path


class Result:
    """How a program ended."""

    def __init__(self, command, status, out, err):
        self.command = command
        self.status = status
        self.out = out
        self.err = err

    def __str__(self):
        return (
            f"{' '.join(map(str, self.command))}\nexit status {self.status}\n"
            f"--- stdout\n{self.out}\n--- stderr\n{self.err}"
        )


def run(command, environment=None, stdin=None, cwd=None, check=True, limit=LIMIT_SECONDS):
    """Runs a program to its end. With `check`, an exit status other than 0 raises with all it said."""
    command = [str(word) for word in command]
    process = subprocess.Popen(
        command,
        env=environment,
        cwd=cwd,
        stdin=subprocess.PIPE if stdin is not None else subprocess.DEVNULL,
        stdout=subprocess.PIPE,
        stderr=subprocess.PIPE,
        text=True,
        errors="surrogateescape",
        preexec_fn=die_with_parent,
    )
    try:
        out, err = process.communicate(stdin, timeout=limit)
    except subprocess.TimeoutExpired:
        process.kill()
        out, err = process.communicate()
        raise AssertionError(f"not done within {limit} s: {Result(command, 'killed', out, err)}") from None
    result = Result(command, process.returncode, out, err)
    if check and result.status != 0:
        raise AssertionError(str(result))
    return result


def end(process):
    """Ends a child for good, if it still runs."""
    if process is not None and process.poll() is None:
        process.kill()
        process.wait()


def readable(descriptor, seconds=LIMIT_SECONDS):
    """Waits until `descriptor` has something to read, or its other end is gone."""
    ready, _, _ = select.select([descriptor], [], [], seconds)
    return bool(ready)


def wait_for_end_of(pid, limit=LIMIT_SECONDS):
    """Waits for the end of a process that need not be a child of ours."""
    try:
        descriptor = os.pidfd_open(pid)
    except ProcessLookupError:
        return
    try:
        if not readable(descriptor, limit):
            raise AssertionError(f"process {pid} did not end within {limit} s")
    finally:
        os.close(descriptor)


def wait_until(condition, what, limit=LIMIT_SECONDS):
    """For the few things that nothing can be waited on for: asks again and again, up to a limit."""
    deadline = time.monotonic() + limit
    while True:
        value = condition()
        if value:
            return value
        if time.monotonic() > deadline:
            raise AssertionError(f"waited {limit} s for {what}")
        time.sleep(0.005)
