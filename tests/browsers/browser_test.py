#!/usr/bin/env python3
"""Real browsers drive the real host.

A headless browser with a fresh profile in its default place loads the test extension (extension/),
which connects to the host with runtime.connectNative; the host's manifest is written by the
installer exactly as a person would write it, into a home that holds nothing else (for Firefox,
only the XDG profile layout of Firefox 147 and later). A test core service answers the host's
announcement on a private session bus and listens at the host's browser socket. The run passes when

  - the extension's tab list reaches the core service with the kerrow.tabList suffix, unchanged;
  - the core service's kerrow.closeTab-42 reaches the extension as a closeTab message, which the
    extension sends back and the core service sees;
  - the browser started the installed host with the arguments it documents, and the host ended,
    with status 0 where its status can be seen, once the browser had ended.

Usage: browser_test.py {chromium,firefox} --host PATH --installer PATH [--keep]
Exit status 0 when the run passes, 1 when it fails (with the browser's and the host's logs).
"""

import argparse
import base64
import hashlib
import json
import os
import shutil
import subprocess
import sys
import time
from pathlib import Path
from typing import Dict, List

sys.dont_write_bytecode = True  # keep the source folder free of __pycache__

from harness import (DID_FINISH_LAUNCHING, START_CORE_HOST_SERVICES, ProcessGroup, PrivateBus,
                     RunFolder, TestCoreService, TestFailure, process_command_line, process_state,
                     wait_until)
from marionette import Marionette

EXTENSION = Path(__file__).resolve().parent / "extension"
MANIFEST_NAME = "com.kerrowsoftware.native_messaging_host.json"
TAB_LIST_SUFFIX = b"kerrow.tabList"
# What extension/background.js sends first; the title checks that UTF-8 crosses unchanged.
EXPECTED_TAB_LIST = {
    "type": "tabList",
    "tabs": [{"id": 42, "title": "Caf\u00e9 \u2615 \u65e5\u672c",
              "url": "https://a.example/path?q=1"}],
}
CLOSE_TAB_COMMAND = b"kerrow.closeTab-42"
CLOSE_TAB_MESSAGE = {"action": "closeTab", "payload": {"id": 42}}


def chromium_extension_id(manifest: Path) -> str:
    """Chromium's id of an extension with a "key": the first 128 bits of the SHA-256 of the
    public key (DER), one letter a-p per hex digit."""
    key = base64.b64decode(json.loads(manifest.read_text())["key"])
    return "".join(chr(ord("a") + int(digit, 16)) for digit in hashlib.sha256(key).hexdigest()[:32])


def firefox_addon_id(manifest: Path) -> str:
    return json.loads(manifest.read_text())["browser_specific_settings"]["gecko"]["id"]


def run_installer(installer: Path, arguments: List[str], env: Dict[str, str]) -> None:
    ids = ["--extension-id", chromium_extension_id(EXTENSION / "manifest.json"),
           "--extension-id", firefox_addon_id(EXTENSION / "manifest.json")]
    for extra in (ids, ["--check"]):
        result = subprocess.run([str(installer), *arguments, *extra], env=env, capture_output=True,
                                text=True, timeout=30, check=False)
        if result.returncode != 0:
            raise TestFailure(f"installer {' '.join(arguments + extra)} failed "
                              f"({result.returncode}): {result.stdout}{result.stderr}")


