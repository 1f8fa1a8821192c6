"""The pieces a browser test stands on: a private run folder, the processes it starts (all of
them ended at the close), a private D-Bus session bus with a monitor, and a test core service
listening at the host's browser socket. Python 3 standard library only; one test thread, plus
one reader thread per watched output.
"""

import ctypes
import os
import selectors
import shutil
import signal
import socket
import struct
import subprocess
import tempfile
import threading
import time
from pathlib import Path
from typing import Callable, Dict, List, Optional

NOTIFICATION_PATH = "/com/kerrowsoftware/DistributedNotifications"
NOTIFICATION_INTERFACE = "com.kerrowsoftware.DistributedNotifications"
DID_FINISH_LAUNCHING = "com.kerrowsoftware.nativeMessagingHostDidFinishLaunching"
START_CORE_HOST_SERVICES = "com.kerrowsoftware.startCoreHostServices"

# Frames on the browser socket: a 4-byte little-endian length, then that many bytes.
FRAME_HEADER = struct.Struct("<I")
PR_SET_CHILD_SUBREAPER = 36


class TestFailure(Exception):
    """A broken expectation; the message says what was expected and what happened."""


class Deadline:
    """A point in time that bounded waits count down to."""

    def __init__(self, seconds: float):
        self.end = time.monotonic() + seconds

    def left(self) -> float:
        return max(0.0, self.end - time.monotonic())

    def expired(self) -> bool:
        return self.left() == 0.0


def wait_until(condition: Callable[[], bool], seconds: float, what: str) -> None:
    """Polls `condition` every 20 ms until it holds; fails naming `what` when time runs out."""
    deadline = Deadline(seconds)
    while not condition():
        if deadline.expired():
            raise TestFailure(f"timed out after {seconds:g} s waiting for {what}")
        time.sleep(0.02)


class RunFolder:
    """A fresh folder tree for one run, removed at the close: home, runtime (0700), state, tmp."""

    def __init__(self):
        self.root = Path(tempfile.mkdtemp(prefix="kerrow-browser-"))
        self.home = self.root / "home"
        self.runtime = self.root / "runtime"
        self.state = self.root / "state"
        self.tmp = self.root / "tmp"
        for folder in (self.home, self.runtime, self.state, self.tmp):
            folder.mkdir(mode=0o700)

    @property
    def host_log(self) -> Path:
        return self.state / "kerrow" / "native-messaging-host.log"

    def environment(self, bus_address: str) -> Dict[str, str]:
        """The whole environment of a browser (and so of the host it starts): nothing of ours
        leaks in, no display, the private bus, private XDG folders and TMPDIR."""
        return {
            "HOME": str(self.home),
            "PATH": os.environ.get("PATH", "/usr/bin:/bin"),
            "LANG": "C.UTF-8",
            "TMPDIR": str(self.tmp),
            "XDG_RUNTIME_DIR": str(self.runtime),
            "XDG_STATE_HOME": str(self.state),
            "XDG_CONFIG_HOME": str(self.home / ".config"),
            "XDG_CACHE_HOME": str(self.home / ".cache"),
            "DBUS_SESSION_BUS_ADDRESS": bus_address,
        }

    def remove(self) -> None:
        shutil.rmtree(self.root, ignore_errors=True)


def _process_table() -> Dict[int, List[str]]:
    """pid -> the fields of /proc/<pid>/stat after the command name (state, ppid, pgrp, ...)."""
    table = {}
    for entry in os.listdir("/proc"):
        if not entry.isdigit():
            continue
        try:
            text = Path(f"/proc/{entry}/stat").read_text()
        except OSError:
            continue
        table[int(entry)] = text[text.rindex(")") + 2:].split()
    return table


def process_state(pid: int) -> Optional[str]:
    """The process's state letter ("Z" for a zombie), or None when it is gone."""
    try:
        text = Path(f"/proc/{pid}/stat").read_text()
    except OSError:
        return None
    return text[text.rindex(")") + 2:].split()[0]


def process_command_line(pid: int) -> List[str]:
    try:
        return Path(f"/proc/{pid}/cmdline").read_bytes().decode().split("\0")[:-1]
    except OSError:
        return []


