"""What FLUSH, FUA and the answers to commands promise: that it is on stable storage before they are sent.

A kill cannot show that, since the kernel keeps what a killed process wrote. Two things stand in for a power cut: a
loop device, whose backing file is the platter, and strace, which tells the order of the system calls.
"""

import re
import subprocess
import unittest

from support import images, nbd
from support.processes import die_with_parent, end, run, tool, wait_until
from support.service import Service

BLOCK = 4096


class Platter(unittest.TestCase):
    """The node is a loop device: what is in its backing file would survive a power cut, what is not would not."""

    def setUp(self):
        self.service = Service(self).start().start_server()
        self.backing = self.service.images / "platter"
        images.write_zeros(self.backing)
        device = images.loop_device(self, self.backing)
        _, self.name = self.service.publish(device)
        self.client = nbd.Client(self.service.port, self.name)
        self.addCleanup(self.service.stop)
        self.addCleanup(self.client.close)

    def on_platter(self, offset, data):
        return images.content(self.backing)[offset : offset + len(data)] == data

    def write(self, offset, flags=0):
        data = images.random_bytes(BLOCK, seed=offset)
        error, _ = self.client.request(nbd.WRITE, offset, data=data, flags=flags)
        self.assertEqual(error, 0)
        return data

    def test_fua_is_there_when_it_is_acknowledged(self):
        for offset in range(0, 64 * BLOCK, BLOCK):
            data = self.write(offset, nbd.FUA)
            self.assertTrue(self.on_platter(offset, data), f"FUA write at {offset}")

    def test_flush_covers_all_that_was_acknowledged_before(self):
        with nbd.Client(self.service.port, self.name) as other:
            for start in range(0, 256 * BLOCK, 16 * BLOCK):
                written = {offset: self.write(offset) for offset in range(start, start + 16 * BLOCK, BLOCK)}
                # CAN_MULTI_CONN: the flush of one connection covers the writes of all.
                self.assertEqual(other.request(nbd.FLUSH)[0], 0)
                for offset, data in written.items():
                    self.assertTrue(self.on_platter(offset, data), f"flushed write at {offset}")

    def test_zeroes_and_trim_with_fua(self):
        for command in (nbd.WRITE_ZEROES, nbd.TRIM):
            for offset in range(0, 16 * BLOCK, BLOCK):
                self.write(offset, nbd.FUA)
                error, _ = self.client.request(command, offset, length=BLOCK, flags=nbd.FUA)
                self.assertEqual(error, 0)
                if command == nbd.WRITE_ZEROES:
                    self.assertTrue(self.on_platter(offset, bytes(BLOCK)), f"zeroes at {offset}")

    def test_the_platter_tells_the_difference(self):
        """If plain writes were there at once too, the other tests would prove nothing."""
        written = {offset: self.write(offset) for offset in range(0, 64 * BLOCK, BLOCK)}
        missing = [offset for offset, data in written.items() if not self.on_platter(offset, data)]
        self.assertTrue(missing, "every plain write was on the platter at once")


class FailedSync(unittest.TestCase):
    """A sync that fails loses acknowledged bytes: every client is told, and the export turns failed.

    The node is a loop device whose backing file lies on a file system that is too small for it.
    """

    def setUp(self):
        self.service = Service(self).start().start_server()
        small = self.service.root / "small"
        small.mkdir()
        run([tool("mount"), "-t", "tmpfs", "-o", "size=1m", "none", small])
        self.addCleanup(run, [tool("umount"), "--lazy", small])
        backing = small / "disk"
        with open(backing, "wb") as file:
            file.truncate(16 * images.MIB)
        device = images.loop_device(self, backing)
        self.number, self.name = self.service.publish(device)
        self.addCleanup(self.service.stop)

    def fill(self, client):
        """More than the file system behind the device has room for; all of it goes to the page cache."""
        for offset in range(0, 4 * images.MIB, images.MIB):
            error, _ = client.request(nbd.WRITE, offset, data=images.random_bytes(images.MIB, seed=offset))
            self.assertEqual(error, 0)

    def failed(self):
        info = self.service.info(self.number)
        return info["state"] == "failed" and info.get("reason") == "accessError"

    def expect_failed(self):
        wait_until(self.failed, f"the export to fail, it is {self.service.info(self.number)}")
        listing = self.service.nbdctl("list")
        self.assertIn("state: failed", listing)
        self.assertIn("reason: access error", listing)

    def outcome(self, client):
        """The error of the next reply; "ended" if the session was ended instead."""
        try:
            return client.receive()[1]
        except nbd.ConnectionEnded:
            return "ended"

    def test_every_client_that_flushes_is_told(self):
        clients = [nbd.Client(self.service.port, self.name) for _ in range(4)]
        for client in clients:
            self.addCleanup(client.close)
        self.fill(clients[0])
        for client in clients:
            client.submit(nbd.FLUSH)
        outcomes = [self.outcome(client) for client in clients]
        self.assertIn(nbd.EIO, outcomes)
        self.assertLessEqual(set(outcomes), {nbd.EIO, "ended"}, "a flush was acknowledged")
        self.expect_failed()

    def test_fua_is_told(self):
        with nbd.Client(self.service.port, self.name) as client:
            self.fill(client)
            error, _ = client.request(nbd.WRITE, 8 * images.MIB, data=bytes([1]) * BLOCK, flags=nbd.FUA)
            self.assertEqual(error, nbd.EIO)
        self.expect_failed()

    def test_no_later_flush_succeeds(self):
        """The kernel tells of a lost write once. A second flush must not take that for success."""
        with nbd.Client(self.service.port, self.name) as client:
            self.fill(client)
            self.assertEqual(client.request(nbd.FLUSH)[0], nbd.EIO)
            try:
                client.submit(nbd.FLUSH)
            except nbd.ConnectionEnded:
                pass
            else:
                self.assertIn(self.outcome(client), (nbd.EIO, "ended"))
        self.expect_failed()
        with self.assertRaises(nbd.Refused):
            nbd.Client(self.service.port, self.name)


