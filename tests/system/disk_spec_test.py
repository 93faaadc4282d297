"""DiskSpec expressions over the exports of several servers, and the utility's commands that show remote exports."""

import socket
import struct
import subprocess
import unittest

from support import images, nbd, processes, remotes
from support.hosts import Network
from support.service import Service
from support.varlink import Failed

EXPRESSION_INVALID, EXTENSION_MISSING = 0x56, 0x57
EXTENSION, INVALID = 0x544C564B, 0x80000003
KIB = 1024


def make_image(service, name, size):
    path = service.images / name
    with open(path, "wb") as file:
        file.truncate(size)
    return path


def fetch(service, port, expression):
    with service.control() as control:
        return control.FetchRemoteExports(endpoint={"address": "127.0.0.1", "port": port}, expression=expression)["list"]


class Selection(unittest.TestCase):
    """What one service gets from others."""

    def setUp(self):
        self.service = Service(self).start()

    def server(self):
        return Service(self, listen=("127.0.0.1",)).start().start_server()

    def names(self, server, expression):
        return [each["name"] for each in fetch(self.service, server.port, expression)["exports"]]

    def assert_fails(self, port, expression, code):
        with self.assertRaises(Failed) as raised:
            fetch(self.service, port, expression)
        self.assertEqual(raised.exception.code, code, raised.exception.message)
        return raised.exception.message

    def test_three_servers_with_different_exports(self):
        first, second, third = self.server(), self.server(), self.server()
        for number in range(3):
            first.publish(make_image(first, f"vol{number}.img", (number + 1) * 64 * KIB))
        second.publish(make_image(second, "vol7.img", 1024 * KIB), read_only=True)
        second.publish(make_image(second, "other", 1001))
        cases = {
            "true": (["vol0.img", "vol1.img", "vol2.img"], ["other", "vol7.img"], []),
            "size >= 128K and name ~ vol* and not readonly": (["vol1.img", "vol2.img"], [], []),
            "readonly": ([], ["vol7.img"], []),
            "name =~ '[02]\\.img$' or blocksize == 1": (["vol0.img", "vol2.img"], ["other"], []),
            "clients == 0 and state == enabled and age < 1w": (
                ["vol0.img", "vol1.img", "vol2.img"],
                ["other", "vol7.img"],
                [],
            ),
            "not true": ([], [], []),
        }
        for expression, expected in cases.items():
            with self.subTest(expression=expression):
                found = tuple(self.names(server, expression) for server in (first, second, third))
                self.assertEqual(found, tuple(expected))

    def test_what_comes_with_a_match(self):
        server = self.server()
        number, name = server.publish(make_image(server, "a.img", 64 * KIB), read_only=True)
        server.publish(make_image(server, "b.img", 64 * KIB))
        listed = fetch(self.service, server.port, f"uuid == {server.info(number)['uuid'].upper()}")
        self.assertTrue(listed["isTalvekServer"])
        (entry,) = listed["exports"]
        self.assertEqual((entry["name"], entry["size"]), (name, 64 * KIB))
        self.assertEqual(entry["uuid"], server.info(number)["uuid"])

    def test_what_clients_do_is_known(self):
        server = self.server()
        _, name = server.publish(make_image(server, "a.img", 64 * KIB))
        self.assertEqual(self.names(server, "clients > 0 or byteswritten > 0"), [])
        processes.run([processes.tool("qemu-io"), "-f", "raw", "-c", "write 0 8k", server.uri(name)])
        self.assertEqual(self.names(server, "byteswritten == 8K"), [name])
        with nbd.Client(server.port, name):
            self.assertEqual(self.names(server, "clients == 1"), [name])

    def test_an_export_that_is_not_offered_is_not_found(self):
        server = self.server()
        number, _ = server.publish(make_image(server, "a.img", 64 * KIB))
        with server.control() as control:
            control.ExportDisable(id=number)
        self.assertEqual(self.names(server, "true"), [])

    def test_an_expression_that_does_not_compile_goes_nowhere(self):
        port = remotes.free_port()
        for expression, number in (("", 1), ("size >", 8), ("colour == red", 12), ("(" * 70, 22), ("(" * 20000, 2)):
            with self.subTest(expression=expression[:20]):
                message = self.assert_fails(port, expression, EXPRESSION_INVALID)
                self.assertIn(f"error {number},", message)

    def test_a_stock_server_cannot(self):
        image = make_image(self.service, "stock.img", images.SIZE)
        for kind in (remotes.Nbdkit, remotes.QemuNbd, remotes.NbdServer):
            with self.subTest(server=kind.__name__):
                remote = kind(self, image, read_only=True).start()
                self.assert_fails(remote.port, "true", EXTENSION_MISSING)
                remote.kill()

    def test_what_a_hostile_client_sends_is_checked_again(self):
        server = self.server()
        server.publish(make_image(server, "a.img", 64 * KIB))
        for bytes_sent, number in (
            (b"", 26),
            (b"\x02true", 26),
            (b"\x01colour", 12),
            (b"\x01name == \"\xff\"", 4),
            (b"\x01" + b"(" * 60000, 2),
            (b"\x01name =~ '((a{100}){100}){100}'", 21),
        ):
            with self.subTest(sent=bytes_sent[:20]), socket.create_connection(("127.0.0.1", server.port)) as client:
                client.settimeout(processes.LIMIT_SECONDS)
                answers = client.makefile("rb")
                self.assertEqual(answers.read(18)[:16], b"NBDMAGICIHAVEOPT")
                body = struct.pack(">HH", 1, 3) + bytes_sent
                client.sendall(struct.pack(">I8sII", 3, b"IHAVEOPT", EXTENSION, len(body)) + body)
                _, option, kind, length = struct.unpack(">QIII", answers.read(20))
                self.assertEqual((option, kind), (EXTENSION, INVALID))
                self.assertIn(f"error {number})", answers.read(length).decode())


