"""Servers that find each other in the local network, and the stock tools that find them."""

import os
import signal
import struct
import tempfile
import unittest
from pathlib import Path

from support import processes
from support.avahi import Avahi
from support.hosts import Network
from support.service import Service
from support.varlink import Failed

DISCOVERY_FAILED = 0x55

# Far less than the records' time to live, so what is seen earlier is not their end but a goodbye.
GOODBYE_SECONDS = 60


class Discovering:

    def setUp(self):
        self.network = Network(self)

    def service(self, host, more="", **options):
        service = Service(self, host=host, **options)
        service.configure(options.get("listen", ()), options.get("port", 10809), f"[discovery]\n{more}")
        return service.start()

    def server(self, host, more="", **options):
        return self.service(host, more, **options).start_server()

    def discover(self, service):
        with service.control() as control:
            return control.ServerDiscover()["servers"]

    def endpoints(self, service):
        return sorted((server["endpoint"]["address"], server["endpoint"]["port"]) for server in self.discover(service))

    def labels(self, service):
        return sorted(server["label"] for server in self.discover(service))

    def properties(self, server):
        return {entry["name"]: entry.get("text") for entry in server["properties"]}

    def await_labels(self, service, *labels, limit=processes.LIMIT_SECONDS):
        processes.wait_until(lambda: self.labels(service) == sorted(labels), f"{labels} to be found", limit)

    def directory(self):
        directory = tempfile.TemporaryDirectory(prefix="talvek-")
        self.addCleanup(directory.cleanup)
        return Path(directory.name)


def takes_part(host):
    """Whether anybody on the host listens for multicast DNS."""
    return host.run([processes.tool("ss"), "--udp", "--listening", "--no-header", "sport", "=", ":5353"]).out != ""


def responder_of(service):
    """The process that announces and searches for an nbdd."""
    children = Path(f"/proc/{service.process.pid}/task/{service.process.pid}/children").read_text().split()
    return int(children[0])


class HostsFindEachOther(Discovering, unittest.TestCase):

    def test_each_finds_the_others(self):
        hosts = [self.network.host(name) for name in ("alpha", "beta", "gamma")]
        services = [self.server(host) for host in hosts]
        for host, service in zip(hosts, services):
            others = [other for other in hosts if other is not host]
            self.await_labels(service, *(other.name for other in others))
            self.assertEqual(self.endpoints(service), [(other.address, 10809) for other in others])
        server = self.discover(services[0])[0]
        self.assertEqual(server["properties"][0], {"name": "name", "text": "beta"})
        told = self.properties(server)
        self.assertEqual((told["host name"], told["platform"]), ("beta", "Linux"))
        self.assertEqual(told["uuid"], services[1].properties()["uuid"]["text"])
        self.assertEqual(told["version"], services[1].properties()["version"]["text"])

    def test_a_server_is_withdrawn_at_stop_and_comes_back_at_start(self):
        alpha, beta = self.network.host("alpha"), self.network.host("beta")
        service, other = self.service(alpha), self.server(beta)
        self.await_labels(service, "beta")
        with other.control() as control:
            control.ServerStop()
            self.await_labels(service, limit=GOODBYE_SECONDS)
            control.ServerStart()
            self.await_labels(service, "beta")

    def test_an_nbdd_that_ends_says_goodbye(self):
        alpha, beta = self.network.host("alpha"), self.network.host("beta")
        service, other = self.service(alpha), self.server(beta)
        for end in (other.stop, other.kill):
            self.await_labels(service, "beta")
            end()
            self.await_labels(service, limit=GOODBYE_SECONDS)
            other.start()

    def test_a_host_that_vanishes_is_forgotten_in_time(self):
        alpha, beta = self.network.host("alpha"), self.network.host("beta")
        service = self.service(alpha)
        self.server(beta, "time-to-live = 4")
        self.await_labels(service, "beta")
        beta.plugs[0].pull()
        self.await_labels(service)
        beta.plugs[0].push()
        self.await_labels(service, "beta")

    def test_a_host_on_several_links_is_listed_once(self):
        second = self.network.link()
        links = self.network.links
        alpha, beta = (self.network.host(name, links) for name in ("alpha", "beta"))
        gamma = self.network.host("gamma", [second])
        service, other = self.server(alpha), self.server(beta)
        third = self.server(gamma)
        self.await_labels(service, "beta", "gamma")
        self.await_labels(other, "alpha", "gamma")
        self.await_labels(third, "alpha", "beta")
        self.assertEqual(self.endpoints(third), [(host.plugs[1].address, 10809) for host in (alpha, beta)])

        def both_addresses():
            server = self.discover(service)[0]
            addresses = {entry["text"] for entry in server["properties"][-1]["nested"]}
            return addresses >= {plug.address for plug in beta.plugs} and server["endpoint"]["address"] == beta.address

        processes.wait_until(both_addresses, "both addresses of a host")

    def test_two_interfaces_on_one_link_are_no_conflict(self):
        link = self.network.links[0]
        alpha, beta = self.network.host("alpha"), self.network.host("beta", [link, link])
        service, other = self.service(alpha), self.server(beta)
        self.await_labels(service, "beta")
        with other.control() as control:
            control.ServerStop()
            self.await_labels(service, limit=GOODBYE_SECONDS)
        self.assertNotIn("somebody else", other.log_text())

    def test_only_what_is_listened_on_is_announced(self):
        alpha, beta = self.network.host("alpha"), self.network.host("beta")
        service = self.service(alpha)
        beta.configure("address add 10.64.9.9/16 dev eth0")
        self.server(beta, listen=("10.64.9.9", "127.0.0.1"), port=1234)
        self.await_labels(service, "beta")
        server = self.discover(service)[0]
        self.assertEqual(server["endpoint"], {"address": "10.64.9.9", "port": 1234})
        self.assertEqual({entry["text"] for entry in server["properties"][-1]["nested"]}, {"10.64.9.9"})

    def test_servers_of_one_name_take_another_each(self):
        alpha = self.network.host("alpha")
        service = self.service(alpha)
        for name in ("beta", "gamma", "delta"):
            self.server(self.network.host(name), 'label = "disks"')

        def names():
            return {server["properties"][0]["text"] for server in self.discover(service)}

        processes.wait_until(lambda: names() == {"disks", "disks #2", "disks #3"}, "three names")

    def test_an_address_that_comes_later_is_announced(self):
        alpha, beta = self.network.host("alpha"), self.network.host("beta")
        beta.configure("address flush dev eth0")
        service = self.service(alpha)
        self.server(beta)
        self.assertEqual(self.endpoints(service), [])
        beta.configure("address add 10.64.9.9/16 dev eth0")
        processes.wait_until(lambda: self.endpoints(service) == [("10.64.9.9", 10809)], "the new address")