class ProcessGroup:
    """Every process a test starts, and their descendants. The test process becomes a subreaper,
    so a descendant whose parent ends (a host left behind by a browser) is re-parented to it and
    found at the close, whatever its session or process group."""

    def __init__(self):
        libc = ctypes.CDLL(None, use_errno=True)
        if libc.prctl(PR_SET_CHILD_SUBREAPER, 1, 0, 0, 0) != 0:
            raise OSError(ctypes.get_errno(), "prctl(PR_SET_CHILD_SUBREAPER)")
        self.started: List[subprocess.Popen] = []

    def start(self, argv: List[str], env: Optional[Dict[str, str]] = None,
              output: Optional[Path] = None, pipe_output: bool = False) -> subprocess.Popen:
        """Starts `argv` in a session of its own; its output goes to `output`, to a pipe, or
        nowhere."""
        stdout = subprocess.PIPE if pipe_output else subprocess.DEVNULL
        log = open(output, "wb") if output else None
        try:
            process = subprocess.Popen(argv, env=env, stdin=subprocess.DEVNULL,
                                       stdout=log or stdout,
                                       stderr=log or subprocess.DEVNULL,
                                       start_new_session=True)
        finally:
            if log:
                log.close()
        self.started.append(process)
        return process

    @staticmethod
    def stop(process: subprocess.Popen, seconds: float = 10.0) -> None:
        """Asks `process` to end with SIGTERM, the way a desktop session ends a browser, and
        waits for it (killing it after `seconds`). Its helpers are left to close()."""
        if process.poll() is None:
            process.send_signal(signal.SIGTERM)
            try:
                process.wait(timeout=seconds)
            except subprocess.TimeoutExpired:
                process.kill()
                process.wait()

    def descendants(self) -> List[int]:
        table = _process_table()
        children: Dict[int, List[int]] = {}
        for pid, fields in table.items():
            children.setdefault(int(fields[1]), []).append(pid)
        found, pending = [], [os.getpid()]
        while pending:
            for child in children.get(pending.pop(), []):
                found.append(child)
                pending.append(child)
        return found

    def close(self) -> List[str]:
        """Ends everything still running; returns a description of each process that had to be
        killed here (none when each stop() left nothing behind)."""
        for process in self.started:
            if process.poll() is None:
                self._kill_group(process.pid)
        leftovers = []
        for pid in self.descendants():
            if process_state(pid) in (None, "Z"):
                continue
            command = " ".join(process_command_line(pid))[:100]
            try:
                os.kill(pid, signal.SIGKILL)
            except ProcessLookupError:
                continue
            leftovers.append(f"{pid} {command}")
        for process in self.started:
            try:
                process.wait(timeout=10)
            except subprocess.TimeoutExpired:
                leftovers.append(f"{process.pid} did not end after SIGKILL")
        self.reap()
        return leftovers

    @staticmethod
    def exit_status(pid: int) -> Optional[int]:
        """The exit status of an ended descendant that this process adopted (minus the signal
        number when a signal ended it), or None when its own parent collected it."""
        try:
            reaped, status = os.waitpid(pid, os.WNOHANG)
        except ChildProcessError:
            return None
        return os.waitstatus_to_exitcode(status) if reaped == pid else None

    @staticmethod
    def reap() -> None:
        """Collects the exit status of every ended, adopted descendant."""
        while True:
            try:
                pid, _ = os.waitpid(-1, os.WNOHANG)
            except ChildProcessError:
                return
            if pid == 0:
                return

    @staticmethod
    def _kill_group(pgid: int) -> None:
        try:
            os.killpg(pgid, signal.SIGKILL)
        except (ProcessLookupError, PermissionError):
            pass


class OutputWatcher:
    """Collects a child's output lines on a thread; the test waits for lines matching a test."""

    def __init__(self, stream):
        self.lines: List[str] = []
        self._changed = threading.Condition()
        self._thread = threading.Thread(target=self._read, args=(stream,), daemon=True)
        self._thread.start()

    def _read(self, stream) -> None:
        for raw in stream:
            with self._changed:
                self.lines.append(raw.decode(errors="replace").rstrip("\n"))
                self._changed.notify_all()

    def wait_for(self, condition: Callable[[List[str]], bool], seconds: float,
                 what: str) -> None:
        with self._changed:
            if not self._changed.wait_for(lambda: condition(self.lines), timeout=seconds):
                raise TestFailure(f"timed out after {seconds:g} s waiting for {what}")


