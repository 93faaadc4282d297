"""What is published in the tests: files of every kind that matters, and a loop block device."""

import os
import random
import re
from pathlib import Path

from support import processes

MIB = 1024 * 1024
SIZE = 8 * MIB
ODD_SIZE = 5 * MIB + 4096 + 77


def random_bytes(length, seed=1):
    return random.Random(seed).randbytes(length)


def write_zeros(path):
    """All zero, all allocated."""
    path.write_bytes(bytes(SIZE))


def write_random(path):
    path.write_bytes(random_bytes(SIZE))


def write_holes(path):
    """Data and holes in turn, a hole at the end."""
    with open(path, "wb") as file:
        for start in range(0, SIZE, 2 * MIB):
            file.seek(start)
            file.write(random_bytes(MIB, seed=start))
        file.truncate(SIZE)


def write_odd(path):
    """A size that is a multiple of nothing."""
    path.write_bytes(random_bytes(ODD_SIZE))


def loop_device(test, backing):
    """A loop block device on the file `backing`, for as long as the test runs."""
    if os.environ.get("TALVEK_NO_LOOP") == "1":
        test.skipTest("TALVEK_NO_LOOP=1: no loop devices here")
    result = processes.run([processes.tool("losetup"), "--find", "--show", backing], check=False)
    device = result.out.strip()
    if result.status != 0 or not re.fullmatch(r"/dev/loop\d+", device):
        raise AssertionError(f"no loop device can be made (TALVEK_NO_LOOP=1 does without): {result}")
    test.addCleanup(processes.run, [processes.tool("losetup"), "--detach", device])
    return Path(device)


def content(path):
    return Path(path).read_bytes()


def first_difference(left, right):
    """Where two byte strings differ first, in words; empty if they do not."""
    if left == right:
        return ""
    if len(left) != len(right):
        return f"lengths differ: {len(left)} and {len(right)}"
    offset = next(at for at, pair in enumerate(zip(left, right)) if pair[0] != pair[1])
    return f"differs at {offset}: {left[offset:offset + 16].hex()} and {right[offset:offset + 16].hex()}"