class TakingPart(Discovering, unittest.TestCase):

    def test_nobody_takes_part_who_neither_serves_nor_asks(self):
        alpha = self.network.host("alpha")
        service = self.service(alpha)
        self.assertFalse(takes_part(alpha))
        service.start_server()
        processes.wait_until(lambda: takes_part(alpha), "the responder")
        with service.control() as control:
            control.ServerStop()
        processes.wait_until(lambda: not takes_part(alpha), "the end of the responder")
        self.assertEqual(self.discover(service), [])
        self.assertTrue(takes_part(alpha))

    def test_who_listens_on_loopback_alone_announces_nothing(self):
        alpha = self.network.host("alpha")
        self.server(alpha, listen=("127.0.0.1", "::1"))
        self.assertFalse(takes_part(alpha))

    def test_it_can_be_turned_off(self):
        alpha, beta = self.network.host("alpha"), self.network.host("beta")
        service = self.server(alpha, "enabled = false")
        other = self.server(beta)
        with self.assertRaises(Failed) as failed:
            self.discover(service)
        self.assertEqual(failed.exception.code, DISCOVERY_FAILED)
        self.assertFalse(takes_part(alpha))
        self.assertEqual(self.discover(other), [])

    def test_it_keeps_to_the_interfaces_that_are_named(self):
        links = [self.network.links[0], self.network.link()]
        alpha = self.network.host("alpha", links)
        self.server(alpha, 'interfaces = ["eth1"]')
        outside, inside = (self.service(self.network.host(name, [link])) for name, link in zip("oi", links))
        self.await_labels(inside, "alpha")
        self.assertEqual(self.endpoints(inside), [(alpha.plugs[1].address, 10809)])
        self.assertEqual(self.discover(outside), [])

    def test_a_responder_that_dies_is_followed_by_another(self):
        alpha, beta = self.network.host("alpha"), self.network.host("beta")
        service, other = self.server(alpha), self.server(beta)
        self.await_labels(service, "beta")
        self.await_labels(other, "alpha")
        os.kill(responder_of(service), signal.SIGKILL)
        processes.wait_until(lambda: "started again" in service.log_text(), "the end of the responder")
        self.await_labels(service, "beta")
        self.await_labels(other, "alpha")

    def test_the_responder_has_no_privileges(self):
        service = self.server(self.network.host("alpha"))
        status = Path(f"/proc/{responder_of(service)}/status")

        def capabilities():
            lines = dict(line.split(":\t", 1) for line in status.read_text().splitlines() if ":\t" in line)
            return lines["Name"], lines["CapEff"], lines["CapPrm"], lines["NoNewPrivs"]

        processes.wait_until(lambda: capabilities() == ("nbdd-discovery", "0" * 16, "0" * 16, "1"), "no privileges")


