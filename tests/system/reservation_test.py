"""Reservations between hosts: who gets a server, who is kept out, and what becomes of it when somebody vanishes."""

import os
import subprocess
import sys
import unittest
from pathlib import Path

from support import certificates, images, processes, remotes
from support.hosts import Network
from support.reservations import (
    EXTENSION,
    NOT_RESERVED,
    RESERVATION_DISABLED,
    RESERVED_BY_OTHER,
    WRONG_PASSWORD,
    Recorder,
    Reservations,
    replay,
    replies,
)
from support.service import Service
from support.varlink import Failed

CONNECTION_REFUSED, EXTENSION_MISSING, INVALID_ARGUMENT = 0x51, 0x57, 0x10
GO, POLICY = 7, 0x80000002
PASSWORD = "open sesame"

# Writes one block after another, many at a time, for as long as the server lets it, and says how it ended.
WRITER = """
import sys
from support import nbd
client = nbd.Client(10809, sys.argv[2], host=sys.argv[1])
print("writing", flush=True)
sent = done = 0
try:
    while True:
        while sent - done < 32:
            client.submit(nbd.WRITE, offset=sent * 4096 % client.size, data=sys.argv[3].encode() * 4096)
            sent += 1
        _, error, _ = client.receive()
        assert error == 0, error
        done += 1
except nbd.ConnectionEnded:
    print("ended", flush=True)
"""

# Guesses on so many connections at a time, and says how often each answer came.
GUESSES = """
import collections, contextlib, sys, threading
from support.reservations import Guesser
answers = collections.Counter()
def guess():
    made = 0
    while made < int(sys.argv[3]):
        # A connection whose guesses wait for long is ended at last; whoever guesses comes again.
        with contextlib.closing(Guesser(sys.argv[1], 10809)) as guesser, contextlib.suppress(EOFError):
            while made < int(sys.argv[3]):
                answers[guesser.guess()] += 1
                made += 1
threads = [threading.Thread(target=guess) for _ in range(int(sys.argv[2]))]
for thread in threads: thread.start()
for thread in threads: thread.join()
print(dict(answers))
"""


def unmount(service):
    """What a killed service has left mounted would keep its directory."""
    service.end()
    for line in Path("/proc/self/mountinfo").read_text().splitlines():
        if (place := line.split()[4]).startswith(str(service.root)):
            processes.run([processes.tool("umount"), "-l", place])


class Host:
    """A host with a service."""

    def __init__(self, test, network, name, lease=None):
        self.host = network.host(name)
        self.service = Service(test, host=self.host)
        if lease is not None:
            self.service.configure((), 10809, f"[reservations]\nlease = {lease}\n")
        self.service.start()
        self.reservations = Reservations(self.service)
        self.address = self.host.address
        test.addCleanup(unmount, self.service)

    def script(self, text, *words):
        """A program of our own, with the tests' modules."""
        return self.host.spawn(
            [sys.executable, "-c", text, *words],
            env={**os.environ, "PYTHONPATH": str(Path(__file__).parent)},
            stdout=subprocess.PIPE,
            text=True,
        )

    def enable_import(self, server, name):
        with self.service.control() as control:
            number = control.ImportAdd(
                descriptor={"name": name, "server": {"address": server.address, "port": 0}, "flags": []}
            )["id"]
            control.ImportEnable(id=number)
        return number

    def import_state(self, number):
        with self.service.control() as control:
            return control.ImportInfo(id=number)["info"]["state"]

    def await_import(self, number, state):
        processes.wait_until(lambda: self.import_state(number) == state, f"an import that is {state}")

    def socket_uri(self, number):
        with self.service.control() as control:
            entries = control.ImportListNodeInterfaces(id=number)["interfaces"]
        node = {each["name"]: each for each in entries}["socket"]
        path = {each["name"]: each for each in node["nested"]}["path"]["text"]
        return f"nbd+unix:///?socket={path}"

    def await_log(self, text):
        processes.wait_until(lambda: text in self.service.log_text(), f'"{text}" in the log of {self.host.name}')


