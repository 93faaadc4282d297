"""A client that asks for TLS by hand: every byte of the handshake is the test's own."""

import socket
import ssl
import struct

from support.processes import LIMIT_SECONDS

EXPORT_NAME, ABORT, LIST, START_TLS, INFO, GO, STRUCTURED_REPLY = 1, 2, 3, 5, 6, 7, 8
ACK, SERVER = 1, 2
UNSUPPORTED, POLICY, INVALID, TLS_REQUIRED, UNKNOWN = (1 << 31) + 1, (1 << 31) + 2, (1 << 31) + 3, (1 << 31) + 5, (
    1 << 31
) + 6


def option(code, data=b""):
    return struct.pack(">8sII", b"IHAVEOPT", code, len(data)) + data


def go_data(name):
    return struct.pack(">I", len(name)) + name.encode() + struct.pack(">H", 0)


class Client:
    """A connection whose flags are sent and whose options are the caller's."""

    def __init__(self, port, host="127.0.0.1"):
        self.socket = socket.create_connection((host, port), timeout=LIMIT_SECONDS)
        self.greeting = self.receive(18)
        self.socket.sendall(struct.pack(">I", 3))

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.socket.close()

    def receive(self, length):
        data = b""
        while len(data) < length:
            part = self.socket.recv(length - len(data))
            if not part:
                raise EOFError(data)
            data += part
        return data

    def rest(self):
        """All that still comes, to the end of the connection, however it ends."""
        data = b""
        try:
            while part := self.socket.recv(65536):
                data += part
        except (ConnectionResetError, ssl.SSLError):
            pass
        return data

    def send(self, data):
        self.socket.sendall(data)

    def reply(self):
        """The next reply to an option: its type and data."""
        _, _, kind, length = struct.unpack(">QIII", self.receive(20))
        return kind, self.receive(length)

    def ask(self, code, data=b""):
        """The types of all replies to one option."""
        self.send(option(code, data))
        kinds = []
        while not kinds or kinds[-1] not in (ACK,) and kinds[-1] < 1 << 31:
            kinds.append(self.reply()[0])
        return kinds

    def secure(self, context):
        """Asks for TLS and goes through its handshake."""
        kinds = self.ask(START_TLS)
        assert kinds == [ACK], kinds
        self.socket = context.wrap_socket(self.socket, server_hostname="localhost")
        return self


def context(authority=None, certificate=None):
    """Trusts `authority`'s certificate, or nobody in particular; shows the one in directory `certificate`."""
    made = ssl.SSLContext(ssl.PROTOCOL_TLS_CLIENT)
    if authority is None:
        made.check_hostname = False
        made.verify_mode = ssl.CERT_NONE
    else:
        made.load_verify_locations(authority.certificate)
    if certificate is not None:
        made.load_cert_chain(certificate / "client-cert.pem", certificate / "client-key.pem")
    return made
