"""Compressed transfers between two services: what arrives, what is counted, switching, and hostile blocks."""

import contextlib
import hashlib
import random
import socket
import struct
import subprocess
import tempfile
import threading
import unittest
from pathlib import Path

from support import extension, images, processes, remotes
from support.nbd import EINVAL
from support.scripted import ACK, EXTENSION, UNSUPPORTED, Peer, hello, message, options, receive, reply
from support.service import Service

MIB = 1024 * 1024


def log_text(length):
    """Lines as a server logs them."""
    generator = random.Random(7)
    lines = []
    size = 0
    while size < length:
        lines.append(
            b"2026-11-21T18:%02d:%02d host nbdd[%d]: export %d: client 192.0.2.%d port %d uses it\n"
            % (len(lines) // 60 % 60, len(lines) % 60, generator.randrange(9000), generator.randrange(20),
               generator.randrange(255), generator.randrange(65536))
        )
        size += len(lines[-1])
    return b"".join(lines)[:length]


def counters(service, number=1):
    with service.control() as control:
        return control.ExportGetStatistics(id=number)["statistics"]


class Wire:
    """Passes on connections to a server, and counts the bytes in each direction."""

    def __init__(self, test, port):
        self._target = port
        self._listener = socket.create_server(("127.0.0.1", 0))
        self.port = self._listener.getsockname()[1]
        self.to_server = self.to_client = 0
        self._lock = threading.Lock()
        self._sockets = [self._listener]
        threading.Thread(target=self._accept, daemon=True).start()
        test.addCleanup(self._end)

    def _accept(self):
        while True:
            try:
                client, _ = self._listener.accept()
            except OSError:
                return
            server = socket.create_connection(("127.0.0.1", self._target))
            self._sockets += client, server
            for source, sink, name in ((client, server, "to_server"), (server, client, "to_client")):
                threading.Thread(target=self._pass, args=(source, sink, name), daemon=True).start()

    def _end(self):
        for each in self._sockets:
            with contextlib.suppress(OSError):
                each.shutdown(socket.SHUT_RDWR)
            each.close()

    def _pass(self, source, sink, name):
        try:
            while data := source.recv(1 << 18):
                with self._lock:
                    setattr(self, name, getattr(self, name) + len(data))
                sink.sendall(data)
            sink.shutdown(socket.SHUT_WR)
        except OSError:
            pass


class Importing:
    """A server with one export, and a service that imports it."""

    content = b""

    def setUp(self):
        self.service = Service(self).start()
        self.addCleanup(self.unmount)
        self.image = self.service.images / "remote.img"
        self.image.write_bytes(self.content)
        self.remote = remotes.Nbdd(self, self.image).start()

    def unmount(self):
        self.service.end()
        for line in Path("/proc/self/mountinfo").read_text().splitlines():
            if (place := line.split()[4]).startswith(str(self.service.root)):
                processes.run([processes.tool("umount"), "-l", place])

    def compress(self, enable):
        with self.service.control() as control:
            control.ImportEnableTransferCompression(enable=enable)

    def imported(self, port=None):
        """The address of the import's socket."""
        server = {"address": "127.0.0.1", "port": port or self.remote.port}
        with self.service.control() as control:
            number = control.ImportAdd(descriptor={"name": self.remote.name, "server": server})["id"]
            control.ImportEnable(id=number)
            entries = control.ImportListNodeInterfaces(id=number)["interfaces"]
        nodes = {entry["name"]: {each["name"]: each.get("text") for each in entry["nested"]} for entry in entries}
        self.nodes = nodes
        return f"nbd+unix:///?socket={nodes['socket']['path']}"

    def read(self, uri):
        copy = self.service.root / "copy"
        processes.run([processes.tool("nbdcopy"), uri, str(copy)])
        return copy.read_bytes()

    def write(self, uri, data):
        source = self.service.root / "source"
        source.write_bytes(data)
        processes.run([processes.tool("nbdcopy"), "--flush", str(source), uri])

    def counters(self):
        return counters(self.remote.service)