class Utility(unittest.TestCase):
    """nbdctl, byte for byte. Remote servers are asked at NBD's own port, so each is on a host of its own."""

    def test_rlist(self):
        network = Network(self)
        here, there = network.host("here"), network.host("there")
        service, server = Service(self, host=here).start(), Service(self, host=there).start()
        self.assertEqual(
            service.nbdctl("rlist", there.address), f"Fetching exports from {there.address}... failed!\n"
        )
        server.start_server()
        server.publish(make_image(server, "a.img", 64 * KIB))
        server.publish(make_image(server, "b.img", 1001), read_only=True)
        with service.control() as control:
            listed = control.FetchRemoteExports(endpoint={"address": there.address})["list"]
        printed = service.nbdctl("rlist", there.address)
        head = (
            f"Fetching exports from {there.address}... OK!\n"
            "Is Talvek server: true\n"
            f"Server UUID: {listed['uuid']}\n"
            f"Server properties: {len(listed['properties'])}\n"
        )
        self.assertTrue(printed.startswith(head), printed)
        first, second = listed["exports"]
        self.assertTrue(
            printed.endswith(
                "\n\nExport count: 2\n"
                f"  Export: a.img\n    - uuid: {first['uuid']}\n    - size: {64 * KIB}\n    - flgs: {first['flags']}\n"
                "\n"
                f"  Export: b.img\n    - uuid: {second['uuid']}\n    - size: 1001\n    - flgs: {second['flags']}\n"
            ),
            printed,
        )
        shown = service.nbdctl("rlist", there.address6)
        self.assertIn("... OK!\nIs Talvek server: true\n", shown)

    def test_rlist_of_a_stock_server(self):
        network = Network(self)
        here, there = network.host("here"), network.host("there")
        service = Service(self, host=here).start()
        image = make_image(service, "stock.img", 64 * KIB)
        ready = service.root / "nbdkit.pid"
        there.spawn(
            [processes.tool("nbdkit"), "-f", "-r", "-P", ready, "file", image],
            stdout=subprocess.DEVNULL,
            stderr=subprocess.DEVNULL,
        )
        processes.wait_until(ready.exists, "nbdkit")
        with service.control() as control:
            (entry,) = control.FetchRemoteExports(endpoint={"address": there.address})["list"]["exports"]
        self.assertEqual(
            service.nbdctl("rlist", there.address),
            f"Fetching exports from {there.address}... OK!\n"
            "Is Talvek server: false\n"
            "Export count: 1\n"
            f"  Export: {entry['name']}\n    - size: {64 * KIB}\n    - flgs: {entry['flags']}\n",
        )

    def test_diskspec_with_an_expression_that_does_not_compile(self):
        service = Service(self).start()
        for expression, number in (("", 1), ("size >= 10Q", 15), ("name ~ [a", 8), ("colour", 12), ("(" * 65, 22)):
            with self.subTest(expression=expression):
                self.assertEqual(
                    service.nbdctl("diskspec", f'"{expression}"'),
                    f"Discovering exports via DiskSpec: {expression}\nCompiling expression... FAILED ({number})\n",
                )