class StockResponders(Discovering, unittest.TestCase):

    def test_stock_browsers_see_our_servers(self):
        alpha, beta = self.network.host("alpha"), self.network.host("beta")
        service = self.server(alpha, 'label = "Shelf 4"')
        browser = Avahi(self, beta, self.directory())
        found = processes.wait_until(browser.browse, "avahi-browse to see the server")
        self.assertEqual({entry["name"] for entry in found}, {r"Shelf\0324"})
        self.assertEqual({entry["port"] for entry in found}, {"10809"})
        self.assertLessEqual({entry["address"] for entry in found}, {alpha.address, alpha.address6})
        told = found[0]["text"]
        for string in ("uuid=" + service.properties()["uuid"]["text"], "platform=Linux", "label=Shelf 4", "version="):
            self.assertIn(string, told)

    def test_servers_that_others_announce_are_found(self):
        alpha, beta = self.network.host("alpha"), self.network.host("beta")
        service = self.service(alpha)
        publisher = Avahi(self, beta, self.directory())
        process = publisher.publish("Disk of beta", 10810)
        self.await_labels(service, "Disk of beta")
        server = self.discover(service)[0]
        self.assertEqual(server["endpoint"], {"address": beta.address, "port": 10810})
        self.assertEqual(self.properties(server)["host name"], "beta.local")
        process.terminate()
        self.await_labels(service, limit=GOODBYE_SECONDS)

    def test_it_works_beside_a_stock_responder(self):
        alpha, beta = self.network.host("alpha"), self.network.host("beta")
        avahi = Avahi(self, alpha, self.directory())
        service, other = self.server(alpha), self.server(beta)
        avahi.publish("Stock", 4444)
        self.await_labels(other, "Stock", "alpha")
        self.await_labels(service, "Stock", "beta")
        names = processes.wait_until(lambda: {entry["name"] for entry in avahi.browse()} == {"Stock", "alpha", "beta"},
                                     "avahi-browse to see all")
        self.assertTrue(names)
        # The host's own name stays the daemon's, who has seen no conflict.
        self.assertNotIn("conflict", avahi.log_text().lower())
        self.assertNotIn("alpha-2", avahi.log_text())


class Searches(Discovering, unittest.TestCase):

    def test_an_expression_goes_to_every_server(self):
        hosts = [self.network.host(name) for name in ("alpha", "beta", "gamma", "delta")]
        services = [self.server(host) for host in hosts]
        for service, names in zip(services[1:], (("small", "large"), ("large-too",), ("large-3",))):
            for each in names:
                image = service.images / each
                image.write_bytes(b"")
                os.truncate(image, (1 << 20) if each == "small" else (1 << 30))
                service.publish(image)
        self.await_labels(services[0], "beta", "gamma", "delta")
        # Gone without a word, so it is still in view, between the other two.
        hosts[3].plugs[0].pull()
        out = services[0].nbdctl("diskspec", '"size >= 10M"')
        blocks = out.split("Sending DiskSpec to servers...\n")[1].split("\n\n")
        self.assertEqual(blocks[0], f"  Server 1: {hosts[1].address}:10809\n    1: large")
        self.assertRegex(blocks[1], rf"  Server 2: {hosts[3].address}:10809\n    Error: (80|82)$")
        self.assertEqual(blocks[2], f"  Server 3: {hosts[2].address}:10809\n    1: large-too\n")
        # What was answered is not answered again.
        image = services[1].images / "later"
        image.write_bytes(b"")
        os.truncate(image, 1 << 30)
        services[1].publish(image)
        self.assertIn("    2: later\n", services[0].nbdctl("diskspec", '"size >= 10M"'))


def name(*labels):
    return b"".join(bytes([len(label)]) + label for label in labels) + b"\0"


NBD = (b"_nbd", b"_tcp", b"local")


def record(owner, kind, data, ttl=120, unique=True):
    return owner + struct.pack(">HHIH", kind, 0x8001 if unique else 1, ttl, len(data)) + data


def response(*records, count=None):
    return struct.pack(">HHHHHH", 0, 0x8400, 0, len(records) if count is None else count, 0, 0) + b"".join(records)