class Text(Importing, unittest.TestCase):
    """Data that shrink."""

    content = log_text(8 * MIB)

    def test_what_is_read_arrives_and_is_shorter_on_the_wire(self):
        wire = Wire(self, self.remote.port)
        self.compress(True)
        uri = self.imported(wire.port)
        before = wire.to_client
        self.assertEqual(images.first_difference(self.read(uri), self.content), "")
        sent = self.counters()["tx"]
        self.assertGreater(sent["numTransCompressed"], 0)
        self.assertGreaterEqual(sent["bytesTransTotal"], len(self.content))
        self.assertLess(sent["bytesTransTransferred"], sent["bytesTransTotal"] / 2)
        # On the wire there is nothing but these bytes and a header of at most 64 bytes for each transfer.
        passed = wire.to_client - before
        self.assertGreaterEqual(passed, sent["bytesTransTransferred"])
        self.assertLessEqual(passed, sent["bytesTransTransferred"] + 64 * sent["numTransTotal"] + 4096)

    def test_what_is_written_arrives_and_is_shorter_on_the_wire(self):
        wire = Wire(self, self.remote.port)
        self.compress(True)
        uri = self.imported(wire.port)
        before = wire.to_server
        data = log_text(8 * MIB)[::-1]
        self.write(uri, data)
        self.assertEqual(images.first_difference(self.image.read_bytes(), data), "")
        received = self.counters()["rx"]
        self.assertGreater(received["numTransCompressed"], 0)
        self.assertEqual(received["bytesTransTotal"], len(data))
        self.assertLess(received["bytesTransTransferred"], len(data) / 2)
        passed = wire.to_server - before
        self.assertGreaterEqual(passed, received["bytesTransTransferred"])
        # Requests in both directions have a header; so have those for block status and flush.
        requests = received["numTransTotal"] + self.counters()["tx"]["numTransTotal"]
        self.assertLessEqual(passed, received["bytesTransTransferred"] + 64 * requests + 8192)

    def test_it_is_off_unless_it_is_switched_on(self):
        uri = self.imported()
        self.assertEqual(self.read(uri), self.content)
        sent = self.counters()["tx"]
        self.assertEqual(sent["numTransCompressed"], 0)
        self.assertEqual(sent["bytesTransTransferred"], sent["bytesTransTotal"])

    def test_it_is_switched_at_once_for_imports_that_run(self):
        uri = self.imported()
        for enable in (True, False, True):
            before = self.counters()["tx"]["numTransCompressed"]
            self.compress(enable)
            self.assertEqual(hashlib.sha256(self.read(uri)).digest(), hashlib.sha256(self.content).digest())
            compressed = self.counters()["tx"]["numTransCompressed"] - before
            if enable:
                self.assertGreater(compressed, 0)
                # The connections of before have ended; whoever reads now reads compressed.
                self.compress(enable)
            else:
                # What was on its way when it was switched may still have been compressed; nothing was.
                self.assertEqual(compressed, 0)

    def test_it_survives_a_restart(self):
        self.compress(True)
        self.service.kill()
        self.service.start()
        self.assertEqual(self.read(self.imported()), self.content)
        self.assertGreater(self.counters()["tx"]["numTransCompressed"], 0)
        self.compress(False)
        self.service.stop()
        self.service.start()
        before = self.counters()["tx"]["numTransCompressed"]
        self.assertEqual(self.read(self.imported()), self.content)
        self.assertEqual(self.counters()["tx"]["numTransCompressed"], before)

    def test_a_stock_server_is_used_as_before(self):
        self.compress(True)
        for kind in (remotes.Nbdkit, remotes.QemuNbd, remotes.NbdServer):
            with self.subTest(server=kind.__name__):
                stock = kind(self, self.image).start()
                with self.service.control() as control:
                    number = control.ImportAdd(
                        descriptor={"name": stock.name, "server": {"address": "127.0.0.1", "port": stock.port}}
                    )["id"]
                    control.ImportEnable(id=number)
                    entries = control.ImportListNodeInterfaces(id=number)["interfaces"]
                paths = {entry["name"]: {each["name"]: each.get("text") for each in entry["nested"]}
                         for entry in entries}
                copied = self.read(f"nbd+unix:///?socket={paths['socket']['path']}")
                self.assertEqual(images.first_difference(copied, self.content), "")

    def test_the_server_says_that_it_can(self):
        with self.service.control() as control:
            self.assertIn("transferCompression", control.ServerCapabilities()["capabilities"])
        self.assertIn("transfer compression", self.service.nbdctl("caps"))


class Noise(Importing, unittest.TestCase):
    """Data that do not shrink go as they are."""

    content = images.random_bytes(8 * MIB)

    def test_nothing_is_compressed(self):
        self.compress(True)
        uri = self.imported()
        self.assertEqual(images.first_difference(self.read(uri), self.content), "")
        data = images.random_bytes(8 * MIB, seed=2)
        self.write(uri, data)
        self.assertEqual(images.first_difference(self.image.read_bytes(), data), "")
        for direction in self.counters().values():
            self.assertEqual(direction["numTransCompressed"], 0)
            self.assertEqual(direction["bytesTransTransferred"], direction["bytesTransTotal"])