class Reserved(unittest.TestCase):
    """A server and two hosts that want it."""

    def setUp(self):
        self.network = Network(self)
        self.make_server()
        self.alice = Host(self, self.network, "alice")
        self.bob = Host(self, self.network, "bob")

    def make_server(self, lease=None):
        self.server = Host(self, self.network, "server", lease)
        self.server.service.start_server()
        self.image = self.server.service.images / "disk.img"
        images.write_random(self.image)
        _, self.name = self.server.service.publish(self.image)
        self.server.reservations.password(PASSWORD)

    def restart_server_with(self, lease):
        self.server.service.stop()
        self.server.service.configure((), 10809, f"[reservations]\nlease = {lease}\n")
        self.server.service.start()

    def assert_fails(self, code, function, *words, **named):
        with self.assertRaises(Failed) as caught:
            function(*words, **named)
        self.assertEqual(caught.exception.code, code, caught.exception)

    def reserve(self, host):
        host.reservations.reserve(self.server.address, PASSWORD)

    def stock_client(self, host):
        """What a client of another make gets to hear."""
        uri = f"nbd://{self.server.address}/{self.name}"
        return host.host.run([processes.tool("qemu-img"), "info", uri], check=False)

    def writer(self, host, letter):
        writer = host.script(WRITER, self.server.address, self.name, letter)
        self.addCleanup(writer.stdout.close)
        self.assertEqual(writer.stdout.readline(), "writing\n")
        return writer

    def test_the_holder_has_the_server_for_itself(self):
        self.assertEqual(self.stock_client(self.bob).status, 0)
        other = self.bob.enable_import(self.server, self.name)
        self.bob.await_import(other, "connected")
        self.reserve(self.alice)
        self.assertEqual(self.server.reservations.holder(), self.alice.address)
        self.assertEqual(self.alice.reservations.held(), [self.server.address])
        self.assertEqual(self.bob.reservations.held(), [])

        number = self.alice.enable_import(self.server, self.name)
        copy = self.alice.service.root / "copy"
        self.alice.await_import(number, "connected")
        processes.run([processes.tool("nbdcopy"), self.alice.socket_uri(number), copy])
        self.assertEqual(images.first_difference(copy.read_bytes(), self.image.read_bytes()), "")

        refused = self.stock_client(self.bob)
        self.assertNotEqual(refused.status, 0)
        self.assertIn("reserved by another host", refused.err)
        # A client of the holder's own host that is no import of its service is somebody else too.
        self.assertNotEqual(self.stock_client(self.alice).status, 0)
        self.bob.await_import(other, "connecting")
        self.assert_fails(RESERVED_BY_OTHER, self.bob.reservations.reserve, self.server.address, PASSWORD)

        self.alice.reservations.unreserve(self.server.address)
        self.assertEqual(self.alice.reservations.held(), [])
        self.assert_fails(NOT_RESERVED, self.server.reservations.holder)
        self.bob.await_import(other, "connected")
        self.alice.await_import(number, "connected")
        self.assertEqual(self.stock_client(self.bob).status, 0)

    def test_each_failure_has_its_code(self):
        bob = self.bob.reservations
        self.assert_fails(NOT_RESERVED, self.server.reservations.holder)
        self.assert_fails(WRONG_PASSWORD, bob.reserve, self.server.address, "guess")
        self.assert_fails(NOT_RESERVED, bob.unreserve, self.server.address)
        self.assert_fails(CONNECTION_REFUSED, bob.reserve, self.server.address, PASSWORD, port=1)
        self.assert_fails(INVALID_ARGUMENT, bob.reserve, "nowhere", PASSWORD)
        self.assert_fails(INVALID_ARGUMENT, self.server.reservations.password, "")
        self.reserve(self.alice)
        self.assert_fails(RESERVED_BY_OTHER, bob.reserve, self.server.address, PASSWORD)
        self.assert_fails(WRONG_PASSWORD, bob.reserve, self.server.address, "guess")
        self.server.reservations.password()
        self.assert_fails(RESERVATION_DISABLED, bob.reserve, self.server.address, PASSWORD)
        self.assert_fails(NOT_RESERVED, self.alice.reservations.unreserve, self.server.address)
        self.assertEqual(self.alice.reservations.held(), [], "it was found lost")

    def test_a_server_of_another_make_cannot_be_reserved(self):
        remote = remotes.Nbdkit(self, self.image)
        service = Service(self).start()
        remote.start()
        self.assert_fails(EXTENSION_MISSING, Reservations(service).reserve, "127.0.0.1", PASSWORD, port=remote.port)

    def test_clients_that_were_there_are_ended_and_nothing_of_them_lands(self):
        writers = [self.writer(self.bob, "b"), self.writer(self.alice, "a")]
        self.reserve(self.alice)
        granted = self.image.read_bytes()
        for writer in writers:
            self.assertEqual(writer.stdout.readline(), "ended\n")
            self.assertEqual(writer.wait(processes.LIMIT_SECONDS), 0)
        self.assertEqual(images.first_difference(self.image.read_bytes(), granted), "")

    def test_another_takes_over_from_a_holder_that_writes(self):
        self.reserve(self.alice)
        number = self.alice.enable_import(self.server, self.name)
        self.alice.await_import(number, "connected")
        source = self.alice.service.root / "source"
        source.write_bytes(b"a" * images.SIZE)
        copying = self.alice.host.spawn(
            ["sh", "-c", f'while "{processes.tool("nbdcopy")}" "{source}" "$0"; do :; done',
             self.alice.socket_uri(number)],
            stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
        )
        processes.wait_until(lambda: self.image.read_bytes()[:4096] == b"a" * 4096, "the holder's writes")
        self.server.reservations.password()
        self.server.reservations.password("another")
        self.bob.reservations.reserve(self.server.address, "another")
        granted = self.image.read_bytes()
        self.assertEqual(self.server.reservations.holder(), self.bob.address)
        self.alice.await_log("is lost")
        self.alice.await_import(number, "connecting")
        self.assertEqual(images.first_difference(self.image.read_bytes(), granted), "")
        mine = self.bob.enable_import(self.server, self.name)
        self.bob.await_import(mine, "connected")
        new = self.bob.service.root / "new"
        new.write_bytes(b"b" * images.SIZE)
        processes.run([processes.tool("nbdcopy"), "--flush", new, self.bob.socket_uri(mine)])
        self.assertIsNone(copying.poll(), "the old holder still tries")
        self.assertEqual(self.image.read_bytes(), new.read_bytes())
        self.assertEqual(self.alice.import_state(number), "connecting")

    def test_a_holder_that_was_silent_comes_too_late(self):
        self.restart_server_with(lease=2)
        self.reserve(self.alice)
        number = self.alice.enable_import(self.server, self.name)
        self.alice.await_import(number, "connected")
        source = self.alice.service.root / "source"
        source.write_bytes(b"a" * images.SIZE)
        self.alice.host.spawn(
            ["sh", "-c", f'while "{processes.tool("nbdcopy")}" "{source}" "$0"; do :; done',
             self.alice.socket_uri(number)],
            stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
        )
        processes.wait_until(lambda: self.image.read_bytes()[:4096] == b"a" * 4096, "the holder's writes")
        self.alice.host.plugs[0].pull()
        self.server.await_log("was not heard of")
        self.reserve(self.bob)
        granted = self.image.read_bytes()
        self.alice.host.plugs[0].push()
        self.alice.await_log("is lost")
        self.alice.await_import(number, "connecting")
        self.assertEqual(self.alice.reservations.held(), [])
        self.assertEqual(self.server.reservations.holder(), self.bob.address)
        self.assertEqual(images.first_difference(self.image.read_bytes(), granted), "")

    def test_a_crashed_holder_goes_on(self):
        self.reserve(self.alice)
        number = self.alice.enable_import(self.server, self.name)
        self.alice.await_import(number, "connected")
        self.alice.service.kill()
        self.assertEqual(self.server.reservations.holder(), self.alice.address)
        self.assert_fails(RESERVED_BY_OTHER, self.bob.reservations.reserve, self.server.address, PASSWORD)
        unmount(self.alice.service)
        self.alice.service.start()
        self.assertEqual(self.alice.reservations.held(), [self.server.address])
        self.alice.await_import(number, "connected")
        self.reserve(self.alice)

    def test_a_crashed_server_is_still_reserved(self):
        self.reserve(self.alice)
        number = self.alice.enable_import(self.server, self.name)
        self.alice.await_import(number, "connected")
        self.server.service.kill()
        self.server.service.start()
        self.assertEqual(self.server.reservations.holder(), self.alice.address)
        self.assertIn("reserved by another host", self.stock_client(self.bob).err)
        self.alice.await_import(number, "connected")
        self.assertEqual(self.alice.reservations.held(), [self.server.address])

    def test_a_holder_that_is_gone_for_good_loses_the_server(self):
        self.restart_server_with(lease=2)
        self.reserve(self.alice)
        self.alice.service.kill()
        self.server.await_log("was not heard of")
        self.assert_fails(NOT_RESERVED, self.server.reservations.holder)
        self.assertEqual(self.stock_client(self.bob).status, 0)
        self.reserve(self.bob)
        self.alice.service.start()
        self.alice.await_log("is lost")
        self.assertEqual(self.alice.reservations.held(), [])
        self.assertEqual(self.server.reservations.holder(), self.bob.address)

    def test_a_holder_that_lives_keeps_a_short_lease(self):
        self.restart_server_with(lease=1)
        self.reserve(self.alice)
        with self.server.service.control() as control:

            def left():
                return control.ServerGetReservation()["reservation"]["properties"][1]["number"]

            # The time runs down and is set back by each renewal: several times, and never to its end.
            for _ in range(3):
                processes.wait_until(lambda: left() == 0, "a part of the lease to pass")
                self.assertEqual(self.server.reservations.holder(), self.alice.address)
        self.assertNotIn("was not heard of", self.server.service.log_text())

    def test_wrong_passwords_by_the_thousand(self):
        mallory = self.network.host("mallory")
        self.reserve(self.alice)
        guessing = mallory.spawn(
            [sys.executable, "-c", GUESSES, self.server.address, "250", "4"],
            env={**os.environ, "PYTHONPATH": str(Path(__file__).parent)}, stdout=subprocess.PIPE, text=True,
        )
        self.addCleanup(guessing.stdout.close)
        self.server.await_log("wants to reserve the server with a wrong password")
        # Others do not have to wait for it: neither the holder nor one that knows the password.
        number = self.alice.enable_import(self.server, self.name)
        self.alice.await_import(number, "connected")
        self.alice.reservations.unreserve(self.server.address)
        self.reserve(self.bob)
        answers = eval(guessing.stdout.readline())  # a dictionary of numbers, from our own program
        self.assertEqual(sum(answers.values()), 1000, answers)
        self.assertEqual(set(answers), {2, 5}, "wrong passwords and too many attempts, nothing else")
        self.assertLess(answers[2], 50, "hardly any of them was looked at")
        self.assertEqual(self.server.reservations.holder(), self.bob.address)


