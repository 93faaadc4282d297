"""A client of the control socket: one call, one answer, as any Varlink client would do it."""

import json
import socket
import struct

from support.processes import LIMIT_SECONDS

INTERFACE = "org.talvek.NBD"


class Failed(Exception):
    """The service refused: `code` is one of docs/error-codes.md."""

    def __init__(self, code, message):
        super().__init__(f"code {code:#x}: {message}")
        self.code = code
        self.message = message


class ConnectionLost(Exception):
    """The service went away: what was asked last may or may not have been done."""


class Control:
    """A connection to the control socket. Methods are called by their names: `control.ExportAdd(...)`."""

    def __init__(self, path):
        self._socket = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        self._socket.settimeout(LIMIT_SECONDS)
        self._received = b""
        try:
            self._socket.connect(str(path))
        except OSError:
            self._socket.close()
            raise

    def close(self):
        self._socket.close()

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()

    def peer(self):
        """The process that listens at the other end."""
        record = self._socket.getsockopt(socket.SOL_SOCKET, socket.SO_PEERCRED, 12)
        return struct.unpack("iii", record)[0]

    def __getattr__(self, method):
        return lambda **parameters: self.call(f"{INTERFACE}.{method}", parameters)

    def call(self, method, parameters):
        message = {"method": method, "parameters": parameters}
        try:
            self._socket.sendall(json.dumps(message).encode() + b"\0")
            while b"\0" not in self._received:
                part = self._socket.recv(1 << 20)
                if not part:
                    raise ConnectionLost(method)
                self._received += part
        except (BrokenPipeError, ConnectionResetError):
            raise ConnectionLost(method) from None
        text, self._received = self._received.split(b"\0", 1)
        answer = json.loads(text)
        error = answer.get("error")
        if error == f"{INTERFACE}.Failed":
            raise Failed(answer["parameters"]["code"], answer["parameters"]["message"])
        if error is not None:
            raise AssertionError(f"{method}: {answer}")
        return answer.get("parameters", {})
