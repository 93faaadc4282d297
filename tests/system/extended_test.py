"""Extended headers, spoken by a client that shares not a line with the server: its bytes are written down here."""

import os
import socket
import struct
import unittest

from support.processes import LIMIT_SECONDS
from support.service import Service

READ, WRITE, DISCONNECT, FLUSH, TRIM, CACHE, WRITE_ZEROES, BLOCK_STATUS = range(8)
PAYLOAD_LENGTH = 1 << 5
EINVAL, ENOSPC, EOVERFLOW = 22, 28, 75
HOLE_AND_ZERO = 3

OPTION_MAGIC, OPTION_REPLY_MAGIC = 0x49484156454F5054, 0x0003E889045565A9
GO, STRUCTURED_REPLY, SET_META_CONTEXT, EXTENDED_HEADERS = 7, 8, 10, 11
ACK, INFO, EXTENDED_HEADERS_REQUIRED = 1, 3, 0x8000000A
REQUEST_MAGIC, REPLY_MAGIC = 0x21E41C71, 0x6E8A278C
NONE, OFFSET_DATA, OFFSET_HOLE, BLOCK_STATUS_EXT, ERROR = 0, 1, 2, 6, 0x8001
DONE = 1

TERABYTE = 1 << 40


def counted(text):
    return struct.pack(">I", len(text)) + text


class Client:
    """One connection with extended headers, one request at a time."""

    def __init__(self, port, name):
        self.socket = socket.create_connection(("127.0.0.1", port), timeout=LIMIT_SECONDS)
        self.stream = self.socket.makefile("rb")
        assert self.stream.read(18)[:16] == b"NBDMAGICIHAVEOPT"
        self.socket.sendall(struct.pack(">I", 3))
        self.option_end(EXTENDED_HEADERS, b"")
        name = name.encode()
        query = counted(name) + struct.pack(">I", 1) + counted(b"base:allocation")
        ((_, context),) = self.option_end(SET_META_CONTEXT, query)
        self.context = struct.unpack(">I", context[:4])[0]
        infos = self.option_end(GO, counted(name) + struct.pack(">HH", 1, 3))
        told = {struct.unpack(">H", data[:2])[0]: data[2:] for kind, data in infos if kind == INFO}
        self.size, self.flags = struct.unpack(">QH", told[0])
        self.block_sizes = struct.unpack(">III", told[3])

    def option(self, code, data):
        """All replies to an option: kind and data of each."""
        self.socket.sendall(struct.pack(">QII", OPTION_MAGIC, code, len(data)) + data)
        replies = []
        while True:
            magic, echoed, kind, length = struct.unpack(">QIII", self.stream.read(20))
            assert (magic, echoed) == (OPTION_REPLY_MAGIC, code), (hex(magic), echoed)
            replies.append((kind, self.stream.read(length)))
            if kind == ACK or kind >= 1 << 31:
                return replies

    def option_end(self, code, data):
        *replies, (kind, message) = self.option(code, data)
        assert kind == ACK, (hex(kind), message)
        return replies

    def request(self, command, offset=0, length=0, payload=b"", flags=0):
        """The chunks of the reply: type and payload of each."""
        cookie = 0xC00C1E00 + command
        if payload:
            flags, length = flags | PAYLOAD_LENGTH, len(payload)
        header = struct.pack(">IHHQQQ", REQUEST_MAGIC, flags, command, cookie, offset, length)
        self.socket.sendall(header + payload)
        chunks = []
        while True:
            magic, flags, kind, echoed, at, length = struct.unpack(">IHHQQQ", self.stream.read(32))
            assert (magic, echoed, at) == (REPLY_MAGIC, cookie, offset), (hex(magic), echoed, at)
            chunks.append((kind, self.stream.read(length)))
            if flags & DONE:
                return chunks

    def error(self, *words, **named):
        """The error that a request is answered with, 0 for success without anything else."""
        ((kind, payload),) = self.request(*words, **named)
        assert kind in (NONE, ERROR), kind
        return struct.unpack(">I", payload[:4])[0] if kind == ERROR else 0

    def extents(self, *words, **named):
        ((kind, payload),) = self.request(BLOCK_STATUS, *words, **named)
        assert kind == BLOCK_STATUS_EXT, kind
        context, count = struct.unpack(">II", payload[:8])
        assert context == self.context and len(payload) == 8 + 16 * count, (context, count)
        return list(struct.iter_unpack(">QQ", payload[8:]))

    def close(self):
        self.stream.close()
        self.socket.close()


