"""A minimal client of Firefox's Marionette protocol: enough to open a session and install the
test extension as a temporary add-on. Python 3 standard library only; one thread.

Each packet is "<decimal byte count>:<JSON>". On connecting, the server sends a greeting; a
command is [0, id, name, parameters], its reply [1, id, error, result].
"""

import json
import socket
from typing import Any, Dict

from harness import TestFailure


class Marionette:
    def __init__(self, port: int, seconds: float):
        self._socket = socket.create_connection(("127.0.0.1", port), timeout=seconds)
        self._buffer = b""
        self._next_id = 1
        self._receive()  # the greeting

    def command(self, name: str, parameters: Dict[str, Any]) -> Any:
        command_id = self._next_id
        self._next_id += 1
        packet = json.dumps([0, command_id, name, parameters]).encode()
        self._socket.sendall(str(len(packet)).encode() + b":" + packet)
        while True:
            reply = self._receive()
            if isinstance(reply, list) and reply[:2] == [1, command_id]:
                if reply[2]:
                    raise TestFailure(f"Marionette {name}: {reply[2]}")
                return reply[3]

    def close(self) -> None:
        self._socket.close()

    def _receive(self) -> Any:
        """The next packet; the socket's time-out bounds each read."""
        while True:
            length, separator, rest = self._buffer.partition(b":")
            if separator and len(rest) >= int(length):
                self._buffer = rest[int(length):]
                return json.loads(rest[:int(length)])
            chunk = self._socket.recv(65536)
            if not chunk:
                raise TestFailure("Marionette closed the connection")
            self._buffer += chunk