class Replayed(unittest.TestCase):
    """Somebody has overheard a host, and says the same to the server."""

    def setUp(self):
        self.server = Service(self, listen=("127.0.0.1",)).start().start_server()
        self.image = self.server.images / "disk.img"
        images.write_random(self.image)
        _, self.name = self.server.publish(self.image)
        self.holder = Service(self).start()
        self.addCleanup(unmount, self.holder)
        self.reservations = Reservations(self.holder)
        Reservations(self.server).password(PASSWORD)
        self.recorder = Recorder(self, self.server.port)

    def holds(self):
        try:
            return Reservations(self.server).holder()
        except Failed as failed:
            self.assertEqual(failed.code, NOT_RESERVED)
            return None

    def replay_all(self):
        """Every answer of the extension and to GO, of all recorded connections again."""
        found = []
        for said in list(self.recorder.said):
            found += replies(replay(self.server.port, bytes(said)))
        return found

    def test_a_reservation_cannot_be_made_again(self):
        self.reservations.reserve("127.0.0.1", PASSWORD, port=self.recorder.port)
        self.assertEqual(self.holds(), "127.0.0.1")
        Reservations(self.server).password()
        Reservations(self.server).password(PASSWORD)
        self.assertIsNone(self.holds())
        answers = self.replay_all()
        self.assertTrue([data for option, kind, data in answers if option == kind == EXTENSION], "it was listened to")
        self.assertIsNone(self.holds())

    def test_nor_can_it_be_ended_or_used(self):
        self.reservations.reserve("127.0.0.1", PASSWORD, port=self.recorder.port)
        with self.holder.control() as control:
            number = control.ImportAdd(
                descriptor={"name": self.name, "server": {"address": "127.0.0.1", "port": self.recorder.port},
                            "flags": []}
            )["id"]
            control.ImportEnable(id=number)
            processes.wait_until(
                lambda: control.ImportInfo(id=number)["info"]["state"] == "connected", "the holder's import"
            )
        before = self.image.read_bytes()
        self.reservations.unreserve("127.0.0.1", port=self.recorder.port)
        self.assertIsNone(self.holds())
        self.reservations.reserve("127.0.0.1", PASSWORD, port=self.recorder.port)
        answers = self.replay_all()
        self.assertEqual(self.holds(), "127.0.0.1")
        went = [kind for option, kind, _ in answers if option == GO]
        self.assertTrue(went, "an import's connection is among the recorded ones")
        self.assertEqual(set(went), {POLICY}, "and is not let in again")
        self.assertEqual(self.image.read_bytes(), before)


