"""The exports of remote servers as this service sees them: its own kind, stock ones, and those that do harm."""

import json
import socket
import struct
import subprocess
import threading
import unittest

from support import images, processes, remotes
from support.far import FarLink
from support.scripted import ACK, EXTENSION, UNSUPPORTED, Peer, hello, message, options, reply
from support.service import Service
from support.varlink import Failed

CONNECTION_FAILED, CONNECTION_REFUSED, REMOTE_TIMEOUT, REMOTE_PROTOCOL_ERROR = 0x50, 0x51, 0x52, 0x53
SERVER = 2
READ_ONLY = 1 << 1


def fetch(service, port, **more):
    with service.control() as control:
        return control.FetchRemoteExports(endpoint={"address": "127.0.0.1", "port": port}, **more)["list"]


class Servers(unittest.TestCase):
    """What servers of every kind offer."""

    def setUp(self):
        self.service = Service(self).start()
        self.image = self.service.images / "remote.img"
        images.write_holes(self.image)

    def test_stock_servers_show_names_sizes_and_flags(self):
        for kind in (remotes.Nbdkit, remotes.QemuNbd, remotes.NbdServer):
            with self.subTest(server=kind.__name__):
                remote = kind(self, self.image, read_only=True).start()
                listed = fetch(self.service, remote.port)
                self.assertFalse(listed["isTalvekServer"])
                self.assertIn(listed.get("uuid"), (None, ""))
                entry = {each["name"]: each for each in listed["exports"]}[remote.name]
                # nbd-server looks at the file only when it is used: INFO says 0.
                said = 0 if kind is remotes.NbdServer else images.SIZE
                self.assertEqual(entry["size"], said)
                self.assertEqual(self.size_by_nbdinfo(remote), said)
                self.assertTrue(entry["flags"] & READ_ONLY, entry)
                self.assertNotIn("uuid", entry)
                remote.kill()

    def size_by_nbdinfo(self, remote):
        uri = f"nbd://127.0.0.1:{remote.port}"
        listed = json.loads(processes.run([processes.tool("nbdinfo"), "--list", "--json", uri]).out)
        return {each["export-name"]: each["export-size"] for each in listed["exports"]}[remote.name]

    def test_our_own_kind_shows_everything(self):
        remote = remotes.Nbdd(self, self.image, read_only=True).start()
        other = self.service.images / "other.img"
        images.write_odd(other)
        remote.service.publish(other)
        listed = fetch(self.service, remote.port)
        self.assertTrue(listed["isTalvekServer"])
        properties = {entry["name"]: entry for entry in listed["properties"]}
        self.assertEqual(properties["uuid"]["text"], listed["uuid"])
        self.assertEqual(set(properties), set(remote.service.properties()))
        with remote.service.control() as control:
            infos = [control.ExportInfo(id=each)["info"] for each in control.ExportList()["ids"]]
        uuids = {info["descriptor"]["name"]: info["uuid"] for info in infos}
        entries = {each["name"]: each for each in listed["exports"]}
        self.assertEqual({name: each["uuid"] for name, each in entries.items()}, uuids)
        self.assertEqual(entries[remote.name]["size"], images.SIZE)
        self.assertEqual(entries["other.img"]["size"], images.ODD_SIZE)
        self.assertTrue(entries[remote.name]["flags"] & READ_ONLY)
        self.assertFalse(entries["other.img"]["flags"] & READ_ONLY)

    def test_the_flags_are_those_that_info_tells(self):
        remote = remotes.Nbdd(self, self.image).start()
        (entry,) = fetch(self.service, remote.port)["exports"]
        told = processes.run([processes.tool("nbdinfo"), "--json", f"nbd://127.0.0.1:{remote.port}/{entry['name']}"])
        self.assertIn('"is_read_only": false', told.out)
        self.assertFalse(entry["flags"] & READ_ONLY)

    def test_a_server_without_exports(self):
        remote = Service(self, listen=("127.0.0.1",)).start().start_server()
        listed = fetch(self.service, remote.port)
        self.assertTrue(listed["isTalvekServer"])
        self.assertEqual(listed["exports"], [])

    def test_thousands_of_exports_come_in_order(self):
        remote = Service(self, listen=("127.0.0.1",)).start().start_server()
        for index in range(1500):
            image = remote.images / f"disk-{index:05}-{'x' * 150}"
            image.touch()
            image.write_bytes(b"\0" * 512)
            remote.publish(image)
        listed = fetch(self.service, remote.port)
        names = [each["name"] for each in listed["exports"]]
        self.assertEqual(names, sorted(path.name for path in remote.images.iterdir()))
        self.assertEqual(len({each["uuid"] for each in listed["exports"]}), 1500)

    def test_thousands_of_exports_of_a_far_stock_server(self):
        """Asked one by one they would take a hundred seconds, far more than anybody waits."""
        directory = self.service.images / "many"
        directory.mkdir()
        for index in range(5000):
            with open(directory / f"disk-{index:05}", "wb") as image:
                image.truncate(512 * (1 + index % 7))
        remote = remotes.NbdkitDirectory(self, directory).start()
        far = FarLink(self, remote.port, round_trip=0.02)
        listed = {each["name"]: each["size"] for each in fetch(self.service, far.port)["exports"]}
        self.assertEqual(listed, {path.name: path.stat().st_size for path in directory.iterdir()})

    def test_stock_clients_meet_a_server_as_before(self):
        remote = remotes.Nbdd(self, self.image).start()
        listed = processes.run([processes.tool("nbdinfo"), "--list", f"nbd://127.0.0.1:{remote.port}"])
        self.assertIn(remote.name, listed.out)


