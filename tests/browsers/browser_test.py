#!/usr/bin/env python3
"""Real browsers drive the real host.

A headless browser with a fresh profile loads the test extension (extension/), which connects
to the host whose manifest the installer wrote into a home holding nothing else (for Firefox, only
the XDG profile layout). A test core service answers the host's announcement on a private bus.
The run passes when the extension's tab list reaches the core service unchanged with the
kerrow.tabList suffix, kerrow.closeTab-42 reaches the extension as a closeTab message (which it
echoes), the browser started the installed host with its documented arguments, and the host ended,
with status 0 where seen, once the browser had ended.
"""

import argparse
import json
import os
import shutil
import subprocess
import sys
from pathlib import Path
from typing import Dict, List

sys.dont_write_bytecode = True  # keep the source folder free of __pycache__

from harness import (DID_FINISH_LAUNCHING, START_CORE_HOST_SERVICES, ProcessGroup, PrivateBus,
                     RunFolder, TestCoreService, TestFailure, has_ended, wait_until)

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
CLOSE_TAB_COMMAND = b"kerrow.closeTab-42"
CLOSE_TAB_MESSAGE = {"action": "closeTab", "payload": {"id": 42}}


def run_installer(installer: Path, arguments: List[str], env: Dict[str, str]) -> None:
    for extra in (["--extension-id", CHROMIUM_ID, "--extension-id", FIREFOX_ID], ["--check"]):
        result = subprocess.run([str(installer), *arguments, *extra], env=env, capture_output=True,
                                text=True, timeout=30, check=False)
        if result.returncode != 0:
            raise TestFailure(f"installer {' '.join(arguments + extra)} failed "
                              f"({result.returncode}): {result.stdout}{result.stderr}")


class Chromium:
    """Debian's Chromium, headless, as root, offline, with the extension unpacked. Registered
    before its first start, as a person installing first would: by name."""

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
    """Debian's Firefox ESR, headless, with the unsigned extension found through a proxy file in
    the profile (ESR honours the signature preference). Found by the installer through its XDG
    profile (Firefox 147 and later); the manifest still goes to ~/.mozilla, which Firefox reads."""

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


def tab_list_body(body: bytes):
    """The extension message inside a forwarded frame, or None when the frame is not one."""
    if not body.endswith(TAB_LIST_SUFFIX):
        return None
    try:
        return json.loads(body[:-len(TAB_LIST_SUFFIX)].decode("utf-8"))
    except (UnicodeDecodeError, ValueError):
        return None


def tail(path: Path, lines: int = 40) -> str:
    try:
        return "\n".join(path.read_text(errors="replace").splitlines()[-lines:])
    except OSError:
        return "(none)"


def run(browser, host: Path, installer: Path, folder: RunFolder, processes: ProcessGroup) -> None:
    bus = PrivateBus(processes, folder)
    core = TestCoreService(folder)
    env = folder.environment(bus.address)
    run_installer(installer, [*browser.installer_arguments, "--host", str(host)], env)
    started = browser.launch(processes, env, folder.root / "browser.log")
    bus.wait_for_line(lambda line: line.strip() == f'string "{DID_FINISH_LAUNCHING}"',
                      DID_FINISH_LAUNCHING)
    bus.post(START_CORE_HOST_SERVICES)
    connection = core.accept(15)
    executable = Path(os.readlink(f"/proc/{connection.peer_pid}/exe"))
    arguments = Path(f"/proc/{connection.peer_pid}/cmdline").read_text().split("\0")[1:-1]
    if (executable, arguments) != (host, browser.host_arguments):
        raise TestFailure(f"the core service's peer is {executable} {arguments}, expected "
                          f"{host} {browser.host_arguments}")

    # The device-twin request and the extension's first message travel on different threads
    # of the host, so either may come first.
    connection.receive_until(lambda body: body == b"kerrow.updateDeviceTwin", 10,
                             "the device-twin request")
    forwarded = tab_list_body(connection.receive_until(
        lambda body: tab_list_body(body) is not None, 10,
        "the extension's message with the kerrow.tabList suffix"))
    if forwarded != EXPECTED_TAB_LIST:
        raise TestFailure(f"the extension sent {EXPECTED_TAB_LIST}, the core service "
                          f"received {forwarded}")

    connection.send(CLOSE_TAB_COMMAND)
    echoed = tab_list_body(connection.receive_until(
        lambda body: (tab_list_body(body) or {}).get("type") == "received", 10,
        "the extension's report of the close-tab command"))
    if echoed["message"] != CLOSE_TAB_MESSAGE:
        raise TestFailure(f"the extension received {echoed['message']} for "
                          f"{CLOSE_TAB_COMMAND!r}, expected {CLOSE_TAB_MESSAGE}")

    processes.stop(started)
    wait_until(lambda: has_ended(connection.peer_pid), 10,
               f"the host (pid {connection.peer_pid}) to end after the browser ended")
    status = processes.exit_status(connection.peer_pid)
    if status not in (None, 0):
        raise TestFailure(f"the host ended with status {status} when the browser closed "
                          "its standard input")


def main() -> int:
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("browser", choices=["chromium", "firefox"])
    parser.add_argument("--host", type=Path, required=True, help="the host binary")
    parser.add_argument("--installer", type=Path, required=True,
                        help="kerrow-native-messaging-host-install")
    parser.add_argument("--keep", action="store_true", help="keep the run folder")
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
        if arguments.keep:
            print(f"run folder kept: {folder.root}")
        else:
            shutil.rmtree(folder.root, ignore_errors=True)
    print(f"{arguments.browser}: passed")
    return 0


if __name__ == "__main__":
    sys.exit(main())
