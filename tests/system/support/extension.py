"""The private extension of docs/extension.md, as a client of our own speaks it: options, and compressed transfers."""

import ctypes
import socket
import struct

from support.processes import LIMIT_SECONDS

OPTION = MESSAGE = 0x544C564B
HELLO, PROPERTIES, EXPORTS, EVALUATE, COMPRESSION = range(5)
ACK, INFO, UNSUPPORTED, INVALID = 1, 3, 0x80000001, 0x80000003
STRUCTURED_REPLY, GO = 8, 7
READ, WRITE = 0, 1
FLAG_COMPRESSED = 1 << 14
CHUNK_DATA, CHUNK_HOLE, CHUNK_COMPRESSED, CHUNK_ERROR = 1, 2, 0x4001, 0x8001
PLAIN = 1 << 31
BLOCK = 128 * 1024

_zstd = ctypes.CDLL("libzstd.so.1")
for _name in ("ZSTD_compress", "ZSTD_decompress"):
    getattr(_zstd, _name).restype = ctypes.c_size_t
_zstd.ZSTD_compress.argtypes = [ctypes.c_char_p, ctypes.c_size_t, ctypes.c_char_p, ctypes.c_size_t, ctypes.c_int]
_zstd.ZSTD_decompress.argtypes = [ctypes.c_char_p, ctypes.c_size_t, ctypes.c_char_p, ctypes.c_size_t]


def zstd(data):
    output = ctypes.create_string_buffer(len(data) + 1024)
    length = _zstd.ZSTD_compress(output, len(output), data, len(data), 3)
    return output.raw[:length]


def unzstd(data, length):
    output = ctypes.create_string_buffer(length)
    assert _zstd.ZSTD_decompress(output, length, data, len(data)) == length
    return output.raw


def framed(data, length=None, plain=False):
    """One block as it stands on the wire."""
    return struct.pack(">I", (len(data) if length is None else length) | (PLAIN if plain else 0)) + data


def blocks(data, length=BLOCK):
    """All of `data` in blocks, compressed where that makes them shorter."""
    pieces = [data[at : at + length] for at in range(0, len(data), length)]
    return b"".join(min(framed(zstd(piece)), framed(piece, plain=True), key=len) for piece in pieces)


def expanded(payload, length, block=BLOCK):
    """What the blocks stand for."""
    data = b""
    while payload:
        (head,) = struct.unpack(">I", payload[:4])
        size = head & ~PLAIN
        part, payload = payload[4 : 4 + size], payload[4 + size :]
        assert len(part) == size, "a block is cut"
        data += part if head & PLAIN else unzstd(part, min(block, length - len(data)))
    assert len(data) == length, (len(data), length)
    return data


class Ended(Exception):
    """The server closed the connection."""


class Client:
    """One connection, with structured replies and, if it is wanted and the server agrees, compression."""

    def __init__(self, port, name, compression=True, host="127.0.0.1"):
        self._socket = socket.create_connection((host, port), timeout=LIMIT_SECONDS)
        self._socket.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        self._cookie = 0
        self._receive(18)
        self._socket.sendall(struct.pack(">I", 3))
        body = struct.pack(">HHI16sH", 1, 1, 0, b"", 0)
        self.hello = self.option(OPTION, struct.pack(">HH", 0, HELLO) + body)[0][1]
        if compression:
            agreed = self.option(OPTION, struct.pack(">HHHI", 1, COMPRESSION, 1, BLOCK))
            assert agreed[0][1][4:] == struct.pack(">HI", 1, BLOCK), agreed
        self.option(STRUCTURED_REPLY, b"")
        self.option(GO, struct.pack(">I", len(name)) + name.encode() + struct.pack(">H", 0))

    def close(self):
        self._socket.close()

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()

    def send(self, data):
        self._socket.sendall(data)

    def _receive(self, length):
        received = b""
        while len(received) < length:
            try:
                part = self._socket.recv(length - len(received))
            except ConnectionResetError:
                part = b""
            if not part:
                raise Ended
            received += part
        return received

    def option(self, code, data):
        """The replies to an option: their types and data."""
        self.send(b"IHAVEOPT" + struct.pack(">II", code, len(data)) + data)
        replies = []
        while not replies or (replies[-1][0] != ACK and replies[-1][0] < 1 << 31):
            _, option, kind, length = struct.unpack(">QIII", self._receive(20))
            assert option == code, option
            replies.append((kind, self._receive(length)))
        return replies

    def request(self, command, offset, length, flags=0):
        self._cookie += 1
        self.send(struct.pack(">IHHQQI", 0x25609513, flags, command, self._cookie, offset, length))

    def read(self, offset, length):
        """The data, and how many bytes of payload carried them."""
        self.request(READ, offset, length)
        data, on_wire, done = bytearray(length), 0, False
        while not done:
            magic, flags, kind, cookie, size = struct.unpack(">IHHQI", self._receive(20))
            assert (magic, cookie) == (0x668E33EF, self._cookie), (hex(magic), cookie)
            payload, done = self._receive(size), flags & 1
            assert kind < 1 << 15, f"error: {payload}"
            if kind == CHUNK_DATA:
                at = struct.unpack(">Q", payload[:8])[0] - offset
                data[at : at + size - 8] = payload[8:]
                on_wire += size - 8
            elif kind == CHUNK_COMPRESSED:
                at, plain = struct.unpack(">QI", payload[:12])
                data[at - offset : at - offset + plain] = expanded(payload[12:], plain)
                on_wire += size - 12
            else:
                assert kind == CHUNK_HOLE, kind
        return bytes(data), on_wire

    def _reply(self):
        """The cookie and the error of the next reply; 0 for success."""
        (magic,) = struct.unpack(">I", self._receive(4))
        if magic == 0x67446698:
            error, cookie = struct.unpack(">IQ", self._receive(12))
        else:
            _, kind, cookie, size = struct.unpack(">HHQI", self._receive(16))
            payload = self._receive(size)
            error = struct.unpack(">I", payload[:4])[0] if kind == CHUNK_ERROR else 0
        return cookie, error

    def error(self):
        """The error of the next reply, which is to the last request; 0 for success."""
        cookie, error = self._reply()
        assert cookie == self._cookie
        return error

    def errors(self, count):
        """The errors of so many requests, the last ones, whose replies come in any order."""
        replies = dict(self._reply() for _ in range(count))
        return [replies[self._cookie - earlier] for earlier in reversed(range(count))]

    def write(self, offset, data):
        self.request(WRITE, offset, len(data))
        self.send(data)
        return self.error()

    def write_compressed(self, offset, length, payload):
        self.request(WRITE, offset, length, FLAG_COMPRESSED)
        self.send(struct.pack(">I", len(payload)) + payload)
        return self.error()