class Verified(Importing, unittest.TestCase):
    """fio checks what it wrote, while compression is switched on and off."""

    content = bytes(64 * MIB)

    def verify(self, engine, target):
        words = [
            processes.tool("fio"), "--name=verify", f"--ioengine={engine}", *target, "--rw=randrw", "--bsrange=4k-256k",
            "--size=64m", "--io_size=256m", "--iodepth=16", "--verify=crc32c", "--verify_backlog=64", "--do_verify=1",
            "--buffer_compress_percentage=60", "--refill_buffers=1", "--randseed=5", "--verify_fatal=1",
            "--output-format=terse",
        ]
        fio = subprocess.Popen(words, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
                               cwd=self.service.root, preexec_fn=processes.die_with_parent)
        self.addCleanup(processes.end, fio)
        switches = 0
        while fio.poll() is None:
            self.compress(switches % 2 == 0)
            switches += 1
            # As long as it takes for something to be transferred in between.
            before = self.counters()
            processes.wait_until(lambda: fio.poll() is not None or self.counters() != before, "a transfer")
        out = fio.communicate()[0]
        self.assertEqual(fio.returncode, 0, out)
        self.assertGreater(switches, 2)
        statistics = self.counters()
        self.assertGreater(statistics["rx"]["numTransCompressed"], 0)
        self.assertLess(statistics["rx"]["numTransCompressed"], statistics["rx"]["numTransTotal"])
        self.assertLess(statistics["rx"]["bytesTransTransferred"], statistics["rx"]["bytesTransTotal"])

    def test_through_the_socket(self):
        self.verify("nbd", [f"--uri={self.imported()}"])

    def test_through_the_file(self):
        self.imported()
        self.verify("psync", [f"--filename={self.nodes['file']['path']}"])


