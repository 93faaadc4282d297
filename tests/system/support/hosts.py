"""Several hosts on one machine: network namespaces, joined by bridges that live in a namespace of their own.

    network = Network(self)
    server, client = network.host("server"), network.host("client")
    server.spawn([...])
    client.run(["ping", "-c1", server.address])

Nothing of it touches the network of the machine, and nothing has a name outside of its namespace: each one is held
by a process that ends with the test, however that ends, and the kernel takes the rest away.
"""

import os
import subprocess

from support import processes

_REFUSED = ("Operation not permitted", "Permission denied", "No space left on device")


class _Namespace:
    """A network and a host name, alive as long as a process that waits for the end of its standard input."""

    def __init__(self, test, name, owner=None):
        """`owner`: the namespace whose user namespace this one shall be in, where there is one."""
        as_user = os.geteuid() != 0
        words = [*owner.wrapper, processes.tool("unshare")] if owner else [processes.tool("unshare")]
        if as_user and owner is None:
            words += ["--user", "--map-root-user"]
        words += ["--net", "--uts", "sh", "-c", 'hostname "$0" && ip link set lo up && echo up && exec cat', name]
        self.holder = subprocess.Popen(
            words, stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True
        )
        test.addCleanup(self.end)
        if self.holder.stdout.readline() != "up\n":
            said = self.holder.communicate()[1]
            if any(reason in said for reason in _REFUSED):
                test.skipTest(f"the system allows no network namespaces: {said.strip()}")
            raise AssertionError(f"no namespace: {said}")
        space = f"/proc/{self.holder.pid}/ns"
        self.wrapper = [processes.tool("nsenter"), f"--net={space}/net", f"--uts={space}/uts"]
        if as_user:
            self.wrapper += [f"--user={space}/user", "--preserve-credentials"]
        # Whoever enters a user namespace is no longer ended with the test: it must be asked for anew.
        self.wrapper += [processes.tool("setpriv"), "--pdeathsig", "KILL"]

    def end(self):
        if self.holder.poll() is None:
            self.holder.communicate()

    def run(self, command, **options):
        """Runs a program to its end, as processes.run does."""
        return processes.run([*self.wrapper, *command], **options)

    def configure(self, *lines):
        """Gives ip(8) these commands."""
        self.run([processes.tool("ip"), "-batch", "-"], stdin="".join(f"{line}\n" for line in lines))


class Link:
    """One Ethernet: what is plugged in hears each other, and nobody else does."""

    def __init__(self, switch, number):
        self.number = number
        self._switch = switch
        self._bridge = f"bridge{number}"
        self._ports = 0
        # A bridge that learns who wants which group asks for it only now and then; multicast goes to all.
        switch.configure(
            f"link add {self._bridge} address 02:00:00:{number:02x}:ff:ff type bridge forward_delay 0 mcast_snooping 0",
            f"link set {self._bridge} up",
        )

    def connect(self, host):
        self._ports += 1
        return Plug(self._switch, self, self._ports, host)

    def bridge(self):
        return self._bridge


class Plug:
    """A host's place on a link: the interface `device` with an IPv4, an IPv6 and a link-local address."""

    def __init__(self, switch, link, number, host):
        high, low = divmod(number, 256)
        self.device = f"eth{len(host.plugs)}"
        self.address = f"10.{64 + link.number}.{high}.{low}"
        self.address6 = f"fd00:0:0:{link.number:x}::{number:x}"
        self.link_local = f"fe80::{number:x}"
        self._switch = switch
        self._host = host
        self._port = f"p{link.number}.{number}"
        ethernet = f"02:00:00:{link.number:02x}:{high:02x}:{low:02x}"
        switch.configure(
            f"link add {self._port} type veth peer name {self.device} address {ethernet} netns {host.holder.pid}",
            f"link set {self._port} addrgenmode none master {link.bridge()} up",
        )
        self._interface = (
            f"link set {self.device} addrgenmode none",
            f"link set {self.device} up",
            f"address add {self.address}/16 dev {self.device}",
            # Nobody else can have them, so nothing has to wait until that is known.
            f"address add {self.address6}/64 dev {self.device} nodad",
            f"address add {self.link_local}/64 dev {self.device} nodad",
        )
        host.configure(*self._interface)

    def pull(self):
        """The cable is out: nothing more goes either way, and neither side is told more than that."""
        self._switch.configure(f"link set {self._port} down")

    def push(self):
        """The cable is in again."""
        self._switch.configure(f"link set {self._port} up")

    def limit(self, rate):
        """Bounds what goes through in each direction, to a rate as tc(8) takes it: "1gbit"."""
        for space, device in ((self._host, self.device), (self._switch, self._port)):
            bucket = ["tbf", "rate", rate, "burst", "256kb", "latency", "50ms"]
            space.run([processes.tool("tc"), "qdisc", "replace", "dev", device, "root", *bucket])


class Host(_Namespace):
    """A host of its own name with interfaces eth0, eth1, … `wrapper` in front of a command runs it there.

    Files and processes are those of the machine.
    """

    def __init__(self, test, switch, name):
        super().__init__(test, name, owner=switch)
        self.name = name
        self.plugs = []
        self._test = test

    def plug(self, link):
        self.plugs.append(link.connect(self))
        return self.plugs[-1]

    @property
    def address(self):
        return self.plugs[0].address

    @property
    def address6(self):
        return self.plugs[0].address6

    def spawn(self, command, **options):
        """Starts a program that ends with the test at the latest, and returns its subprocess.Popen."""
        options.setdefault("stdin", subprocess.DEVNULL)
        process = subprocess.Popen([str(word) for word in [*self.wrapper, *command]], **options)
        self._test.addCleanup(processes.end, process)
        return process


class Network:
    """Hosts and links. The test is skipped where the system allows no namespaces."""

    def __init__(self, test):
        self._test = test
        self._switch = _Namespace(test, "switch")
        self.links = []
        self.hosts = []
        self.link()

    def link(self):
        """One more Ethernet, apart from the others."""
        self.links.append(Link(self._switch, len(self.links)))
        return self.links[-1]

    def host(self, name=None, links=None):
        """A host on the first link, or on these; "host1", … unless it is named."""
        host = Host(self._test, self._switch, name or f"host{len(self.hosts) + 1}")
        for link in links or self.links[:1]:
            host.plug(link)
        self.hosts.append(host)
        return host
