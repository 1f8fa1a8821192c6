"""A minimal client of Firefox's Marionette protocol: enough to open a session and install the
test extension as a temporary add-on. Python 3 standard library only; one thread.

Wire format: each packet is "<decimal byte count>:<JSON>". On connecting, the server sends a
greeting object; a command is [0, id, name, parameters], its reply [1, id, error, result].
"""

import json
import socket
from pathlib import Path
from typing import Any, Dict, Optional

from harness import Deadline, TestFailure


class MarionetteError(TestFailure):
    def __init__(self, command: str, error: Dict[str, Any]):
        super().__init__(f"Marionette {command}: {error.get('error')}: {error.get('message')}")
        self.error = error.get("error")


class Marionette:
    def __init__(self, port: int, seconds: float):
        self._deadline = Deadline(seconds)
        self._socket = socket.create_connection(("127.0.0.1", port), timeout=seconds)
        self._buffer = b""
        self._next_id = 1
        greeting = self._receive()
        if greeting.get("applicationType") != "gecko":
            raise TestFailure(f"unexpected Marionette greeting {greeting}")

    @staticmethod
    def active_port(profile: Path) -> Optional[int]:
        """The port Firefox wrote into the profile once Marionette listens, or None before."""
        try:
            return int((profile / "MarionetteActivePort").read_text())
        except (OSError, ValueError):
            return None

    def command(self, name: str, parameters: Dict[str, Any]) -> Any:
        command_id = self._next_id
        self._next_id += 1
        packet = json.dumps([0, command_id, name, parameters]).encode()
        self._socket.sendall(str(len(packet)).encode() + b":" + packet)
        while True:
            reply = self._receive()
            if isinstance(reply, list) and len(reply) == 4 and reply[:2] == [1, command_id]:
                if reply[2]:
                    raise MarionetteError(name, reply[2])
                return reply[3]

    def install_temporary_addon(self, path: Path) -> str:
        """Installs the unpacked extension at `path` until Firefox ends; returns its id. Newer
        Firefox names the command WebExtension:Install, older Addon:Install."""
        parameters = {"path": str(path), "temporary": True}
        try:
            result = self.command("WebExtension:Install", parameters)
        except MarionetteError as error:
            if error.error != "unknown command":
                raise
            result = self.command("Addon:Install", parameters)
        return result["value"] if isinstance(result, dict) else result

    def close(self) -> None:
        self._socket.close()

    def _receive(self) -> Any:
        while True:
            separator = self._buffer.find(b":")
            if separator > 0:
                length = int(self._buffer[:separator])
                end = separator + 1 + length
                if len(self._buffer) >= end:
                    packet = self._buffer[separator + 1:end]
                    self._buffer = self._buffer[end:]
                    return json.loads(packet)
            if self._deadline.expired():
                raise TestFailure("Marionette did not answer in time")
            self._socket.settimeout(self._deadline.left())
            try:
                chunk = self._socket.recv(65536)
            except socket.timeout as error:
                raise TestFailure("Marionette did not answer in time") from error
            if not chunk:
                raise TestFailure("Marionette closed the connection")
            self._buffer += chunk
