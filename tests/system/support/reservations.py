"""Reservations, as hosts ask for them, and what others can try."""

import base64
import os
import socket
import struct
import threading

from support import processes

NOT_RESERVED, WRONG_PASSWORD, RESERVED_BY_OTHER, RESERVATION_DISABLED, TOO_MANY_ATTEMPTS = range(0x60, 0x65)

EXTENSION = 0x544C564B
BEGIN_RESERVING, FINISH_RESERVING = 0x10, 0x11
_GO, _ACK = 7, 1


class Reservations:
    """What an operator asks of one service."""

    def __init__(self, service):
        self._service = service

    def password(self, word=None):
        with self._service.control() as control:
            control.ServerEnableReservation(**({} if word is None else {"password": word}))

    def reserve(self, address, word, port=0):
        with self._service.control() as control:
            control.ServerReserveRemote(
                request={"endpoint": {"address": address, "port": port}, "password": word, "properties": []}
            )

    def unreserve(self, address, port=0):
        with self._service.control() as control:
            control.ServerUnreserveRemote(endpoint={"address": address, "port": port})

    def held(self):
        """The addresses of the servers that this host has reserved."""
        with self._service.control() as control:
            return [each["endpoint"]["address"] for each in control.ServerListRemoteReservations()["reservations"]]

    def holder(self):
        """The address of the host that has reserved this server."""
        with self._service.control() as control:
            return control.ServerGetReservation()["reservation"]["endpoint"]["address"]


class Recorder:
    """Stands between a client and a server on loopback, passes everything on, and remembers what the client said."""

    def __init__(self, test, port):
        self._server = port
        self._listener = socket.create_server(("127.0.0.1", 0))
        self.port = self._listener.getsockname()[1]
        self.said = []  # of each connection, in the order in which they began
        self._thread = threading.Thread(target=self._run, daemon=True)
        self._thread.start()
        test.addCleanup(self._end)

    def _run(self):
        while True:
            try:
                client, _ = self._listener.accept()
            except OSError:
                return
            heard = bytearray()
            self.said.append(heard)
            threading.Thread(target=self._serve, args=(client, heard), daemon=True).start()

    def _serve(self, client, heard):
        with client, socket.create_connection(("127.0.0.1", self._server)) as server:
            back = threading.Thread(target=self._pass_on, args=(server, client, None), daemon=True)
            back.start()
            self._pass_on(client, server, heard)
            back.join()

    @staticmethod
    def _pass_on(source, sink, record):
        try:
            while part := source.recv(1 << 16):
                if record is not None:
                    record += part
                sink.sendall(part)
        except OSError:
            pass
        for end in (source, sink):
            try:
                end.shutdown(socket.SHUT_RDWR)
            except OSError:
                pass

    def _end(self):
        self._listener.shutdown(socket.SHUT_RDWR)
        self._listener.close()
        self._thread.join()


def replay(port, said, address="127.0.0.1"):
    """Says the same to a server again, and returns all that it answers until it has nothing more to say."""
    with socket.create_connection((address, port), timeout=processes.LIMIT_SECONDS) as connection:
        connection.sendall(said)
        connection.shutdown(socket.SHUT_WR)
        answer = bytearray()
        try:
            while part := connection.recv(1 << 16):
                answer += part
        except ConnectionResetError:
            pass
        return bytes(answer)


def replies(answer):
    """The option replies behind the greeting: (option, type, data)."""
    found = []
    rest = answer[18:]
    while len(rest) >= 20:
        magic, option, kind, length = struct.unpack(">QIII", rest[:20])
        if magic != 0x0003E889045565A9:
            break
        found.append((option, kind, rest[20 : 20 + length]))
        rest = rest[20 + length :]
    return found


class Guesser:
    """A client that gives passwords that are wrong, without any patience."""

    def __init__(self, address, port):
        self._socket = socket.create_connection((address, port), timeout=processes.LIMIT_SECONDS)
        self._input = self._socket.makefile("rb")
        self._input.read(18)
        self._socket.sendall(struct.pack(">I", 3))

    def close(self):
        self._input.close()
        self._socket.close()

    def _ask(self, kind, body):
        data = struct.pack(">HH", 1, kind) + body
        self._socket.sendall(struct.pack(">8sII", b"IHAVEOPT", EXTENSION, len(data)) + data)
        answer = None
        while True:
            header = self._input.read(20)
            if len(header) < 20:
                raise EOFError
            _, _, reply, length = struct.unpack(">QIII", header)
            content = self._input.read(length)
            if reply != EXTENSION:
                return answer
            answer = content[4:]

    def guess(self):
        """The status of the answer: 2 wrong password, 5 too many attempts."""
        begun = self._ask(BEGIN_RESERVING, b"n,,n=reservation,r=" + base64.b64encode(os.urandom(18)))
        if begun[:2] != b"\0\0":
            return struct.unpack(">H", begun[:2])[0]
        nonce = begun[2:].split(b",")[0]
        proof = base64.b64encode(os.urandom(32))
        finished = self._ask(FINISH_RESERVING, b"c=biws," + nonce + b",p=" + proof)
        return struct.unpack(">H", finished[:2])[0]