class Client(unittest.TestCase):
    """A client of our own, good and bad, in front of the server."""

    def setUp(self):
        self.service = Service(self, listen=("127.0.0.1",)).start().start_server()
        self.image = self.directory() / "disk.img"
        self.text = log_text(MIB)
        self.content = self.text + images.random_bytes(MIB) + bytes(MIB) + self.text[::-1]
        self.image.write_bytes(self.content)
        self.number, self.name = self.service.publish(self.image)

    def directory(self):
        return self.service.images

    def connect(self, **more):
        client = extension.Client(self.service.port, self.name, **more)
        self.addCleanup(client.close)
        return client

    def test_several_writes_at_a_time(self):
        client = self.connect()
        length = 3 * extension.BLOCK
        places = range(0, 8 * length, length)
        pieces = [self.text[5000 * index :][:length] for index in range(len(places))]
        for place, piece in zip(places, pieces):
            payload = extension.blocks(piece)
            client.request(extension.WRITE, place, length, extension.FLAG_COMPRESSED)
            client.send(struct.pack(">I", len(payload)) + payload)
        self.assertEqual(client.errors(len(places)), [0] * len(places))
        self.assertEqual(self.image.read_bytes()[: 8 * length], b"".join(pieces))

    def test_the_counters_are_the_bytes_on_the_wire(self):
        client = self.connect()
        generator = random.Random(3)
        read = on_wire = 0
        for _ in range(200):
            length = generator.choice((1, 512, 2048, 4096, 65536, 300_000))
            offset = generator.randrange(len(self.content) - length)
            data, size = client.read(offset, length)
            self.assertEqual(data, self.content[offset : offset + length])
            read += length
            on_wire += size
        sent = counters(self.service)["tx"]
        self.assertEqual((sent["numTransTotal"], sent["bytesTransTotal"]), (200, read))
        self.assertEqual(sent["bytesTransTransferred"], on_wire)
        self.assertGreater(sent["numTransCompressed"], 0)
        self.assertLess(sent["numTransCompressed"], 200)

        written = on_wire = 0
        for length in (5000, 65536, 131072, 131073, 700_000):
            payload = extension.blocks(self.text[:length])
            self.assertEqual(client.write_compressed(4096, length, payload), 0)
            self.assertEqual(client.read(4096, length)[0], self.text[:length])
            written += length
            on_wire += len(payload)
        self.assertEqual(client.write(0, self.text[:1000]), 0)
        received = counters(self.service)["rx"]
        self.assertEqual(received["numTransTotal"], 6)
        self.assertEqual(received["numTransCompressed"], 5)
        self.assertEqual(received["bytesTransTotal"], written + 1000)
        self.assertEqual(received["bytesTransTransferred"], on_wire + 1000)

    def test_plain_blocks_among_compressed_ones(self):
        client = self.connect()
        noise = images.random_bytes(extension.BLOCK, seed=9)
        payload = extension.framed(noise, plain=True) + extension.blocks(self.text[: extension.BLOCK])
        self.assertEqual(client.write_compressed(0, 2 * extension.BLOCK, payload), 0)
        self.assertEqual(client.read(0, 2 * extension.BLOCK)[0], noise + self.text[: extension.BLOCK])

    def test_damaged_blocks_are_refused_and_nothing_is_written(self):
        client = self.connect()
        good = extension.zstd(self.text[:4096])
        bad = {
            "garbage": extension.framed(b"\x28\xb5\x2f\xfd" + images.random_bytes(100)),
            "a bomb": extension.framed(extension.zstd(bytes(64 * MIB))),
            "too few bytes": extension.framed(extension.zstd(self.text[:4095])),
            "one too many": extension.framed(extension.zstd(self.text[:4097])),
            "a head that lies": extension.framed(good, length=len(good) + 1),
            "a head without bounds": extension.framed(good, length=(1 << 31) - 1),
            "an empty block": extension.framed(b"") + b"xyz",
            "two blocks": extension.framed(good) * 2,
            "a plain block that is cut": extension.framed(self.text[:1000], plain=True),
            "a cut block": extension.framed(good[:-5]),
        }
        before = self.image.read_bytes()
        for name, payload in bad.items():
            with self.subTest(blocks=name):
                self.assertEqual(client.write_compressed(0, 4096, payload), EINVAL)
                self.assertEqual(client.read(0, 4096)[0], before[:4096])
        self.assertEqual(self.image.read_bytes(), before)
        # Large ones likewise, which are expanded elsewhere.
        payload = extension.blocks(self.text[: 4 * extension.BLOCK])
        self.assertEqual(client.write_compressed(0, 4 * extension.BLOCK, payload[:-1] + b"\0"), EINVAL)
        self.assertEqual(client.write_compressed(0, 8 * extension.BLOCK, payload), EINVAL)
        self.assertEqual(client.write_compressed(0, 4 * extension.BLOCK, payload), 0)

    def test_lengths_that_make_no_sense_end_the_connection(self):
        for length, payload in ((4096, b"x" * 4), (4096, b"x" * 4096), (100, b"x" * 101), (0, b"x" * 5)):
            client = self.connect()
            with self.subTest(length=length), self.assertRaises((extension.Ended, ConnectionError)):
                client.write_compressed(0, length, payload)

    def test_a_refused_write_is_read_past(self):
        client = self.connect()
        payload = extension.blocks(self.text[:4096])
        self.assertNotEqual(client.write_compressed(len(self.content), 4096, payload), 0)
        self.assertEqual(client.write_compressed(0, 4096, payload), 0)
        self.assertEqual(client.read(0, 4096)[0], self.text[:4096])

    def test_a_client_that_leaves_in_the_middle(self):
        before = self.image.read_bytes()
        for length, sent in ((4096, 50), (4 * extension.BLOCK, 30_000)):
            client = self.connect()
            payload = extension.blocks(self.text[::-1][:length])
            client.request(extension.WRITE, 0, length, extension.FLAG_COMPRESSED)
            client.send(struct.pack(">I", len(payload)) + payload[:sent])
            client.close()
        other = self.connect()
        self.assertEqual(other.read(0, 4096)[0], before[:4096])
        self.assertEqual(self.image.read_bytes(), before)

    def test_without_an_agreement_nothing_is_compressed(self):
        client = self.connect(compression=False)
        data, on_wire = client.read(0, MIB)
        self.assertEqual((data, on_wire), (self.content[:MIB], MIB))
        client.request(extension.WRITE, 0, 4096, extension.FLAG_COMPRESSED)
        client.send(self.text[:4096])
        self.assertEqual(client.error(), EINVAL)

    def test_an_unknown_algorithm_is_refused(self):
        client = self.connect(compression=False)
        client.close()
        raw = extension.Client.__new__(extension.Client)
        raw._socket = socket.create_connection(("127.0.0.1", self.service.port), timeout=processes.LIMIT_SECONDS)
        self.addCleanup(raw.close)
        raw._receive(18)
        raw.send(struct.pack(">I", 3))
        ask = lambda *fields: raw.option(extension.OPTION, struct.pack(">HHHI", 1, extension.COMPRESSION, *fields))
        self.assertEqual(ask(2, extension.BLOCK)[-1][0], extension.UNSUPPORTED)
        self.assertEqual(ask(1, 0)[-1][0], extension.INVALID)
        self.assertEqual(ask(1, 4096)[-1][0], extension.ACK)