class Chromium:
    """Debian's Chromium, headless, as root, offline, with the extension unpacked."""

    name = "chromium"

    def __init__(self, folder: RunFolder, extension: Path):
        self.binary = next((candidate for candidate in ("/usr/lib/chromium/chromium",
                                                        shutil.which("chromium"))
                            if candidate and os.access(candidate, os.X_OK)), None)
        if self.binary is None:
            raise TestFailure("chromium is not installed (scripts/install-deps installs it)")
        # Headless Chromium takes a throw-away profile unless told its default one.
        self.profile = folder.home / ".config" / "chromium"
        self.extension = extension
        self.extension_id = chromium_extension_id(extension / "manifest.json")

    # Registered before its first start, as a person installing first would: by name.
    installer_arguments = ["--browser", "chromium"]

    def host_arguments(self) -> List[str]:
        return [f"chrome-extension://{self.extension_id}/"]

    def launch(self, processes: ProcessGroup, env: Dict[str, str], log: Path):
        return processes.start([
            self.binary, "--headless=new", "--no-sandbox", "--disable-gpu",
            "--disable-dev-shm-usage", "--disable-quic", "--no-first-run",
            "--no-default-browser-check", "--disable-background-networking",
            "--disable-component-update", "--disable-sync", f"--user-data-dir={self.profile}",
            f"--load-extension={self.extension}", f"--disable-extensions-except={self.extension}",
            "about:blank"], env=env, output=log)


class Firefox:
    """Debian's Firefox ESR, headless, with the extension installed through Marionette as a
    temporary add-on (which needs no signature)."""

    name = "firefox"

    def __init__(self, folder: RunFolder, extension: Path):
        self.binary = shutil.which("firefox-esr") or shutil.which("firefox")
        if self.binary is None:
            raise TestFailure("firefox-esr is not installed (scripts/install-deps installs it)")
        self.home = folder.home
        # Firefox 147 and later keep a new profile under $XDG_CONFIG_HOME/mozilla.
        self.profile = folder.home / ".config" / "mozilla" / "firefox" / "test.default"
        self.profile.mkdir(parents=True)
        # Marionette listens on a free port and writes it to <profile>/MarionetteActivePort, so
        # runs never collide on 2828; Marionette sets its own quiet, offline preferences.
        (self.profile / "user.js").write_text('user_pref("marionette.port", 0);\n')
        self.extension = extension
        self.addon_id = firefox_addon_id(extension / "manifest.json")

    # Found through the XDG profile; the manifest still goes to ~/.mozilla, which Firefox reads.
    installer_arguments: List[str] = []

    def host_arguments(self) -> List[str]:
        return [str(self.home / ".mozilla" / "native-messaging-hosts" / MANIFEST_NAME),
                self.addon_id]

    def launch(self, processes: ProcessGroup, env: Dict[str, str], log: Path):
        browser = processes.start([self.binary, "--headless", "--marionette", "--no-remote",
                                   "--profile", str(self.profile), "about:blank"],
                                  env={**env, "MOZ_CRASHREPORTER_DISABLE": "1"}, output=log)
        wait_until(lambda: Marionette.active_port(self.profile) is not None
                   or browser.poll() is not None, 30, "Marionette to listen")
        if browser.poll() is not None:
            raise TestFailure(f"firefox ended at start with status {browser.returncode}")
        marionette = Marionette(Marionette.active_port(self.profile), 40)
        try:
            marionette.command("WebDriver:NewSession", {})
            installed = marionette.install_temporary_addon(self.extension)
        finally:
            marionette.close()
        if installed != self.addon_id:
            raise TestFailure(f"Firefox installed the add-on as {installed!r}, "
                              f"not {self.addon_id!r}")
        return browser


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