class PrivateBus:
    """A session bus of the test's own (dbus-daemon), a monitor of the host-notification
    signals on it, and dbus-send for the core service's start signal."""

    def __init__(self, processes: ProcessGroup, folder: RunFolder):
        self._processes = processes
        daemon = processes.start(
            ["dbus-daemon", "--session", "--nofork", "--nopidfile", "--print-address=1",
             f"--address=unix:path={folder.root / 'bus'}"], pipe_output=True)
        address_lines = OutputWatcher(daemon.stdout)
        address_lines.wait_for(lambda lines: bool(lines), 10, "dbus-daemon's address")
        self.address = address_lines.lines[0]
        monitor = processes.start(
            ["dbus-monitor", "--address", self.address,
             f"type='signal',path='{NOTIFICATION_PATH}',interface='{NOTIFICATION_INTERFACE}'"],
            pipe_output=True)
        self.monitor = OutputWatcher(monitor.stdout)
        # A new monitor loses its unique name once it is monitoring: from then on nothing is missed.
        self.monitor.wait_for(lambda lines: any("member=NameLost" in line for line in lines), 10,
                              "dbus-monitor to start monitoring")

    def wait_for_notification(self, name: str, seconds: float) -> None:
        self.monitor.wait_for(
            lambda lines: any(line.strip() == f'string "{name}"' for line in lines), seconds,
            f"the notification {name} on the session bus")

    def post(self, name: str) -> None:
        subprocess.run(["dbus-send", f"--bus={self.address}", "--type=signal", NOTIFICATION_PATH,
                        f"{NOTIFICATION_INTERFACE}.Posted", f"string:{name}"],
                       check=True, timeout=10, stdin=subprocess.DEVNULL)


class CoreConnection:
    """One host connected to the test core service."""

    def __init__(self, connection: socket.socket):
        self._socket = connection
        self._buffer = b""
        pid, _uid, _gid = struct.unpack(
            "3i", connection.getsockopt(socket.SOL_SOCKET, socket.SO_PEERCRED, 12))
        self.peer_pid = pid
        self.received: List[bytes] = []

    def receive(self, seconds: float) -> Optional[bytes]:
        """The next frame's body, or None at end of stream or time-out."""
        deadline = Deadline(seconds)
        while True:
            if len(self._buffer) >= FRAME_HEADER.size:
                (length,) = FRAME_HEADER.unpack_from(self._buffer)
                if len(self._buffer) >= FRAME_HEADER.size + length:
                    body = self._buffer[FRAME_HEADER.size:FRAME_HEADER.size + length]
                    self._buffer = self._buffer[FRAME_HEADER.size + length:]
                    self.received.append(body)
                    return body
            if deadline.expired():
                return None
            self._socket.settimeout(deadline.left())
            try:
                chunk = self._socket.recv(65536)
            except socket.timeout:
                return None
            if not chunk:
                return None
            self._buffer += chunk

    def receive_until(self, matches: Callable[[bytes], bool], seconds: float,
                      what: str) -> bytes:
        """Reads frames until one `matches`; fails naming `what` on time-out or end of stream."""
        deadline = Deadline(seconds)
        for body in self.received:
            if matches(body):
                return body
        while not deadline.expired():
            body = self.receive(deadline.left())
            if body is None:
                break
            if matches(body):
                return body
        raise TestFailure(f"the core service did not receive {what}; it received "
                          f"{[b.decode(errors='replace') for b in self.received]}")

    def send(self, body: bytes) -> None:
        self._socket.sendall(FRAME_HEADER.pack(len(body)) + body)

    def close(self) -> None:
        self._socket.close()


class TestCoreService:
    """Listens where the host looks for the core service: $XDG_RUNTIME_DIR/kerrow/browser.sock."""

    def __init__(self, folder: RunFolder):
        directory = folder.runtime / "kerrow"
        directory.mkdir(mode=0o700)
        self.path = directory / "browser.sock"
        self._listener = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        self._listener.bind(str(self.path))
        self._listener.listen(8)
        self.connections: List[CoreConnection] = []

    def accept(self, seconds: float) -> CoreConnection:
        with selectors.DefaultSelector() as selector:
            selector.register(self._listener, selectors.EVENT_READ)
            if not selector.select(timeout=seconds):
                raise TestFailure(f"no host connected to {self.path} within {seconds:g} s")
        connection, _ = self._listener.accept()
        self.connections.append(CoreConnection(connection))
        return self.connections[-1]

    def close(self) -> None:
        for connection in self.connections:
            connection.close()
        self._listener.close()