class ClientInMemory(Client, unittest.TestCase):
    """The same, where the image is memory: nobody waits for it."""

    def directory(self):
        directory = tempfile.TemporaryDirectory(dir="/dev/shm")
        self.addCleanup(directory.cleanup)
        return Path(directory.name)


class Server(unittest.TestCase):
    """A server that agreed on compression and sends what it should not, in front of an import."""

    SIZE = MIB

    def setUp(self):
        self.service = Service(self).start()
        with self.service.control() as control:
            control.ImportEnableTransferCompression(enable=True)
        self.content = log_text(self.SIZE)
        self.connections = 0

    def negotiate(self, connection):
        for code, data in options(connection):
            if code == EXTENSION and data[:4] == struct.pack(">HH", 0, extension.HELLO):
                connection.sendall(message(0, extension.HELLO, hello(1, 1, 1)) + reply(code, ACK))
            elif code == EXTENSION:
                connection.sendall(message(1, extension.COMPRESSION, data[4:]) + reply(code, ACK))
            elif code == extension.STRUCTURED_REPLY:
                connection.sendall(reply(code, ACK))
            elif code == extension.GO:
                connection.sendall(reply(code, 3, struct.pack(">HQH", 0, self.SIZE, 1)) + reply(code, ACK))
                return
            else:
                connection.sendall(reply(code, UNSUPPORTED))

    def chunk(self, cookie, offset, plain, payload):
        body = struct.pack(">QI", offset, plain) + payload
        return struct.pack(">IHHQI", 0x668E33EF, 1, extension.CHUNK_COMPRESSED, cookie, len(body)) + body

    def good(self, cookie, offset, length):
        return self.chunk(cookie, offset, length, extension.blocks(self.content[offset : offset + length]))

    def serve(self, bad):
        def run(connection):
            self.negotiate(connection)
            self.connections += 1
            while True:
                _, _, command, cookie, offset, length = struct.unpack(">IHHQQI", receive(connection, 28))
                if command != extension.READ:
                    return
                answer = bad if self.connections == 1 else self.good
                connection.sendall(answer(cookie, offset, length))

        return Peer(self, run)

    def read_through(self, bad):
        peer = self.serve(bad)
        with self.service.control() as control:
            server = {"address": "127.0.0.1", "port": peer.port}
            number = control.ImportAdd(descriptor={"name": "disk", "server": server})["id"]
            control.ImportEnable(id=number)
            entries = control.ImportListNodeInterfaces(id=number)["interfaces"]
        paths = {entry["name"]: {each["name"]: each.get("text") for each in entry["nested"]} for entry in entries}
        copy = self.service.root / "copy"
        uri = f"nbd+unix:///?socket={paths['socket']['path']}"
        processes.run([processes.tool("nbdcopy"), "--connections=1", uri, str(copy)])
        with self.service.control() as control:
            control.ImportDisable(id=number, force=True)
        return copy.read_bytes()

    def test_good_blocks_are_taken(self):
        self.assertEqual(self.read_through(self.good), self.content)
        self.assertEqual(self.connections, 1)

    def test_damage_ends_the_connection_and_the_next_one_is_asked(self):
        lies = {
            "garbage": lambda offset, length: (offset, length, extension.framed(images.random_bytes(100))),
            "a bomb": lambda offset, length: (offset, length, extension.framed(extension.zstd(bytes(64 * MIB)))),
            "more than was asked": lambda offset, length: (
                offset, length + 1, extension.blocks(bytes(length + 1))),
            "elsewhere": lambda offset, length: (offset + 1, length, extension.blocks(bytes(length))),
            "no blocks": lambda offset, length: (offset, length, b"abcde"),
            "not shorter": lambda offset, length: (
                offset, length, extension.framed(bytes(length), plain=True)),
            "one block too few": lambda offset, length: (
                offset, length, extension.blocks(bytes(length - extension.BLOCK))),
        }
        for name, lie in lies.items():
            with self.subTest(lie=name):
                self.connections = 0
                bad = lambda cookie, offset, length, lie=lie: self.chunk(cookie, *lie(offset, length))
                self.assertEqual(self.read_through(bad), self.content)
                self.assertEqual(self.connections, 2)


if __name__ == "__main__":
    unittest.main()
