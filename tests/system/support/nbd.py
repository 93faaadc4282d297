"""A small NBD client of our own: fixed newstyle, simple replies, as many requests in flight as one likes."""

import socket
import struct

from support.processes import LIMIT_SECONDS

READ, WRITE, DISCONNECT, FLUSH, TRIM, CACHE, WRITE_ZEROES = range(7)
FUA = 1 << 0

EPERM, EIO, EINVAL, ENOSPC, ESHUTDOWN = 1, 5, 22, 28, 108

_GREETING = b"NBDMAGICIHAVEOPT"
_OPTION = struct.Struct(">QII")
_OPTION_REPLY = struct.Struct(">QIII")
_REQUEST = struct.Struct(">IHHQQI")
_REPLY = struct.Struct(">IIQ")
_OPTION_REPLY_MAGIC = 0x0003E889045565A9
_GO, _ACK, _INFO = 7, 1, 3


class Refused(Exception):
    """The server answered GO with an error of its own."""


class ConnectionEnded(Exception):
    """The server closed the connection."""


class Client:
    """One connection to one export, in the transmission phase."""

    def __init__(self, port, name, host="127.0.0.1"):
        self._socket = socket.create_connection((host, port), timeout=LIMIT_SECONDS)
        self._socket.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        self._next_cookie = 1
        self._read_lengths = {}
        try:
            self._go(name.encode())
        except BaseException:
            self._socket.close()
            raise

    def close(self):
        self._socket.close()

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()

    def _receive(self, length):
        received = bytearray()
        while len(received) < length:
            try:
                part = self._socket.recv(length - len(received))
            except ConnectionResetError:
                part = b""
            if not part:
                raise ConnectionEnded()
            received += part
        return bytes(received)

    def _go(self, name):
        greeting = self._receive(18)
        assert greeting.startswith(_GREETING), greeting
        data = struct.pack(">I", len(name)) + name + struct.pack(">H", 0)
        self._socket.sendall(struct.pack(">I", 3) + _OPTION.pack(0x49484156454F5054, _GO, len(data)) + data)
        while True:
            magic, option, kind, length = _OPTION_REPLY.unpack(self._receive(20))
            assert (magic, option) == (_OPTION_REPLY_MAGIC, _GO), (magic, option)
            reply = self._receive(length)
            if kind == _ACK:
                return
            if kind >= 1 << 31:
                raise Refused(hex(kind), reply)
            if kind == _INFO and reply[:2] == b"\0\0":
                self.size, self.flags = struct.unpack(">QH", reply[2:12])

    def submit(self, command, offset=0, length=0, data=b"", flags=0):
        """Sends a request and returns its cookie. The length of a write is that of its data."""
        cookie = self._next_cookie
        self._next_cookie += 1
        if command == READ:
            self._read_lengths[cookie] = length
        header = _REQUEST.pack(0x25609513, flags, command, cookie, offset, len(data) or length)
        try:
            self._socket.sendall(header + data)
        except (BrokenPipeError, ConnectionResetError):
            raise ConnectionEnded() from None
        return cookie

    def receive(self):
        """The next reply, whichever it is: cookie, error, data that were read."""
        magic, error, cookie = _REPLY.unpack(self._receive(16))
        assert magic == 0x67446698, hex(magic)
        length = self._read_lengths.pop(cookie, 0)
        return cookie, error, self._receive(length) if error == 0 else b""

    def request(self, *words, **named):
        """One request and its reply: error and data."""
        sent = self.submit(*words, **named)
        cookie, error, data = self.receive()
        assert cookie == sent, (cookie, sent)
        return error, data

    def disconnect(self):
        self._socket.sendall(_REQUEST.pack(0x25609513, 0, DISCONNECT, 0, 0, 0))
        assert self._socket.recv(1) == b"", "the server did not close after DISC"
        self._socket.close()
