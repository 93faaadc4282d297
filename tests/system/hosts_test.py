"""The hosts that other tests are made of: they reach each other, and nobody else."""

import socket
import subprocess
import unittest
from pathlib import Path

from support import processes
from support.hosts import Network
from support.service import Service

LISTEN = """
import socket, sys
family, _, _, _, address = socket.getaddrinfo(sys.argv[1], 7, type=socket.SOCK_STREAM)[0]
listener = socket.create_server(address, family=family)
print("listening", flush=True)
listener.accept()[0].sendall(b"hello from " + socket.gethostname().encode())
"""

CONNECT = """
import socket, sys
print(socket.create_connection((sys.argv[1], 7), 1 if len(sys.argv) > 2 else 60).makefile().read(), end="")
"""


class HostsTest(unittest.TestCase):

    def listen(self, host, address):
        process = host.spawn([processes.tool("python3"), "-c", LISTEN, address], stdout=subprocess.PIPE, text=True)
        self.addCleanup(process.stdout.close)
        self.assertEqual(process.stdout.readline(), "listening\n")
        return process

    def hello(self, host, address):
        return host.run([processes.tool("python3"), "-c", CONNECT, address]).out

    def test_hosts_of_a_link_reach_each_other(self):
        network = Network(self)
        alpha, beta = network.host("alpha"), network.host("beta")
        for address in (alpha.address, alpha.address6, f"{alpha.plugs[0].link_local}%eth0"):
            self.listen(alpha, address)
            self.assertEqual(self.hello(beta, address), "hello from alpha")

    def test_links_are_apart(self):
        network = Network(self)
        alpha = network.host("alpha")
        both = network.host("both", links=[network.links[0], network.link()])
        self.assertEqual([plug.device for plug in both.plugs], ["eth0", "eth1"])
        self.listen(alpha, alpha.address)
        other = network.host("other", links=network.links[1:])
        result = other.run([processes.tool("python3"), "-c", CONNECT, alpha.address], check=False)
        self.assertIn("Network is unreachable", result.err)
        self.assertEqual(self.hello(both, alpha.address), "hello from alpha")

    def test_a_pulled_cable_carries_nothing_until_it_is_back(self):
        network = Network(self)
        alpha, beta = network.host(), network.host()
        self.listen(alpha, alpha.address)
        alpha.plugs[0].pull()
        result = beta.run([processes.tool("python3"), "-c", CONNECT, alpha.address, "briefly"], check=False)
        self.assertNotEqual(result.status, 0)
        alpha.plugs[0].push()
        self.assertEqual(self.hello(beta, alpha.address), "hello from host1")

    def test_a_limit_holds_in_both_directions(self):
        network = Network(self)
        alpha = network.host()
        alpha.plugs[0].limit("100mbit")
        self.assertIn("rate 100Mbit", alpha.run([processes.tool("tc"), "qdisc", "show", "dev", "eth0"]).out)

    def test_the_network_of_the_machine_stays_as_it_was(self):
        before = socket.if_nameindex()
        network = Network(self)
        network.host()
        network.host()
        self.assertEqual(socket.if_nameindex(), before)

    def test_nothing_remains(self):
        network = Network(self)
        holders = [network.host().holder, network.host().holder]
        self.doCleanups()
        for holder in holders:
            self.assertFalse(Path(f"/proc/{holder.pid}").exists())

    def test_a_service_runs_in_a_host(self):
        network = Network(self)
        alpha, beta = network.host("alpha"), network.host("beta")
        service = Service(self, host=alpha).start().start_server()
        self.assertEqual(service.port, 10809)
        self.assertEqual(service.properties()["host name"]["text"], "alpha")
        self.assertIn("alpha", service.nbdctl("props"))
        image = service.images / "disk"
        image.write_bytes(bytes(1 << 20))
        _, name = service.publish(image)
        uri = f"nbd://{alpha.address}/{name}"
        self.assertEqual(beta.run([processes.tool("nbdinfo"), "--size", uri]).out.strip(), str(1 << 20))


if __name__ == "__main__":
    unittest.main()