class Trace:
    """strace on a running nbdd: which calls ended before which began."""

    CALLS = "openat,pwrite64,fdatasync,fsync,rename,sendmsg,sendto,write,writev"

    def __init__(self, test, service):
        self._file = service.root / "trace"
        pid = str(service.process.pid)
        command = [tool("strace"), "-f", "-yy", "-s", "48", "-e", f"trace={self.CALLS}"]
        self._process = subprocess.Popen(
            [*command, "-o", self._file, "-p", pid],
            stderr=subprocess.PIPE,
            text=True,
            preexec_fn=die_with_parent,
        )
        test.addCleanup(end, self._process)
        test.addCleanup(self._process.stderr.close)
        first = self._process.stderr.readline()
        if "attached" not in first:
            raise AssertionError(f"strace cannot attach: {first}")

    def calls(self):
        """Ends the trace. (name, arguments, line on which it began, line on which it ended), by begin."""
        self._process.terminate()
        self._process.wait()
        calls, unfinished = [], {}
        for at, line in enumerate(self._file.read_text(errors="replace").splitlines()):
            thread, text = line.split(None, 1)
            if match := re.match(r"<\.\.\. (\w+) resumed>(.*)", text):
                began, name, begun = unfinished.pop(thread, (at, match[1], ""))
                calls.append((name, begun + match[2], began, at))
            elif match := re.match(r"(\w+)\((.*) <unfinished \.\.\.>$", text):
                unfinished[thread] = (at, match[1], match[2])
            elif match := re.match(r"(\w+)\((.*)", text):
                calls.append((match[1], match[2], at, at))
        return sorted(calls, key=lambda call: call[2])


class Order(unittest.TestCase):
    """System calls in the order in which they must be. (io_uring's are invisible to strace.)"""

    def setUp(self):
        self.service = Service(self, engine="threads").start().start_server()

    def test_sync_ends_before_the_reply_is_sent(self):
        node = self.service.images / "disk.img"
        images.write_random(node)
        _, name = self.service.publish(node)
        with nbd.Client(self.service.port, name) as client:
            trace = Trace(self, self.service)
            for index in range(10):
                data = images.random_bytes(BLOCK, seed=index)
                for words in (
                    {"command": nbd.WRITE, "data": data, "flags": nbd.FUA},
                    {"command": nbd.WRITE, "data": data},
                    {"command": nbd.FLUSH},
                ):
                    offset = 0 if words["command"] == nbd.FLUSH else index * BLOCK
                    self.assertEqual(client.request(offset=offset, **words)[0], 0)
            calls = trace.calls()
        steps = []
        last_end = -1
        for call, arguments, began, ended in calls:
            step = None
            if call == "pwrite64" and str(node) in arguments:
                step = "write"
            elif call == "fdatasync" and str(node) in arguments:
                step = "sync"
            elif call in ("sendmsg", "sendto", "write", "writev") and "TCP" in arguments.split(">")[0]:
                step = "reply"
            if step:
                self.assertGreater(began, last_end, f"{step} began before the step before it had ended")
                last_end = ended
                steps.append(step)
        self.assertEqual(steps, ["write", "sync", "reply", "write", "reply", "sync", "reply"] * 10)

    def test_state_is_on_the_disk_before_the_answer(self):
        node = self.service.images / "disk.img"
        images.write_zeros(node)
        with self.service.control() as control:
            trace = Trace(self, self.service)
            number = control.ExportAdd(descriptor={"node": str(node)})["id"]
            control.ExportEnable(id=number)
            control.ExportDisable(id=number)
            control.ExportRemove(id=number)
            control.ServerStop()
            control.ServerStart()
            calls = trace.calls()
        state = str(self.service.state)
        steps = []
        last_end = -1
        for call, arguments, began, ended in calls:
            step = None
            if call == "write" and f"<{state}/state.json.new>" in arguments:
                step = "write"
            elif call == "fsync":
                step = "sync directory" if f"<{state}>" in arguments else "sync file"
            elif call == "rename":
                step = "rename"
            elif call in ("sendmsg", "sendto", "write", "writev") and "UNIX" in arguments.split("]")[0]:
                step = "answer"
            if step:
                self.assertGreater(began, last_end, f"{step} began before the step before it had ended")
                last_end = ended
                steps.append(step)
        change = ["write", "sync file", "rename", "sync directory", "answer"]
        self.assertEqual(steps, change * 6)


if __name__ == "__main__":
    unittest.main()
