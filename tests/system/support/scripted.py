"""Servers that say what a test has them say, true or not."""

import socket
import struct
import threading

from support import processes

EXTENSION = 0x544C564B
ACK, UNSUPPORTED = 1, 0x80000001
GREETING = b"NBDMAGICIHAVEOPT" + struct.pack(">H", 3)


class Peer:
    """A server that does with each connection what `serve(socket)` says, on a thread of its own."""

    def __init__(self, test, serve):
        self._listener = socket.create_server(("127.0.0.1", 0))
        self.port = self._listener.getsockname()[1]
        self._serve = serve
        self._thread = threading.Thread(target=self._run)
        self._thread.start()
        test.addCleanup(self._end)

    def _run(self):
        while True:
            try:
                connection, _ = self._listener.accept()
            except OSError:
                return
            with connection:
                connection.settimeout(processes.LIMIT_SECONDS)
                try:
                    self._serve(connection)
                except (ConnectionError, EOFError):
                    pass

    def _end(self):
        self._listener.shutdown(socket.SHUT_RDWR)
        self._listener.close()
        self._thread.join()


def receive(connection, length):
    received = b""
    while len(received) < length:
        part = connection.recv(length - len(received))
        if not part:
            raise EOFError
        received += part
    return received


def options(connection):
    """The options that the client sends, one by one: code and data."""
    connection.sendall(GREETING)
    receive(connection, 4)
    while True:
        magic, code, length = struct.unpack(">8sII", receive(connection, 16))
        assert magic == b"IHAVEOPT", magic
        yield code, receive(connection, length)


def reply(code, kind, data=b""):
    return struct.pack(">QIII", 0x0003E889045565A9, code, kind, len(data)) + data


def message(version, kind, body):
    return reply(EXTENSION, EXTENSION, struct.pack(">HH", version, kind) + body)


def hello(lowest, highest, capabilities=0):
    return struct.pack(">HHI", lowest, highest, capabilities) + bytes(range(16)) + struct.pack(">H", 4) + b"else"