def announcement(instance, text=b"\0", address=b"\x0a\x40\x7f\x01", port=10809):
    full, host = name(instance, *NBD), name(b"host-" + instance.hex()[:40].encode(), b"local")
    return response(
        record(name(*NBD), 12, full, unique=False),
        record(full, 33, struct.pack(">HHH", 0, 0, port) + host),
        record(full, 16, text),
        record(host, 1, address),
    )


SEND = """
import socket, sys
sender = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
sender.setsockopt(socket.IPPROTO_IP, socket.IP_MULTICAST_TTL, 255)
sender.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
sender.setsockopt(socket.IPPROTO_IP, socket.IP_MULTICAST_IF, socket.inet_aton(sys.argv[1]))
sender.bind(("", 5353))
for line in sys.stdin:
    sender.sendto(bytes.fromhex(line), ("224.0.0.251", 5353))
"""


class HostileRecords(Discovering, unittest.TestCase):

    def setUp(self):
        super().setUp()
        self.alpha, self.beta = self.network.host("alpha"), self.network.host("beta")
        self.service = self.service(self.alpha)
        self.assertEqual(self.discover(self.service), [])

    def send(self, *packets):
        lines = "".join(packet.hex() + "\n" for packet in packets)
        self.beta.run([processes.tool("python3"), "-c", SEND, self.beta.address], stdin=lines)

    def test_the_sender_is_heard(self):
        self.send(announcement(b"evil"))
        self.await_labels(self.service, "evil")

    def test_what_is_shown_can_be_shown(self):
        text = b"".join(bytes([len(string)]) + string for string in (
            b"label=\x1b[2J\0\n" + b"x" * 240, b"uuid=" + b"'" * 100, b"version=\xff\xfe", b"", b"=", b"label=other"))
        self.send(announcement(b"a\x1b[31m\n", text))
        server = processes.wait_until(lambda: self.discover(self.service), "the announcement")[0]
        told = self.properties(server)
        for shown in (server["label"], told["name"], told["version"], told["host name"]):
            self.assertTrue(shown.isprintable(), shown)
            self.assertLessEqual(len(shown.encode()), 255)
        self.assertTrue(server["label"].startswith(r"\x1b[2J\x00\x0ax"))
        self.assertNotIn("uuid", told)
        self.service.nbdctl("discover", check=False)

    def test_nobody_is_told_to_ask_himself(self):
        for address in (b"\x7f\0\0\1", b"\0" * 4, b"\xff" * 4, b"\xe0\0\0\xfb"):
            self.send(announcement(b"self" + address.hex().encode(), address=address))
        self.send(announcement(b"last"))
        self.await_labels(self.service, "last")

    def test_packets_of_every_broken_kind_are_survived(self):
        good = announcement(b"good")
        loop = response(record(b"\xc0\x0c", 12, b"\xc0\x0c"))
        long_name = name(*[b"x" * 63] * 8)
        packets = [b"", b"\0", good[:11], loop, response(count=65535), response(record(name(*NBD), 12, long_name)),
                   response(record(name(*NBD), 12, name(b"short")[:3])), response(record(name(*NBD), 12, b"\xff\xff")),
                   response(record(name(*NBD), 16, b"\xff")), response(record(name(*NBD), 12, b"")),
                   response(record(name(b"x", *NBD), 33, b"\0")), response(record(name(b"h", b"local"), 1, b"\x0a")),
                   response(record(name(*NBD), 5, name(*NBD))), response(record(name(*NBD), 12, name(b"", *NBD))),
                   announcement(b"noport", port=0), announcement(b"nowhere", address=b"\xff" * 4),
                   announcement(b"big", b"\xff" + b"x" * 255 + b"\xff" + b"y" * 255)]
        packets += [good[:length] for length in range(0, len(good), 3)]
        packets += [good[:at] + bytes([good[at] ^ 0xFF]) + good[at + 1:] for at in range(0, len(good), 2)]
        responder = responder_of(self.service)
        self.send(*packets)
        self.send(announcement(b"last"))
        processes.wait_until(lambda: "last" in self.labels(self.service), "the last announcement")
        self.assertEqual(responder_of(self.service), responder, self.service.log_text())

    def test_a_flood_is_bounded(self):
        self.send(*(announcement(b"flood%d" % number) for number in range(3000)))
        self.assertLessEqual(len(self.discover(self.service)), 2048)
        with self.service.control() as control:
            control.ServerStart()
        self.assertLess(int(next(line.split()[1] for line in
                                 Path(f"/proc/{responder_of(self.service)}/status").read_text().splitlines()
                                 if line.startswith("VmRSS:"))), 200 * 1024)


if __name__ == "__main__":
    unittest.main()
