"""kill -9 at random instants: what was acknowledged is there afterwards, and nothing is there by half.

The seed is printed, and TALVEK_SEED=<seed> plays the same choices again (the
instants differ, of course: they are the kernel's).
"""

import os
import random
import signal
import struct
import threading
import time
import unittest
from concurrent import futures

from support import images, nbd
from support.service import Service
from support.varlink import ConnectionLost, Failed

ROUNDS = 100
FAILURES_OF_THE_MOMENT = {0x15}  # wrongState: the random command did not fit


class RandomKill:
    """Kills the service after a random time, from a thread of its own."""

    def __init__(self, service, delay):
        self._timer = threading.Timer(delay, os.kill, (service.process.pid, signal.SIGKILL))
        self._service = service

    def __enter__(self):
        self._timer.start()

    def __exit__(self, *_):
        self._timer.join()
        self._service.kill()


class Seeded:
    def setUp(self):
        self.seed = int(os.environ.get("TALVEK_SEED", time.time_ns() % 1_000_000_007))
        print(f"TALVEK_SEED={self.seed}")
        self.random = random.Random(self.seed)
        self.service = Service(self)

    def context(self, number):
        return f"seed {self.seed}, round {number}: {self.service.log_text()[-2000:]}"


class ControlCommands(Seeded, unittest.TestCase):
    """Killed between and during commands. The model holds what was answered, `pending` what was only asked."""

    NODES = 12

    def setUp(self):
        super().setUp()
        for index in range(self.NODES):
            (self.service.images / f"{index}.img").write_bytes(bytes(4096))
        self.exports = {}  # id -> node, whether read-only, wanted state
        self.started = False
        self.identities = {}  # id -> name and UUID: they never change
        self.highest = 0

    def test_what_was_answered_is_there(self):
        answered = 0
        for number in range(ROUNDS):
            pending = None
            self.service.spawn()
            with RandomKill(self.service, self.random.uniform(0, 0.12)):
                if self.service.await_ready():
                    done, pending = self.command_until_killed()
                    answered += done
            self.service.start()
            self.check(pending, number)
            self.service.kill()
        self.assertGreater(answered, ROUNDS, "too few commands were answered for this test to mean anything")

    def command_until_killed(self):
        answered = 0
        pending = None
        try:
            with self.service.control() as control:
                while True:
                    change = self.choose()
                    pending = change
                    try:
                        result = self.perform(control, change)
                    except Failed as failure:
                        if failure.code not in FAILURES_OF_THE_MOMENT:
                            raise
                    else:
                        self.apply(change, result)
                        answered += 1
                    pending = None
        except (ConnectionLost, ConnectionRefusedError, FileNotFoundError):
            return answered, pending

    def choose(self):
        kind = self.random.choice(["add", "add", "enable", "enable", "disable", "force", "remove", "start", "stop"])
        taken = {node for node, _, _ in self.exports.values()}
        free = [index for index in range(self.NODES) if index not in taken]
        if kind == "add" and free:
            return ("add", self.random.choice(free), self.random.random() < 0.3)
        if kind in ("add", "start", "stop") or not self.exports:
            return ("start",) if kind != "stop" else ("stop",)
        return (kind, self.random.choice(sorted(self.exports)))

    def perform(self, control, change):
        match change:
            case ("add", index, read_only):
                node = str(self.service.images / f"{index}.img")
                flags = ["readOnly"] if read_only else []
                return control.ExportAdd(descriptor={"node": node, "flags": flags})["id"]
            case ("enable", number):
                return control.ExportEnable(id=number)
            case ("disable", number):
                return control.ExportDisable(id=number)
            case ("force", number):
                return control.ExportDisable(id=number, force=True)
            case ("remove", number):
                return control.ExportRemove(id=number)
            case ("start",):
                return control.ServerStart()
            case ("stop",):
                return control.ServerStop()

    def apply(self, change, result):
        self.exports, self.started = self.after(change, result)
        if change[0] == "add":
            self.assertGreater(result, self.highest, "an ID was given twice")
            self.highest = result

    def after(self, change, result):
        """The model as it is when `change` has been made."""
        exports, started = dict(self.exports), self.started
        match change:
            case ("add", index, read_only):
                exports[result] = (index, read_only, "added")
            case ("enable", number):
                exports[number] = (*exports[number][:2], "enabled")
            case ("disable" | "force", number):
                if exports[number][2] == "enabled":
                    exports[number] = (*exports[number][:2], "disabled")
            case ("remove", number):
                del exports[number]
            case ("start",):
                started = True
            case ("stop",):
                started = False
        return exports, started

    def check(self, pending, number):
        """The service has what was answered; what was only asked either wholly or not at all."""
        exports, started = self.observe()
        allowed = [(self.exports, self.started)]
        if pending is not None:
            new = sorted(set(exports) - set(self.exports))
            if pending[0] != "add":
                allowed.append(self.after(pending, None))
            elif len(new) == 1 and new[0] > self.highest:
                allowed.append(self.after(pending, new[0]))
        self.assertIn((exports, started), allowed, f"after {pending}, {self.context(number)}")
        self.exports, self.started = exports, started
        self.highest = max([self.highest, *exports])

    def observe(self):
        exports = {}
        with self.service.control() as control:
            for number in control.ExportList()["ids"]:
                info = control.ExportInfo(id=number)["info"]
                descriptor = info["descriptor"]
                index = int(os.path.basename(descriptor["node"]).removesuffix(".img"))
                exports[number] = (index, "readOnly" in descriptor.get("flags", []), info["state"])
                identity = (descriptor["name"], info["uuid"])
                self.assertEqual(self.identities.setdefault(number, identity), identity)
        return exports, "port" in self.service.properties()