class SeveralHosts(unittest.TestCase):
    """nbdctl, byte for byte, in a network of servers with different exports."""

    def setUp(self):
        network = Network(self)
        self.hosts = {name: network.host(name) for name in ("alpha", "beta", "gamma", "delta")}
        self.services = {name: Service(self, host=host).start() for name, host in self.hosts.items()}
        self.here = self.services["alpha"]
        beta, gamma = self.services["beta"], self.services["gamma"]
        for number in range(3):
            beta.publish(make_image(beta, f"vol{number}.img", (number + 1) * 64 * KIB))
        gamma.publish(make_image(gamma, "vol7.img", 1024 * KIB))
        gamma.publish(make_image(gamma, "vol8.img", 1024 * KIB), read_only=True)
        for name in ("beta", "gamma", "delta"):
            self.services[name].start_server()
        self.await_servers("beta", "delta", "gamma")

    def await_servers(self, *names):
        def found():
            with self.here.control() as control:
                return [server["label"] for server in control.ServerDiscover()["servers"]] == list(names)

        processes.wait_until(found, f"{names} to be found")

    def server(self, number, name):
        return f"  Server {number}: {self.hosts[name].address}:10809"

    def head(self, expression, names):
        servers = "\n\n".join(
            f"{self.server(number, name)}\n    Property: name\n    -> value: {name}"
            for number, name in enumerate(names, 1)
        )
        return (
            f"Discovering exports via DiskSpec: {expression}\n"
            "Compiling expression... OK!\n"
            "Discovering servers... OK!\n"
            f"\nRemote servers: {len(names)}\n{servers}\n"
            "\nSending DiskSpec to servers...\n"
        )

    def test_diskspec(self):
        expression = "size >= 128K and name ~ vol* and not readonly"
        self.assertEqual(
            self.here.nbdctl("diskspec", f'"{expression}"'),
            self.head(expression, ("beta", "delta", "gamma"))
            + f"{self.server(1, 'beta')}\n    1: vol1.img\n    2: vol2.img\n\n"
            + f"{self.server(2, 'delta')}\n    <no matches>\n\n"
            + f"{self.server(3, 'gamma')}\n    1: vol7.img\n",
        )

    def test_a_host_that_does_not_answer_is_reported_in_its_place(self):
        self.hosts["delta"].plugs[0].pull()
        printed = self.here.nbdctl("diskspec", "readonly")
        head = self.head("readonly", ("beta", "delta", "gamma")) + f"{self.server(1, 'beta')}\n    <no matches>\n\n"
        self.assertTrue(printed.startswith(head), printed)
        self.assertRegex(
            printed[len(head) :],
            f"^{self.server(2, 'delta')}\n    Error: (80|82)\n\n{self.server(3, 'gamma')}\n    1: vol8.img\n$",
        )

    def test_without_servers(self):
        for name in ("beta", "gamma", "delta"):
            with self.services[name].control() as control:
                control.ServerStop()
        self.await_servers()
        self.assertEqual(
            self.here.nbdctl("diskspec", "true"),
            "Discovering exports via DiskSpec: true\nCompiling expression... OK!\n"
            "Discovering servers... OK!\nNo servers available!\n",
        )
        self.assertEqual(self.here.nbdctl("discover"), "Discovering remote servers... OK!\nRemote servers: 0\n")

    def test_discover(self):
        with self.here.control() as control:
            servers = control.ServerDiscover()["servers"]
        blocks = []
        for number, server in enumerate(servers, 1):
            lines = [f"{self.server(number, server['label'])} ({server['label']})"]
            for entry in server["properties"]:
                lines.append(f"    Property: {entry['name']}")
                if "nested" not in entry:
                    lines.append(f"    -> value: {entry['text']}")
                    continue
                lines.append("    -> value: <nested>")
                for child in entry["nested"]:
                    lines += [" " * 22 + f"Property: {child['name']}", " " * 22 + f"-> value: {child['text']}"]
            blocks.append("".join(f"{line}\n" for line in lines))
        self.assertEqual(
            self.here.nbdctl("discover"),
            "Discovering remote servers... OK!\nRemote servers: 3\n" + "\n".join(blocks),
        )


if __name__ == "__main__":
    unittest.main()
