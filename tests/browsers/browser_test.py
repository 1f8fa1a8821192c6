#!/usr/bin/env python3
"""Real browsers drive the real host. Python 3 standard library only; one thread.

A headless browser loads extension/, which connects to the host the installer registered in an
otherwise empty home. Passes when the tab list and a close-tab command cross unchanged, a block
list over the browsers' 1 MiB limit is dropped (logged) and the close-tab after it still arrives
on the same port, the host was started with its documented arguments, and it ended (status 0
where seen) with the browser.
"""

import argparse
import contextlib
import ctypes
import json
import os
import shutil
import signal
import socket
import struct
import subprocess
import sys
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
    return (process_fields(pid) or ["Z"])[0] == "Z"  # gone, or a zombie


class RunFolder:
    """A fresh folder tree for one run, removed at the close: home, runtime (0700), state, tmp."""

    def __init__(self):
        self.root = Path(tempfile.mkdtemp(prefix="kerrow-browser-"))
        self.home, self.runtime, self.state, self.tmp = (
            self.root / name for name in ("home", "runtime", "state", "tmp"))
        for folder in (self.home, self.runtime, self.state, self.tmp):
            folder.mkdir(mode=0o700)

    def environment(self, bus_address: str) -> Dict[str, str]:
        """All a browser and its host see: no display, the private bus, XDG folders and TMPDIR."""
        return {
            "HOME": str(self.home),
            "PATH": os.environ.get("PATH", "/usr/bin:/bin"),
            "LANG": "C.UTF-8",
            "TMPDIR": str(self.tmp),
            "XDG_RUNTIME_DIR": str(self.runtime),
            "XDG_STATE_HOME": str(self.state),
            "DBUS_SESSION_BUS_ADDRESS": bus_address,
        }


class ProcessGroup:
    """Every process a test starts, and their descendants: as a subreaper, the test adopts a host
    its browser left behind, and close() finds it whatever its session or process group."""

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

    def close(self) -> None:
        """Kills everything still running: each started process group, then every process left
        behind, which is ours once its parent is gone."""
        for process in self.started:
            if process.poll() is None:
                with contextlib.suppress(ProcessLookupError):
                    os.killpg(process.pid, signal.SIGKILL)
            process.wait(timeout=10)
        for pid in (int(entry) for entry in os.listdir("/proc") if entry.isdigit()):
            if (process_fields(pid) or ["", "0"])[1] == str(os.getpid()) and not has_ended(pid):
                with contextlib.suppress(ProcessLookupError):
                    os.kill(pid, signal.SIGKILL)
        with contextlib.suppress(ChildProcessError):
            while True:
                os.waitpid(-1, 0)  # collects every adopted process


class PrivateBus:
    """A private dbus-daemon, a monitor logging the host-notification signals, and dbus-send."""

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


class TestCoreService:
    """Listens where the host looks for the core service ($XDG_RUNTIME_DIR/kerrow/browser.sock)
    and takes one host's connection; `received` holds every frame body so far."""

    def __init__(self, folder: RunFolder):
        self.path = folder.runtime / "kerrow" / "browser.sock"
        self.path.parent.mkdir(mode=0o700)
        self._listener = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        self._listener.bind(str(self.path))
        self._listener.listen(8)
        self.received: List[bytes] = []

    def accept(self, seconds: float) -> int:
        """Takes the host's connection and returns the host's pid."""
        self._listener.settimeout(seconds)
        try:
            self._socket = self._listener.accept()[0]
        except socket.timeout as error:
            raise TestFailure(f"no host connected to {self.path} within {seconds:g} s") from error
        self._reader = self._socket.makefile("rb")
        return struct.unpack(
            "3i", self._socket.getsockopt(socket.SOL_SOCKET, socket.SO_PEERCRED, 12))[0]

    def receive_until(self, matches: Callable[[bytes], bool], seconds: float,
                      what: str) -> bytes:
        """The first body received that `matches`, waiting up to `seconds` for it."""
        end = time.monotonic() + seconds
        while not any(map(matches, self.received)):
            self._socket.settimeout(max(0.001, end - time.monotonic()))
            try:
                (length,) = FRAME_HEADER.unpack(self._reader.read(FRAME_HEADER.size))
                self.received.append(self._reader.read(length))
            except (socket.timeout, struct.error) as error:  # time-out or end of stream
                raise TestFailure(f"the core service did not receive {what}; it received "
                                  f"{self.received}") from error
        return next(body for body in self.received if matches(body))

    def send(self, body: bytes) -> None:
        self._socket.sendall(FRAME_HEADER.pack(len(body)) + body)


