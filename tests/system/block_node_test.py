"""The node "block" with a real kernel: in a virtual machine, since the host may have no nbd driver."""

import os
import shutil
import tempfile
import unittest
from pathlib import Path

from support import machine, processes

# Emulated on a machine that is busy with other things.
LIMIT_SECONDS = 850

TOOLS = ("blkdiscard", "e2fsck", "fio", "fstrim", "mkfs.ext4", "mount", "nbd-client", "umount")


class BlockNode(unittest.TestCase):
    def test_every_check_in_the_machine_passes(self):
        directory = Path(tempfile.mkdtemp(prefix="talvek-machine-"))
        self.addCleanup(shutil.rmtree, directory)
        image = machine.Image(directory)
        for name in ("nbdd", "nbdctl"):
            image.add_program(processes.program(name))
        for name in TOOLS:
            image.add_program(processes.tool(name), name)
        image.add_python(machine.GUEST / "disable_unused.py")
        image.add_busybox()
        image.add(machine.Kernel().module("nbd"), "/modules/nbd.ko")
        image.add(machine.GUEST / "checks.sh", "/checks.sh")
        image.write("/init", (machine.GUEST / "block.sh").read_text(), mode=0o755)
        log = Path(os.environ["TALVEK_BIN"]).parent / "block_node.log"
        machine.check(self, image, machine.GUEST / "block.sh", LIMIT_SECONDS, log)


if __name__ == "__main__":
    unittest.main()