class Secured(unittest.TestCase):
    """A server that demands TLS: what proves a lease is bound to the connection that it goes over."""

    def setUp(self):
        self.server = Service(self)
        keys = self.server.root / "keys.psk"
        certificates.make_key(keys, "alice")
        self.server.configure(("127.0.0.1",), 0, f'[tls]\nmode = "required"\nkeys = "{keys}"\n')
        self.server.start().start_server()
        image = self.server.images / "disk.img"
        images.write_random(image)
        _, self.name = self.server.publish(image)
        self.holder = Service(self)
        self.holder.configure((), 0, f'[tls.imports]\nmode = "required"\nkeys = "{keys}"\nuser = "alice"\n')
        self.holder.start()
        self.addCleanup(unmount, self.holder)
        Reservations(self.server).password(PASSWORD)

    def test_the_holder_reserves_uses_and_gives_back(self):
        mine = Reservations(self.holder)
        with self.assertRaises(Failed) as caught:
            mine.reserve("127.0.0.1", "guess", port=self.server.port)
        self.assertEqual(caught.exception.code, WRONG_PASSWORD)
        mine.reserve("127.0.0.1", PASSWORD, port=self.server.port)
        self.assertEqual(Reservations(self.server).holder(), "127.0.0.1")
        with self.holder.control() as control:
            number = control.ImportAdd(
                descriptor={"name": self.name, "server": {"address": "127.0.0.1", "port": self.server.port}, "flags": []}
            )["id"]
            control.ImportEnable(id=number)
            processes.wait_until(
                lambda: control.ImportInfo(id=number)["info"]["state"] == "connected", "the holder's import"
            )
        mine.unreserve("127.0.0.1", port=self.server.port)
        self.assertEqual(mine.held(), [])
        with self.assertRaises(Failed) as caught:
            Reservations(self.server).holder()
        self.assertEqual(caught.exception.code, NOT_RESERVED)


if __name__ == "__main__":
    unittest.main()