EXTENSION = Path(__file__).resolve().parent / "extension"
MANIFEST_NAME = "com.kerrowsoftware.native_messaging_host.json"
CHROMIUM_ID = "pjemfmlmnlcehcppgfmabofnjojcgifc"  # from the manifest's "key" (README.md)
FIREFOX_ID = "browser-test@kerrowsoftware.com"
TAB_LIST_SUFFIX = b"kerrow.tabList"
# What extension/background.js sends first; the title checks that UTF-8 crosses unchanged.
EXPECTED_TAB_LIST = {
    "type": "tabList",
    "tabs": [{"id": 42, "title": "Caf\u00e9 \u2615 \u65e5\u672c",
              "url": "https://a.example/path?q=1"}],
}
# 30,000 sites: a setBlacklist message of about 1.3 MB, over the 1 MiB that browsers accept.
OVER_LIMIT_COMMAND = b"kerrow.websiteList" + json.dumps({
    "name": "Big", "listType": 1,
    "websites": [f"www.a-rather-long-site-name-{10000 + site}.example" for site in range(30000)],
}).encode()


class Chromium:
    """Debian's Chromium, headless and offline, unpacked extension; registered by name first."""

    installer_arguments = ["--browser", "chromium"]

    def __init__(self, folder: RunFolder, extension: Path):
        # Headless Chromium takes a throw-away profile unless told its default one.
        self.profile = folder.home / ".config" / "chromium"
        self.extension = extension
        self.host_arguments = [f"chrome-extension://{CHROMIUM_ID}/"]

    def launch(self, processes: ProcessGroup, env: Dict[str, str], log: Path):
        return processes.start([
            "/usr/lib/chromium/chromium", "--headless=new", "--no-sandbox", "--disable-gpu",
            "--disable-dev-shm-usage", "--disable-quic", "--no-first-run",
            "--no-default-browser-check", "--disable-background-networking",
            "--disable-component-update", "--disable-sync", f"--user-data-dir={self.profile}",
            f"--load-extension={self.extension}", f"--disable-extensions-except={self.extension}",
            "about:blank"], env=env, output=log)


class Firefox:
    """Debian's Firefox ESR, headless, the unsigned extension found through a proxy file. The
    installer finds it by its XDG profile and writes the manifest to ~/.mozilla, still read."""

    installer_arguments: List[str] = []

    def __init__(self, folder: RunFolder, extension: Path):
        self.profile = folder.home / ".config" / "mozilla" / "firefox" / "test.default"
        (self.profile / "extensions").mkdir(parents=True)
        (self.profile / "extensions" / FIREFOX_ID).write_text(f"{extension}\n")
        (self.profile / "user.js").write_text('user_pref("xpinstall.signatures.required", false);\n'
                                              'user_pref("extensions.autoDisableScopes", 0);\n')
        self.host_arguments = [
            str(folder.home / ".mozilla/native-messaging-hosts" / MANIFEST_NAME), FIREFOX_ID]

    def launch(self, processes: ProcessGroup, env: Dict[str, str], log: Path):
        return processes.start(["firefox-esr", "--headless", "--no-remote", "--profile",
                                str(self.profile), "about:blank"],
                               env={**env, "MOZ_CRASHREPORTER_DISABLE": "1"}, output=log)


def extension_message(body: bytes) -> dict:
    """The extension message inside a forwarded frame, or {} when the frame is not one."""
    with contextlib.suppress(ValueError):  # bad UTF-8 or bad JSON
        if body.endswith(TAB_LIST_SUFFIX):
            return json.loads(body.removesuffix(TAB_LIST_SUFFIX))
    return {}


def tail(path: Path, lines: int = 40) -> str:
    try:
        return "\n".join(path.read_text(errors="replace").splitlines()[-lines:])
    except OSError:
        return "(none)"


