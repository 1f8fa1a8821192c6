"""The pieces a browser test stands on: a private run folder, the processes it starts (all of
them ended at the close), a private D-Bus session bus with a monitor, and a test core service
listening at the host's browser socket. Python 3 standard library only; one thread.
"""

import contextlib
import ctypes
import os
import signal
import socket
import struct
import subprocess
import tempfile
import time
from pathlib import Path
from typing import Callable, Dict, List, Optional

NOTIFICATION_PATH = "/com/kerrowsoftware/DistributedNotifications"
NOTIFICATION_INTERFACE = "com.kerrowsoftware.DistributedNotifications"
DID_FINISH_LAUNCHING = "com.kerrowsoftware.nativeMessagingHostDidFinishLaunching"
START_CORE_HOST_SERVICES = "com.kerrowsoftware.startCoreHostServices"
FRAME_HEADER = struct.Struct("<I")  # a frame on the browser socket: this length, then the body
PR_SET_CHILD_SUBREAPER = 36


class TestFailure(Exception):
    """A broken expectation; the message says what was expected and what happened."""


def wait_until(condition: Callable[[], bool], seconds: float, what: str) -> None:
    """Polls `condition` every 20 ms until it holds; fails naming `what` when time runs out."""
    end = time.monotonic() + seconds
    while not condition():
        if time.monotonic() > end:
            raise TestFailure(f"timed out after {seconds:g} s waiting for {what}")
        time.sleep(0.02)


def process_fields(pid: int) -> Optional[List[str]]:
    """The fields of /proc/<pid>/stat after the command name (state, ppid, ...), or None."""
    try:
        text = Path(f"/proc/{pid}/stat").read_text()
    except OSError:
        return None
    return text[text.rindex(")") + 2:].split()


def has_ended(pid: int) -> bool:
    fields = process_fields(pid)
    return fields is None or fields[0] == "Z"


class RunFolder:
    """A fresh folder tree for one run, removed at the close: home, runtime (0700), state, tmp."""

    def __init__(self):
        self.root = Path(tempfile.mkdtemp(prefix="kerrow-browser-"))
        self.home, self.runtime, self.state, self.tmp = (
            self.root / name for name in ("home", "runtime", "state", "tmp"))
        for folder in (self.home, self.runtime, self.state, self.tmp):
            folder.mkdir(mode=0o700)

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
              output: Optional[Path] = None) -> subprocess.Popen:
        """Starts `argv` in a session of its own; its output goes to `output`, else to a pipe."""
        with open(output or os.devnull, "wb") as log:
            process = subprocess.Popen(argv, env=env, stdin=subprocess.DEVNULL,
                                       stdout=log if output else subprocess.PIPE, stderr=log,
                                       start_new_session=True)
        self.started.append(process)
        return process

    @staticmethod
    def stop(process: subprocess.Popen) -> None:
        """Ends `process` with SIGTERM, the way a desktop session ends a browser, and waits for
        it. Its helpers are left to close()."""
        process.send_signal(signal.SIGTERM)
        process.wait(timeout=10)

    @staticmethod
    def exit_status(pid: int) -> Optional[int]:
        """The exit status of an ended descendant that this process adopted (minus the signal
        number when a signal ended it), or None when its own parent collected it."""
        try:
            reaped, status = os.waitpid(pid, os.WNOHANG)
        except ChildProcessError:
            return None
        return os.waitstatus_to_exitcode(status) if reaped == pid else None

    def close(self) -> None:
        """Kills everything still running, descendants found through /proc included."""
        for process in self.started:
            if process.poll() is None:
                with contextlib.suppress(ProcessLookupError):
                    os.killpg(process.pid, signal.SIGKILL)
            process.wait(timeout=10)
        children: Dict[int, List[int]] = {}
        for pid in (int(entry) for entry in os.listdir("/proc") if entry.isdigit()):
            children.setdefault(int((process_fields(pid) or ["", "0"])[1]), []).append(pid)
        pending = children.get(os.getpid(), [])
        while pending:
            pid = pending.pop()
            pending += children.get(pid, [])
            if not has_ended(pid):
                with contextlib.suppress(ProcessLookupError):
                    os.kill(pid, signal.SIGKILL)
        with contextlib.suppress(ChildProcessError):
            while True:
                os.waitpid(-1, 0)  # collects every adopted descendant