class ExtendedHeaders(unittest.TestCase):
    def setUp(self):
        self.service = Service(self, listen=("127.0.0.1",)).start().start_server()
        self.image = self.service.images / "large"
        self.image.touch()
        os.truncate(self.image, 8 * TERABYTE)
        _, self.name = self.service.publish(self.image)
        self.client = Client(self.service.port, self.name)
        self.addCleanup(self.service.stop)
        self.addCleanup(self.client.close)

    def test_the_handshake(self):
        self.assertEqual(self.client.size, 8 * TERABYTE)
        self.assertTrue(self.client.flags & 1 << 12, "a filter for BLOCK_STATUS")
        minimum, preferred, maximum = self.client.block_sizes
        self.assertEqual((minimum, maximum), (1, 64 << 20))
        self.assertIn(preferred, [512 << shift for shift in range(8)])

    def test_data_and_holes(self):
        data = bytes(range(1, 256)) * 16
        self.assertEqual(self.client.error(WRITE, 5 * TERABYTE, payload=data), 0)
        ((kind, payload),) = self.client.request(READ, 5 * TERABYTE, len(data))
        self.assertEqual((kind, payload), (OFFSET_DATA, struct.pack(">Q", 5 * TERABYTE) + data))
        ((kind, payload),) = self.client.request(READ, 6 * TERABYTE, 65536)
        self.assertEqual((kind, payload), (OFFSET_HOLE, struct.pack(">QI", 6 * TERABYTE, 65536)))
        self.assertEqual(self.client.error(FLUSH), 0)

    def test_lengths_of_64_bits(self):
        whole = [(8 * TERABYTE, HOLE_AND_ZERO)]
        self.assertEqual(self.client.extents(0, 8 * TERABYTE), whole)
        for command in (TRIM, WRITE_ZEROES):
            self.assertEqual(self.client.error(WRITE, 5 * TERABYTE, payload=b"x" * (1 << 20)), 0)
            self.assertEqual(
                self.client.extents(0, 8 * TERABYTE),
                [(5 * TERABYTE, HOLE_AND_ZERO), (1 << 20, 0), (3 * TERABYTE - (1 << 20), HOLE_AND_ZERO)],
            )
            self.assertEqual(self.client.error(command, 0, 8 * TERABYTE), 0)
            self.assertEqual(self.client.extents(0, 8 * TERABYTE), whole)
        self.assertEqual(self.client.error(CACHE, 0, 8 * TERABYTE), 0)

    def test_the_filter_of_block_status(self):
        def asked(*contexts):
            return struct.pack(f">Q{len(contexts)}I", 1 << 41, *contexts)

        known = self.client.context
        self.assertEqual(self.client.extents(0, payload=asked(known)), [(1 << 41, HOLE_AND_ZERO)])
        for bad in (asked(), asked(known + 1), asked(known, known), asked(known)[:-1]):
            self.assertEqual(self.client.error(BLOCK_STATUS, 0, payload=bad), EINVAL, bad)

    def test_what_is_refused(self):
        cases = [
            (READ, 0, 8 * TERABYTE, EOVERFLOW),
            (READ, 8 * TERABYTE, 1, EINVAL),
            (WRITE, 0, 4096, EINVAL),  # data are not announced, and do not come
            (TRIM, 1, 8 * TERABYTE, EINVAL),
            (WRITE_ZEROES, 1, 8 * TERABYTE, ENOSPC),
            (CACHE, (1 << 64) - 1, (1 << 64) - 1, EINVAL),
            (FLUSH, 0, 1 << 32, EINVAL),
            (BLOCK_STATUS, 0, 0, EINVAL),
        ]
        for command, offset, length, expected in cases:
            with self.subTest(command=command, offset=offset, length=length):
                self.assertEqual(self.client.error(command, offset, length), expected)
        for command in (READ, FLUSH, TRIM, CACHE, WRITE_ZEROES, 9):
            self.assertEqual(self.client.error(command, 0, payload=b"x" * 5000), EINVAL, command)

    def test_leaving(self):
        header = struct.pack(">IHHQQQ", REQUEST_MAGIC, 0, DISCONNECT, 1, 0, 0)
        self.client.socket.sendall(header)
        self.assertEqual(self.client.stream.read(), b"")

    def test_structured_replies_are_no_option_any_more(self):
        with socket.create_connection(("127.0.0.1", self.service.port), timeout=LIMIT_SECONDS) as connection:
            stream = connection.makefile("rb")
            stream.read(18)
            connection.sendall(struct.pack(">I", 3))
            kinds = []
            for option in (EXTENDED_HEADERS, STRUCTURED_REPLY):
                connection.sendall(struct.pack(">QII", OPTION_MAGIC, option, 0))
                kind, length = struct.unpack(">12xII", stream.read(20))
                stream.read(length)
                kinds.append(kind)
            stream.close()
        self.assertEqual(kinds, [ACK, EXTENDED_HEADERS_REQUIRED])


if __name__ == "__main__":
    unittest.main()