def run(browser, host: Path, installer: Path, folder: RunFolder, processes: ProcessGroup) -> None:
    bus = PrivateBus(processes, folder)
    core = TestCoreService(folder)
    env = folder.environment(bus.address)
    installed = subprocess.run(
        [str(installer), *browser.installer_arguments, "--host", str(host), "--extension-id",
         CHROMIUM_ID, "--extension-id", FIREFOX_ID], env=env, capture_output=True, text=True,
        timeout=30, check=False)
    if installed.returncode != 0:
        raise TestFailure(f"the installer failed ({installed.returncode}): {installed.stderr}")
    started = browser.launch(processes, env, folder.root / "browser.log")
    bus.wait_for_line(lambda line: line.strip() == f'string "{DID_FINISH_LAUNCHING}"',
                      DID_FINISH_LAUNCHING)
    bus.post(START_CORE_HOST_SERVICES)
    pid = core.accept(15)
    executable = Path(os.readlink(f"/proc/{pid}/exe"))
    arguments = Path(f"/proc/{pid}/cmdline").read_text().split("\0")[1:-1]
    if (executable, arguments) != (host, browser.host_arguments):
        raise TestFailure(f"the core service's peer is {executable} {arguments}, expected "
                          f"{host} {browser.host_arguments}")

    # Sent from different threads of the host, these two may come in either order.
    core.receive_until(lambda body: body == b"kerrow.updateDeviceTwin", 10,
                       "the device-twin request")
    forwarded = extension_message(core.receive_until(
        extension_message, 10, "the extension's message with the kerrow.tabList suffix"))
    if forwarded != EXPECTED_TAB_LIST:
        raise TestFailure(f"the extension sent {EXPECTED_TAB_LIST}, the core service "
                          f"received {forwarded}")

    # A close-tab crosses unchanged. Over the limit the browser would drop the host: the host
    # drops the block list instead, and the port stays open for the close-tab after it.
    for commands, tab in (([b"kerrow.closeTab-42"], 42),
                          ([OVER_LIMIT_COMMAND, b"kerrow.closeTab-43"], 43)):
        for command in commands:
            core.send(command)
        expected = {"action": "closeTab", "payload": {"id": tab}}
        core.receive_until(lambda body: extension_message(body).get("message") == expected, 20,
                           f"the extension's report of {expected}")
    if any(extension_message(body).get("message", {}).get("action") == "setBlacklist"
           for body in core.received):
        raise TestFailure("the over-limit block list reached the extension")
    log = folder.state / "kerrow/native-messaging-host.log"
    wait_until(lambda: any(" error " in line and "1048576" in line
                           for line in log.read_text(errors="replace").splitlines()), 5,
               "the error line naming the dropped message")

    started.send_signal(signal.SIGTERM)  # as a desktop session ends a browser
    started.wait(timeout=10)
    wait_until(lambda: has_ended(pid), 10, f"the host (pid {pid}) to end after the browser ended")
    with contextlib.suppress(ChildProcessError):  # its own parent collected it
        reaped, status = os.waitpid(pid, os.WNOHANG)  # adopted: ours to collect
        if reaped == pid and os.waitstatus_to_exitcode(status) != 0:
            raise TestFailure(f"the host ended with status {os.waitstatus_to_exitcode(status)} "
                              "when the browser closed its standard input")


def main() -> int:
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("browser", choices=["chromium", "firefox"])
    parser.add_argument("--host", type=Path, required=True, help="the host binary")
    parser.add_argument("--installer", type=Path, required=True,
                        help="kerrow-native-messaging-host-install")
    arguments = parser.parse_args()
    folder, processes = RunFolder(), ProcessGroup()
    try:
        extension = folder.root / "extension"
        shutil.copytree(EXTENSION, extension)
        browser = (Chromium if arguments.browser == "chromium" else Firefox)(folder, extension)
        run(browser, arguments.host.resolve(), arguments.installer.resolve(), folder, processes)
    except (TestFailure, OSError, ValueError, subprocess.SubprocessError) as failure:
        print(f"FAILED: {failure}", file=sys.stderr)
        print(f"--- session bus:\n{tail(folder.root / 'bus.log')}", file=sys.stderr)
        print(f"--- host log:\n{tail(folder.state / 'kerrow/native-messaging-host.log')}",
              file=sys.stderr)
        print(f"--- browser output:\n{tail(folder.root / 'browser.log')}", file=sys.stderr)
        return 1
    finally:
        processes.close()
        shutil.rmtree(folder.root, ignore_errors=True)
    print(f"{arguments.browser}: passed")
    return 0


if __name__ == "__main__":
    sys.exit(main())