class Scenario:
    """One run: the private bus, the core service, the browser, and the checks."""

    def __init__(self, browser_name: str, host: Path, installer: Path):
        self.host = host
        self.installer = installer
        self.folder = RunFolder()
        self.processes = ProcessGroup()
        self.browser_log = self.folder.root / f"{browser_name}.log"
        self.timings: List[str] = []
        self.start = time.monotonic()
        self.bus = None
        self.core = None
        extension = self.folder.root / "extension"
        shutil.copytree(EXTENSION, extension)
        self.browser = (Chromium if browser_name == "chromium" else Firefox)(self.folder, extension)

    def mark(self, event: str) -> None:
        self.timings.append(f"{event} {time.monotonic() - self.start:.1f} s")

    def run(self) -> None:
        self.bus = PrivateBus(self.processes, self.folder)
        self.core = TestCoreService(self.folder)
        env = self.folder.environment(self.bus.address)
        run_installer(self.installer, [*self.browser.installer_arguments, "--host", str(self.host)],
                      env)
        self.mark("setup")
        browser = self.browser.launch(self.processes, env, self.browser_log)
        self.mark("browser started")

        self.bus.wait_for_notification(DID_FINISH_LAUNCHING, 30)
        self.mark("host announced")
        self.bus.post(START_CORE_HOST_SERVICES)
        connection = self.core.accept(15)
        self.check_host_process(connection.peer_pid)

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
        self.mark("extension to core")

        connection.send(CLOSE_TAB_COMMAND)
        echoed = tab_list_body(connection.receive_until(
            lambda body: (tab_list_body(body) or {}).get("type") == "received", 10,
            "the extension's report of the close-tab command"))
        if echoed["message"] != CLOSE_TAB_MESSAGE:
            raise TestFailure(f"the extension received {echoed['message']} for "
                              f"{CLOSE_TAB_COMMAND!r}, expected {CLOSE_TAB_MESSAGE}")
        self.mark("core to extension and back")

        self.processes.stop(browser)
        self.mark("browser ended")
        wait_until(lambda: process_state(connection.peer_pid) in (None, "Z"), 10,
                   f"the host (pid {connection.peer_pid}) to end after the browser ended")
        status = self.processes.exit_status(connection.peer_pid)
        if status not in (None, 0):
            raise TestFailure(f"the host ended with status {status} when the browser closed "
                              "its standard input")
        self.mark("host ended")

    def check_host_process(self, pid: int) -> None:
        """The connected peer is the installed host, started with the browser's arguments."""
        executable = Path(os.readlink(f"/proc/{pid}/exe"))
        if executable != self.host.resolve():
            raise TestFailure(f"the core service's peer is {executable}, not {self.host}")
        arguments = process_command_line(pid)[1:]
        if arguments != self.browser.host_arguments():
            raise TestFailure(f"the browser started the host with {arguments}, "
                              f"expected {self.browser.host_arguments()}")

    def report_failure(self, failure: Exception) -> None:
        print(f"FAILED: {failure}", file=sys.stderr)
        print(f"--- timings: {', '.join(self.timings) or 'none'}", file=sys.stderr)
        if self.bus:
            print("--- session bus:\n" + "\n".join(self.bus.monitor.lines[-30:]), file=sys.stderr)
        print(f"--- host log:\n{tail(self.folder.host_log)}", file=sys.stderr)
        print(f"--- {self.browser.name} output:\n{tail(self.browser_log)}", file=sys.stderr)

    def close(self, keep: bool) -> None:
        if self.core:
            self.core.close()
        leftovers = self.processes.close()
        if leftovers:
            print("browser helpers killed at the close: " + "; ".join(leftovers))
        if keep:
            print(f"run folder kept: {self.folder.root}")
        else:
            self.folder.remove()


def main() -> int:
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("browser", choices=["chromium", "firefox"])
    parser.add_argument("--host", type=Path, required=True, help="the host binary")
    parser.add_argument("--installer", type=Path, required=True,
                        help="kerrow-native-messaging-host-install")
    parser.add_argument("--keep", action="store_true", help="keep the run folder")
    arguments = parser.parse_args()
    for binary in (arguments.host, arguments.installer):
        if not os.access(binary, os.X_OK):
            print(f"FAILED: {binary} is not an executable file", file=sys.stderr)
            return 1

    scenario = None
    try:
        scenario = Scenario(arguments.browser, arguments.host.resolve(),
                            arguments.installer.resolve())
        scenario.run()
    except (TestFailure, OSError, subprocess.SubprocessError) as failure:
        if scenario:
            scenario.report_failure(failure)
        else:
            print(f"FAILED: {failure}", file=sys.stderr)
        return 1
    finally:
        if scenario:
            scenario.close(arguments.keep)
    print(f"{arguments.browser}: passed ({', '.join(scenario.timings)})")
    return 0


if __name__ == "__main__":
    sys.exit(main())
