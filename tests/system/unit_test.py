"""The system's unit under systemd, and a user's service without privileges: in a virtual machine of their own."""

import os
import re
import shutil
import tempfile
import unittest
from pathlib import Path

from support import machine, processes

LIMIT_SECONDS = 850

TOOLS = ("fusermount3", "mkfs.ext4", "mount", "setpriv", "systemctl", "umount")

# What the machine starts with, of systemd's own units.
UNITS = (
    *("basic", "local-fs", "local-fs-pre", "multi-user", "network", "paths", "shutdown", "slices", "sockets", "swap"),
    *("sysinit", "timers", "umount"),
)

CHECKS = """[Unit]
Description=The checks
After=basic.target
Requires=basic.target

[Service]
Type=oneshot
ExecStart=/unit.sh
StandardOutput=tty
StandardError=tty
TTYPath=/dev/ttyS0
TimeoutStartSec=infinity
"""


def configured(source, **values):
    text = source.read_text()
    for name, value in values.items():
        text = text.replace(f"@{name}@", value)
    return text


class Unit(unittest.TestCase):
    def test_every_check_in_the_machine_passes(self):
        directory = Path(tempfile.mkdtemp(prefix="talvek-machine-"))
        self.addCleanup(shutil.rmtree, directory)
        image = machine.Image(directory)
        for name in ("nbdd", "nbdctl"):
            image.add_program(processes.program(name))
        for name in TOOLS:
            image.add_program(processes.tool(name), name)
        (image.root / "bin/fusermount3").chmod(0o4755)
        image.add_python(machine.GUEST / "disable_unused.py")
        image.add_busybox()
        self.add_systemd(image)
        kernel = machine.Kernel()
        image.add(kernel.module("loop"), "/modules/loop.ko")
        image.add_modules(kernel, "nbd", "fuse")
        image.add(machine.GUEST / "checks.sh", "/checks.sh")
        image.write("/unit.sh", (machine.GUEST / "unit.sh").read_text(), mode=0o755)
        log = Path(os.environ["TALVEK_BIN"]).parent / "unit.log"
        machine.check(self, image, machine.GUEST / "unit.sh", LIMIT_SECONDS, log)

    def add_systemd(self, image):
        image.add_program("/lib/systemd/systemd")
        os.symlink("/bin/systemd", image.root / "init")
        for unit in [f"{name}.target" for name in UNITS] + ["modprobe@.service"]:
            image.add(f"/lib/systemd/system/{unit}")
        source = Path(__file__).resolve().parents[2] / "packaging/systemd"
        for unit in ("nbdd.service", "nbdd.socket"):
            text = configured(source / f"{unit}.in", CMAKE_INSTALL_FULL_BINDIR="/bin")
            image.write(f"/lib/systemd/system/{unit}", text)
        image.write("/lib/systemd/system/checks.service", CHECKS)
        image.write("/lib/systemd/system/default.target", "[Unit]\nWants=checks.service\n")
        image.write("/etc/passwd", "root:x:0:0::/:/bin/sh\nnobody:x:65534:65534::/:/bin/sh\n")
        image.write("/etc/group", "root:x:0:\nnbd:x:100:\nnogroup:x:65534:\n")
        image.write("/etc/nbdd.toml", '[server]\nlisten = ["127.0.0.1"]\n')
        image.write("/etc/machine-id", "")


if __name__ == "__main__":
    unittest.main()