class Trouble(unittest.TestCase):
    """Servers that are not there, say nothing, or say what is not true: every one ends in a code."""

    def setUp(self):
        self.service = Service(self).start()

    def expect(self, code, port):
        with self.assertRaises(Failed) as caught:
            fetch(self.service, port)
        self.assertEqual(caught.exception.code, code, caught.exception.message)

    def test_nobody_listens(self):
        with socket.create_server(("127.0.0.1", 0)) as reserved:
            port = reserved.getsockname()[1]
        self.expect(CONNECTION_REFUSED, port)

    def test_nobody_answers(self):
        self.expect(REMOTE_TIMEOUT, Peer(self, lambda connection: connection.recv(1)).port)

    def test_silence_in_the_middle(self):
        def serve(connection):
            for code, _ in options(connection):
                if code != EXTENSION:
                    connection.recv(1)
                    return
                connection.sendall(reply(code, UNSUPPORTED))

        self.expect(REMOTE_TIMEOUT, Peer(self, serve).port)

    def test_an_answer_without_an_end(self):
        def serve(connection):
            for code, data in options(connection):
                if data[:4] == struct.pack(">HH", 0, 0):
                    connection.sendall(message(0, 0, hello(1, 1)) + reply(code, ACK))
                while data[:4] != struct.pack(">HH", 0, 0):
                    connection.sendall(message(1, 1, b"") * 1000)

        self.expect(REMOTE_PROTOCOL_ERROR, Peer(self, serve).port)

    def test_the_connection_ends(self):
        self.expect(CONNECTION_FAILED, Peer(self, lambda connection: None).port)

    def test_no_server_of_this_protocol(self):
        def serve(connection):
            connection.sendall(b"220 mail.example ESMTP ready, go ahead\r\n")
            connection.recv(1)

        self.expect(REMOTE_PROTOCOL_ERROR, Peer(self, serve).port)

    def test_lies(self):
        answers = {
            "a wrong kind": message(0, 5, hello(1, 1)),
            "a wrong version": message(9, 0, hello(1, 1)),
            "garbage": message(0, 0, b"garbage"),
            "no header": reply(EXTENSION, EXTENSION, b"x"),
            "no hello": reply(EXTENSION, ACK),
            "versions upside down": message(0, 0, hello(2, 1)),
            "too long": struct.pack(">QIII", 0x0003E889045565A9, EXTENSION, EXTENSION, 1 << 30),
            "of another option": reply(3, ACK),
        }
        for name, answer in answers.items():
            with self.subTest(lie=name):

                def serve(connection, answer=answer):
                    for _ in options(connection):
                        connection.sendall(answer)

                self.expect(REMOTE_PROTOCOL_ERROR, Peer(self, serve).port)

    def test_a_later_version_is_listed_as_any_server(self):
        def serve(connection):
            for code, _ in options(connection):
                if code == EXTENSION:
                    connection.sendall(message(0, 0, hello(7, 9) + b"and more") + reply(code, ACK))
                elif code == 3:
                    connection.sendall(reply(code, SERVER, struct.pack(">I", 4) + b"disk") + reply(code, ACK))
                elif code == 6:
                    connection.sendall(reply(code, 3, struct.pack(">HQH", 0, 1 << 30, 1)) + reply(code, ACK))

        listed = fetch(self.service, Peer(self, serve).port)
        self.assertTrue(listed["isTalvekServer"])
        self.assertEqual(listed["uuid"], "00010203-0405-0607-0809-0a0b0c0d0e0f")
        self.assertEqual([(each["name"], each["size"]) for each in listed["exports"]], [("disk", 1 << 30)])

    def test_the_service_ends_while_it_asks(self):
        accepted = threading.Event()

        def serve(connection):
            accepted.set()
            connection.recv(1)

        port = Peer(self, serve).port
        asking = subprocess.Popen(
            ["python3", "-c", "import sys; from support.varlink import Control\n"
             f"try: Control({str(self.service.socket)!r}).FetchRemoteExports(endpoint={{'address': '127.0.0.1', 'port': {port}}})\n"
             "except Exception as error: print(error)"],
            stdout=subprocess.PIPE, text=True, preexec_fn=processes.die_with_parent,
        )
        self.addCleanup(processes.end, asking)
        self.assertTrue(accepted.wait(processes.LIMIT_SECONDS))
        self.assertEqual(self.service.stop(), 0)
        self.assertIn("0x6", asking.communicate(timeout=processes.LIMIT_SECONDS)[0])


if __name__ == "__main__":
    unittest.main()