class Writes(Seeded, unittest.TestCase):
    """Killed under writes of several connections. A block says which write it holds, so that afterwards each
    can be held against what was acknowledged."""

    BLOCK = 4096
    BLOCKS = 128  # of each connection
    CONNECTIONS = 4
    DEPTH = 8
    STAMP = struct.Struct("<QQ")

    def setUp(self):
        super().setUp()
        self.node = self.service.images / "disk.img"
        count = self.CONNECTIONS * self.BLOCKS
        self.node.write_bytes(b"".join(self.block(index, 0) for index in range(count)))
        self.submitted = [0] * count  # the newest version of each block that was sent
        self.acknowledged = [0] * count  # the newest version that a reply acknowledged
        self.durable = [0] * count  # the newest version that FUA or FLUSH made durable

    def block(self, index, version):
        return self.STAMP.pack(index, version) * (self.BLOCK // self.STAMP.size)

    def test_what_was_acknowledged_is_there(self):
        self.service.start().start_server()
        _, self.name = self.service.publish(self.node)
        self.service.kill()
        for number in range(ROUNDS):
            self.service.start()
            port = self.service.port
            seeds = [self.random.randrange(1 << 30) for _ in range(self.CONNECTIONS)]
            with futures.ThreadPoolExecutor() as pool, RandomKill(self.service, self.random.uniform(0, 0.1)):
                writers = [pool.submit(self.write, port, index, seed) for index, seed in enumerate(seeds)]
            for writer in writers:
                error = writer.exception()
                self.assertIsNone(error, f"{error!r} in {self.context(number)}")
            self.check(number)
        self.assertGreater(sum(self.durable), ROUNDS, "too little was written for this test to mean anything")

    def write(self, port, connection, seed):
        """One connection's writes until the service is gone. Never two at a time to one block."""
        choice = random.Random(seed)
        first = connection * self.BLOCKS
        busy = {}  # cookie -> blocks, version, whether FUA
        try:
            with nbd.Client(port, self.name) as client:
                while True:
                    while len(busy) < self.DEPTH:
                        self.submit_write(client, busy, first, choice)
                    while len(busy) > choice.randrange(self.DEPTH):
                        self.take_reply(client, busy)
                    if choice.random() < 0.2:
                        self.flush(client, busy, first)
        except (nbd.ConnectionEnded, ConnectionError):
            pass

    def submit_write(self, client, busy, first, choice):
        count = choice.choice([1, 1, 2, 8])
        start = first + choice.randrange(self.BLOCKS - count + 1)
        blocks = range(start, start + count)
        if any(block in others for others, _, _ in busy.values() for block in blocks):
            return
        version = max(self.submitted[block] for block in blocks) + 1
        for block in blocks:
            self.submitted[block] = version
        fua = nbd.FUA if choice.random() < 0.5 else 0
        data = b"".join(self.block(block, version) for block in blocks)
        cookie = client.submit(nbd.WRITE, start * self.BLOCK, data=data, flags=fua)
        busy[cookie] = (blocks, version, fua)

    def take_reply(self, client, busy):
        cookie, error, _ = client.receive()
        blocks, version, fua = busy.pop(cookie)
        assert error == 0, f"a write failed with {error}"
        for block in blocks:
            self.acknowledged[block] = version
            if fua:
                self.durable[block] = version

    def flush(self, client, busy, first):
        covered = self.acknowledged[first : first + self.BLOCKS]
        sent = client.submit(nbd.FLUSH)
        busy[sent] = ((), 0, 0)
        while sent in busy:
            self.take_reply(client, busy)
        for index, version in enumerate(covered, first):
            self.durable[index] = max(self.durable[index], version)

    def check(self, number):
        content = images.content(self.node)
        for index, (acknowledged, submitted) in enumerate(zip(self.acknowledged, self.submitted)):
            block = content[index * self.BLOCK : (index + 1) * self.BLOCK]
            stamped, version = self.STAMP.unpack_from(block)
            where = f"block {index}, {self.context(number)}"
            self.assertEqual(stamped, index, where)
            self.assertEqual(block, self.block(index, version), f"written by half: {where}")
            self.assertGreaterEqual(version, self.durable[index], f"durable and lost: {where}")
            self.assertGreaterEqual(version, acknowledged, f"acknowledged and lost: {where}")
            self.assertLessEqual(version, submitted, f"never written: {where}")
            self.acknowledged[index] = version


if __name__ == "__main__":
    unittest.main()