class PrivateBus:
    """A session bus of the test's own (dbus-daemon), a monitor of the host-notification
    signals on it (written to `log`), and dbus-send for the core service's start signal."""

    def __init__(self, processes: ProcessGroup, folder: RunFolder):
        daemon = processes.start(
            ["dbus-daemon", "--session", "--nofork", "--nopidfile", "--print-address=1",
             f"--address=unix:path={folder.root / 'bus'}"])
        self.address = daemon.stdout.readline().decode().strip()
        self.log = folder.root / "bus.log"
        processes.start(
            ["dbus-monitor", "--address", self.address,
             f"type='signal',path='{NOTIFICATION_PATH}',interface='{NOTIFICATION_INTERFACE}'"],
            output=self.log)
        # A new monitor loses its unique name once it is monitoring: from then on nothing is missed.
        self.wait_for_line(lambda line: "member=NameLost" in line, "dbus-monitor to start")

    def wait_for_line(self, matches: Callable[[str], bool], what: str) -> None:
        wait_until(lambda: any(map(matches, self.log.read_text().splitlines())), 30, what)

    def post(self, name: str) -> None:
        subprocess.run(["dbus-send", f"--bus={self.address}", "--type=signal", NOTIFICATION_PATH,
                        f"{NOTIFICATION_INTERFACE}.Posted", f"string:{name}"],
                       check=True, timeout=10, stdin=subprocess.DEVNULL)


class CoreConnection:
    """One host connected to the test core service; `received` holds every frame body so far."""

    def __init__(self, connection: socket.socket):
        self._socket = connection
        self._buffer = b""
        self.received: List[bytes] = []
        self.peer_pid = struct.unpack(
            "3i", connection.getsockopt(socket.SOL_SOCKET, socket.SO_PEERCRED, 12))[0]

    def receive_until(self, matches: Callable[[bytes], bool], seconds: float,
                      what: str) -> bytes:
        """The first frame body received, before or within `seconds`, that `matches`; fails
        naming `what` on time-out or end of stream."""
        end = time.monotonic() + seconds
        while not any(map(matches, self.received)):
            if len(self._buffer) >= FRAME_HEADER.size:
                end_of_frame = FRAME_HEADER.size + FRAME_HEADER.unpack_from(self._buffer)[0]
                if len(self._buffer) >= end_of_frame:
                    self.received.append(self._buffer[FRAME_HEADER.size:end_of_frame])
                    self._buffer = self._buffer[end_of_frame:]
                    continue
            self._socket.settimeout(max(0.0, end - time.monotonic()) or 0.001)
            try:
                chunk = self._socket.recv(65536)
            except socket.timeout:
                chunk = b""
            if not chunk or time.monotonic() > end:
                raise TestFailure(f"the core service did not receive {what}; it received "
                                  f"{[b.decode(errors='replace') for b in self.received]}")
            self._buffer += chunk
        return next(body for body in self.received if matches(body))

    def send(self, body: bytes) -> None:
        self._socket.sendall(FRAME_HEADER.pack(len(body)) + body)


class TestCoreService:
    """Listens where the host looks for the core service: $XDG_RUNTIME_DIR/kerrow/browser.sock."""

    def __init__(self, folder: RunFolder):
        self.path = folder.runtime / "kerrow" / "browser.sock"
        self.path.parent.mkdir(mode=0o700)
        self._listener = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        self._listener.bind(str(self.path))
        self._listener.listen(8)

    def accept(self, seconds: float) -> CoreConnection:
        self._listener.settimeout(seconds)
        try:
            return CoreConnection(self._listener.accept()[0])
        except socket.timeout as error:
            raise TestFailure(f"no host connected to {self.path} within {seconds:g} s") from error
