"""A service that imports from servers that a test starts and ends."""

import hashlib
from pathlib import Path

from support import images, processes
from support.service import Service


def checksum(path):
    return hashlib.sha256(images.content(path)).hexdigest()


def fio(target, *more):
    """A command that writes all blocks of 8 MiB in any order, and then sees whether they are there. `target`: a file,
    or a URI."""
    is_uri = "://" in str(target)
    where = ["--ioengine=nbd", f"--uri={target}"] if is_uri else ["--ioengine=psync", f"--filename={target}"]
    return [
        processes.tool("fio"), "--name=verify", *where, "--rw=randwrite", "--bs=4k", "--size=8m", "--verify=crc32c", "--do_verify=1", "--verify_fatal=1", "--verify_state_save=0", *more,
    ]  # fmt: skip


class Importing:
    """A service that imports, and what is asked of it."""

    def setUp(self):
        self.service = Service(self).start()
        self.addCleanup(self.unmount)
        self.image = self.service.images / "remote.img"
        images.write_holes(self.image)

    def unmount(self):
        """What a killed service has left mounted would keep its directory."""
        self.service.end()
        for line in Path("/proc/self/mountinfo").read_text().splitlines():
            if (place := line.split()[4]).startswith(str(self.service.root)):
                processes.run([processes.tool("umount"), "-l", place])

    def add(self, remote, **more):
        server = {"address": "127.0.0.1", "port": remote.port}
        with self.service.control() as control:
            return control.ImportAdd(descriptor={"name": remote.name, "server": server, **more})["id"]

    def enable(self, number):
        with self.service.control() as control:
            control.ImportEnable(id=number)

    def disable(self, number, force=True):
        with self.service.control() as control:
            control.ImportDisable(id=number, force=force)

    def info(self, number):
        with self.service.control() as control:
            return control.ImportInfo(id=number)["info"]

    def nodes(self, number):
        with self.service.control() as control:
            entries = control.ImportListNodeInterfaces(id=number)["interfaces"]
        return {entry["name"]: {each["name"]: each.get("text", each.get("number")) for each in entry["nested"]}
                for entry in entries}

    def socket_uri(self, number):
        return f"nbd+unix:///?socket={self.nodes(number)['socket']['path']}"

    def file(self, number):
        node = self.nodes(number)["file"]
        self.assertEqual(node["state"], "active", node)
        return Path(node["path"])

    def imported(self, remote, **more):
        number = self.add(remote, **more)
        self.enable(number)
        return number

    def await_state(self, number, state):
        processes.wait_until(lambda: self.info(number)["state"] == state, f"state {state}")
