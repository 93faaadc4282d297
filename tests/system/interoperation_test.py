"""Stock NBD clients read and write what nbdd exports: every tool on every kind of node, over IPv4 and IPv6."""

import json
import os
import unittest

from support import images, nbd
from support.processes import run, tool
from support.service import ENGINE, LOOPBACK, Service, ring_allowed


def extents_of(path):
    """The data and holes of a file as the kernel tells them: (offset, length, is a hole)."""
    extents = []
    with open(path, "rb") as file:
        end = os.fstat(file.fileno()).st_size
        offset = 0
        while offset < end:
            try:
                data = os.lseek(file.fileno(), offset, os.SEEK_DATA)
            except OSError:  # ENXIO: a hole up to the end
                data = end
            if data > offset:
                extents.append((offset, data - offset, True))
                offset = data
            else:
                hole = os.lseek(file.fileno(), offset, os.SEEK_HOLE)
                extents.append((offset, hole - offset, False))
                offset = hole
    return extents


class Exported:
    """A node that is exported for each test, and what must hold of it whatever it is."""

    def make_node(self):
        raise NotImplementedError

    def setUp(self):
        self.service = Service(self).start().start_server()
        self.node = self.make_node()
        self.number, self.name = self.service.publish(self.node)
        self.original = images.content(self.node)
        self.size = len(self.original)
        self.uris = [self.service.uri(self.name, family) for family in LOOPBACK]

    def scratch(self, name):
        return self.service.root / name

    def expect_content(self, expected, what):
        difference = images.first_difference(images.content(self.node), expected)
        self.assertEqual(difference, "", f"after {what} the node {difference}")

    def expect_file(self, path, expected, what):
        difference = images.first_difference(images.content(path), expected)
        self.assertEqual(difference, "", f"{what} {difference}")

    def new_content(self, seed):
        """Other bytes of the same size, with a stretch of zeros in the middle."""
        content = bytearray(images.random_bytes(self.size, seed))
        third = self.size // 3 // 4096 * 4096
        content[third : 2 * third] = bytes(third)
        return bytes(content)

    def test_the_engine_is_the_one_asked_for(self):
        expected = ENGINE if ring_allowed() else "threads"
        self.assertEqual(self.service.properties()["storage engine"]["text"], expected)

    # nbdinfo

    def test_nbdinfo_describes_the_export(self):
        for uri in self.uris:
            plain = run([tool("nbdinfo"), uri]).out
            self.assertIn(f"export-size: {self.size}", plain)
            export = json.loads(run([tool("nbdinfo"), "--json", uri]).out)["exports"][0]
            self.assertEqual(export["export-size"], self.size)
            for ability in ("flush", "fua", "trim", "zero", "fast_zero", "multi_conn", "cache", "df"):
                self.assertTrue(export[f"can_{ability}"], f"can_{ability} in {export}")
            self.assertFalse(export["is_read_only"])
            self.assertEqual(export["contexts"], ["base:allocation"])

    def test_nbdinfo_lists_the_export(self):
        for family, host in ((4, "127.0.0.1"), (6, "[::1]")):
            server = f"nbd://{host}:{self.service.port}"
            listed = json.loads(run([tool("nbdinfo"), "--list", "--json", server]).out)["exports"]
            self.assertEqual([export["export-name"] for export in listed], [self.name], f"IPv{family}")
            self.assertIn(f'export="{self.name}"', run([tool("nbdinfo"), "--list", server]).out)

    def test_nbdinfo_maps_what_is_there(self):
        for uri in self.uris:
            entries = json.loads(run([tool("nbdinfo"), "--map", "--json", uri]).out)
            end = 0
            for entry in entries:
                self.assertEqual(entry["offset"], end, f"the map has a gap: {entries}")
                end += entry["length"]
                if entry["type"] & 2:  # reads as zeros
                    part = self.original[entry["offset"] : end]
                    self.assertEqual(part.count(0), len(part), f"{entry} is not zero")
            self.assertEqual(end, self.size)
            if self.node.is_file():
                mapped = [(e["offset"], e["length"], bool(e["type"] & 1)) for e in entries]
                self.assertEqual(mapped, extents_of(self.node))

    def test_nbd_client_lists_the_export(self):
        for host in LOOPBACK.values():
            out = run([tool("nbd-client"), "-l", host, self.service.port]).out
            self.assertIn(self.name, [line.strip() for line in out.splitlines()])

    # nbdcopy

    def test_nbdcopy_out(self):
        for options in ([], ["--connections=4"], ["--synchronous"], ["--request-size=65536"]):
            for uri in self.uris:
                target = self.scratch("out")
                run([tool("nbdcopy"), *options, uri, target])
                self.expect_file(target, self.original, f"nbdcopy {options}")
                target.unlink()

    def test_nbdcopy_in(self):
        for seed, options in enumerate(([], ["--connections=4"], ["--flush", "--requests=8"], ["--allocated"])):
            for uri in self.uris:
                source = self.scratch("in")
                content = self.new_content(seed)
                source.write_bytes(content)
                run([tool("nbdcopy"), *options, source, uri])
                self.expect_content(content, f"nbdcopy {options}")

    # qemu-img, which knows sizes in sectors only

    def rounded(self, size):
        return -(-size // 512) * 512

    def test_qemu_img_info_and_map(self):
        for uri in self.uris:
            info = json.loads(run([tool("qemu-img"), "info", "-f", "raw", "--output=json", uri]).out)
            self.assertEqual(info["virtual-size"], self.rounded(self.size))
            entries = json.loads(run([tool("qemu-img"), "map", "-f", "raw", "--output=json", uri]).out)
            end = 0
            for entry in entries:
                self.assertEqual(entry["start"], end)
                end += entry["length"]
                if entry["zero"]:
                    part = self.original[entry["start"] : end]
                    self.assertEqual(part.count(0), len(part), f"{entry} is not zero")
            self.assertEqual(end, self.rounded(self.size))

    def test_qemu_img_convert_out_and_compare(self):
        for uri in self.uris:
            target = self.scratch("out.qcow2")
            run([tool("qemu-img"), "convert", "-f", "raw", "-O", "qcow2", uri, target])
            run([tool("qemu-img"), "compare", "-f", "qcow2", "-F", "raw", target, uri])
            back = self.scratch("out.raw")
            run([tool("qemu-img"), "convert", "-f", "qcow2", "-O", "raw", target, back])
            expected = self.original.ljust(self.rounded(self.size), b"\0")
            self.expect_file(back, expected, "qemu-img convert")

    def test_qemu_img_compare_sees_a_difference(self):
        other = self.scratch("other")
        other.write_bytes(self.original[:4096] + bytes([self.original[4096] ^ 1]) + self.original[4097:])
        compared = run(
            [tool("qemu-img"), "compare", "-f", "raw", "-F", "raw", other, self.uris[0]], check=False
        )
        self.assertEqual(compared.status, 1, str(compared))
        self.assertIn("offset 4096", compared.out)

    def test_qemu_img_convert_in(self):
        # qemu-img writes whole sectors: of an odd size it gets those that are there.
        whole = self.size // 512 * 512
        for seed, host in enumerate(LOOPBACK.values(), 10):
            content = self.new_content(seed)[:whole]
            source = self.scratch("in")
            source.write_bytes(content)
            target = (
                f"driver=raw,size={whole},file.driver=nbd,file.host={host},file.port={self.service.port},"
                f"file.export={self.name}"
            )
            run(
                [tool("qemu-img"), "convert", "-n", "-f", "raw", "-W", "-m", "8", "--target-image-opts"]
                + [source, target]
            )
            self.expect_content(content + self.original[whole:], "qemu-img convert -n")

    # qemu-io

    def test_qemu_io(self):
        commands = [
            "write -P 0x11 0 1M",
            "read -P 0x11 0 1M",
            "write -P 0x22 4097 3",  # aligned to nothing
            "read -P 0x22 4097 3",
            "write -f -P 0x33 131072 65536",  # FUA
            "aio_write -P 0x44 262144 65536",
            "aio_write -P 0x55 393216 65536",
            "aio_flush",
            "flush",
            "discard 524288 65536",
            "read -P 0 524288 65536",
            "write -z 655360 65536",
            "read -P 0 655360 65536",
            "write -z -u 786432 65536",  # may punch a hole
            "read -P 0 786432 65536",
            "write -z 917505 4097",
            "read -P 0 917505 4097",
            "read -P 0x11 917504 1",
        ]
        expected = bytearray(self.original)
        expected[: images.MIB] = b"\x11" * images.MIB
        for offset, pattern, length in (
            (4097, 0x22, 3),
            (131072, 0x33, 65536),
            (262144, 0x44, 65536),
            (393216, 0x55, 65536),
            (524288, 0, 65536),
            (655360, 0, 65536),
            (786432, 0, 65536),
            (917505, 0, 4097),
        ):
            expected[offset : offset + length] = bytes([pattern]) * length
        words = [word for command in commands for word in ("-c", command)]
        for uri in self.uris:
            result = run([tool("qemu-io"), "-f", "raw", *words, uri])
            self.assertNotIn("fail", result.out + result.err)
            self.expect_content(bytes(expected), "qemu-io")

    def test_qemu_io_fast_zero(self):
        """Zeroes that must be fast either are, or are refused and leave every byte as it was."""
        for uri in self.uris:
            before = images.content(self.node)
            result = run([tool("qemu-io"), "-f", "raw", "-c", "write -z -n 65536 131072", uri], check=False)
            expected = before
            if result.status == 0:
                expected = before[:65536] + bytes(131072) + before[65536 + 131072 :]
            else:
                self.assertIn("not supported", result.out + result.err)
            self.expect_content(expected, "write -z -n")

    # fio

    def test_fio_verifies_on_several_connections(self):
        for uri in self.uris:
            region = 1024 * 1024
            run(
                [
                    tool("fio"),
                    "--name=verify",
                    "--ioengine=nbd",
                    f"--uri={uri}",
                    "--rw=randwrite",
                    "--bssplit=512/20:4k/40:12k/20:64k/20",
                    "--blockalign=512",
                    "--iodepth=16",
                    "--numjobs=4",
                    f"--size={region}",
                    f"--offset_increment={region}",
                    "--verify=crc32c",
                    "--verify_fatal=1",
                    "--do_verify=1",
                    "--verify_state_save=0",
                    "--fsync=32",
                    "--group_reporting",
                ],
                cwd=self.service.root,
            )
            # The last megabyte belongs to no job.
            tail = images.content(self.node)[4 * region :]
            self.assertEqual(images.first_difference(tail, self.original[4 * region :]), "")


class Zeros(Exported, unittest.TestCase):
    def make_node(self):
        path = self.service.images / "zeros.img"
        images.write_zeros(path)
        return path


class RandomBytes(Exported, unittest.TestCase):
    def make_node(self):
        path = self.service.images / "random bytes \u00fc.img"
        images.write_random(path)
        return path


class Holes(Exported, unittest.TestCase):
    def make_node(self):
        path = self.service.images / "holes.img"
        images.write_holes(path)
        return path


class OddSize(Exported, unittest.TestCase):
    def make_node(self):
        path = self.service.images / "odd.img"
        images.write_odd(path)
        return path


class LoopDevice(Exported, unittest.TestCase):
    def make_node(self):
        backing = self.service.images / "backing.img"
        images.write_holes(backing)
        return images.loop_device(self, backing)


class ReadOnly(unittest.TestCase):
    """A read-only export can be read like any other, and refuses each kind of write."""

    def setUp(self):
        self.service = Service(self).start().start_server()
        self.node = self.service.images / "read-only.img"
        images.write_random(self.node)
        self.original = images.content(self.node)
        _, self.name = self.service.publish(self.node, read_only=True)
        self.uri = self.service.uri(self.name)

    def tearDown(self):
        self.assertEqual(images.first_difference(images.content(self.node), self.original), "")

    def test_stock_clients_see_it(self):
        export = json.loads(run([tool("nbdinfo"), "--json", self.uri]).out)["exports"][0]
        self.assertTrue(export["is_read_only"])
        for ability in ("trim", "zero", "fast_zero"):
            self.assertFalse(export[f"can_{ability}"], ability)

    def test_it_can_be_read(self):
        target = self.service.root / "out"
        run([tool("nbdcopy"), self.uri, target])
        self.assertEqual(images.first_difference(images.content(target), self.original), "")

    def test_each_write_is_refused(self):
        with nbd.Client(self.service.port, self.name) as client:
            for flags in (0, nbd.FUA):
                for words in (
                    {"command": nbd.WRITE, "data": bytes(4096)},
                    {"command": nbd.TRIM, "length": 4096},
                    {"command": nbd.WRITE_ZEROES, "length": 4096},
                ):
                    error, _ = client.request(offset=8192, flags=flags, **words)
                    self.assertEqual(error, nbd.EPERM, words["command"])
            self.assertEqual(client.request(nbd.FLUSH)[0], 0)
            self.assertEqual(client.request(nbd.READ, 0, 512), (0, self.original[:512]))

    def test_stock_writers_fail(self):
        source = self.service.root / "in"
        source.write_bytes(bytes(images.SIZE))
        for command in (
            [tool("nbdcopy"), source, self.uri],
            [tool("qemu-img"), "convert", "-n", "-f", "raw", "-O", "raw", source, self.uri],
            [tool("qemu-io"), "-f", "raw", "-c", "write 0 4096", self.uri],
        ):
            result = run(command, check=False)
            self.assertNotEqual(result.status, 0, str(result))


class DefaultExport(unittest.TestCase):
    """The empty name means the only export, and nothing when there are several, or none."""

    def setUp(self):
        self.service = Service(self).start().start_server()

    def publish(self, name):
        node = self.service.images / name
        node.write_bytes(images.random_bytes(4096, seed=name))
        return self.service.publish(node)

    def test_without_an_export(self):
        with self.assertRaises(nbd.Refused):
            nbd.Client(self.service.port, "")

    def test_the_only_export(self):
        number, _ = self.publish("one")
        with nbd.Client(self.service.port, "") as client:
            self.assertEqual(client.size, 4096)
        export = json.loads(run([tool("nbdinfo"), "--json", self.service.uri("")]).out)["exports"][0]
        self.assertEqual(export["export-size"], 4096)
        with self.service.control() as control:
            control.ExportDisable(id=number, force=True)
        with self.assertRaises(nbd.Refused):
            nbd.Client(self.service.port, "")

    def test_two_exports(self):
        self.publish("one")
        number, _ = self.publish("two")
        with self.assertRaises(nbd.Refused):
            nbd.Client(self.service.port, "")
        self.assertNotEqual(run([tool("nbdinfo"), self.service.uri("")], check=False).status, 0)
        with self.service.control() as control:
            control.ExportDisable(id=number, force=True)
        with nbd.Client(self.service.port, "") as client:
            self.assertEqual(client.request(nbd.READ, 0, 4096)[1], images.random_bytes(4096, seed="one"))

    def test_an_unknown_name(self):
        self.publish("one")
        with self.assertRaises(nbd.Refused):
            nbd.Client(self.service.port, "two")


if __name__ == "__main__":
    unittest.main()
