#!/usr/bin/env python3
"""The Kerrow relay written the way native messaging hosts usually are: plain Python 3, standard
library only. The baseline the host's figures are compared with as "a typical host".

It does the host's work, with the host's log lines (through the logging module, into
$XDG_STATE_HOME/kerrow/native-messaging-host.log):
  - announces itself on the session bus (com.kerrowsoftware.nativeMessagingHostDidFinishLaunching)
    and waits for com.kerrowsoftware.startCoreHostServices. The standard library has no D-Bus
    client, so a minimal one is written here (EXTERNAL authentication, Hello, AddMatch, one
    signal); every call waits for its reply, as the usual bindings do;
  - connects to $XDG_RUNTIME_DIR/kerrow/browser.sock (capped exponential back-off, 10 ms to 1 s,
    for 10 s) and sends the device-twin request;
  - main thread: reads each message from standard input (sys.stdin.buffer.read(4),
    struct.unpack('@I')), decodes it with json.loads, logs, forwards the bytes with the
    kerrow.tabList suffix (4-byte little-endian framing on the socket);
  - a thread reads the socket's commands, builds the answers with json.dumps, logs, writes them as
    frames on standard output; it reconnects when the core service goes away.
"""
import json
import logging
import os
import socket
import struct
import sys
import threading
import time

CLOSE_TAB = 'kerrow.closeTab'
DISABLE_INTERNET = 'kerrow.disableInternet'
ENABLE_INTERNET = 'kerrow.enableInternet'
WEBSITE_LIST = 'kerrow.websiteList'
UPDATE_DEVICE_TWIN = b'kerrow.updateDeviceTwin'
TAB_LIST = b'kerrow.tabList'
ANNOUNCEMENT = 'com.kerrowsoftware.nativeMessagingHostDidFinishLaunching'
START = 'com.kerrowsoftware.startCoreHostServices'
NOTIFICATION_PATH = '/com/kerrowsoftware/DistributedNotifications'
NOTIFICATION_INTERFACE = 'com.kerrowsoftware.DistributedNotifications'

log = logging.getLogger('kerrow')
stdout_lock = threading.Lock()


class SessionBus:
    """Just enough of the D-Bus wire protocol to post and observe the notifications."""

    def __init__(self, address):
        path = dict(item.split('=', 1) for item in address[len('unix:'):].split(','))['path']
        self.sock = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        self.sock.connect(path)
        self.buffer = b''
        self.serial = 0
        uid = str(os.getuid()).encode().hex()
        self.sock.sendall(b'\0AUTH EXTERNAL ' + uid.encode() + b'\r\n')
        if not self._line().startswith(b'OK'):
            raise OSError('the session bus refused us')
        self.sock.sendall(b'BEGIN\r\n')
        self.call('Hello')

    def _line(self):
        while b'\r\n' not in self.buffer:
            self.buffer += self._receive()
        line, self.buffer = self.buffer.split(b'\r\n', 1)
        return line

    def _receive(self):
        data = self.sock.recv(65536)
        if not data:
            raise OSError('the session bus went away')
        return data

    @staticmethod
    def _pad(data, alignment):
        return data + b'\0' * (-len(data) % alignment)

    @classmethod
    def _string(cls, data, text):
        encoded = text.encode()
        return cls._pad(data, 4) + struct.pack('<I', len(encoded)) + encoded + b'\0'

    def _send(self, kind, path, interface, member, destination=None, argument=None):
        self.serial += 1
        body = self._string(b'', argument) if argument is not None else b''
        fields = []
        for code, signature, value in ((1, 'o', path), (2, 's', interface), (3, 's', member),
                                       (6, 's', destination), (8, 'g', 's' if body else None)):
            if value is None:
                continue
            field = bytes([code, 1]) + signature.encode() + b'\0'
            if signature == 'g':
                field += bytes([len(value)]) + value.encode() + b'\0'
            else:
                field = self._string(field, value)
            fields.append(field)
        array = b''
        for field in fields:
            array = self._pad(array, 8) + field
        header = b'l' + bytes([kind, 0, 1]) + struct.pack('<III', len(body), self.serial, len(array))
        self.sock.sendall(self._pad(header + array, 8) + body)
        return self.serial

    def _message(self):
        """The next message: (type, reply serial, member, first string argument)."""
        while len(self.buffer) < 16:
            self.buffer += self._receive()
        order = '<' if self.buffer[0:1] == b'l' else '>'
        kind = self.buffer[1]
        body_length, _, fields_length = struct.unpack(order + 'III', self.buffer[4:16])
        header_end = 16 + fields_length + (-(16 + fields_length) % 8)
        while len(self.buffer) < header_end + body_length:
            self.buffer += self._receive()
        fields, body = self.buffer[16:16 + fields_length], self.buffer[header_end:header_end + body_length]
        self.buffer = self.buffer[header_end + body_length:]
        reply_serial, member, offset = None, None, 0
        while offset < len(fields):
            offset += -offset % 8
            code, signature_length = fields[offset], fields[offset + 1]
            signature = fields[offset + 2:offset + 2 + signature_length].decode()
            offset += 3 + signature_length
            if signature in ('s', 'o'):
                offset += -(offset + 16) % 4
                (length,) = struct.unpack(order + 'I', fields[offset:offset + 4])
                value = fields[offset + 4:offset + 4 + length].decode()
                offset += 5 + length
            elif signature == 'g':
                value = fields[offset + 1:offset + 1 + fields[offset]].decode()
                offset += 2 + fields[offset]
            else:
                offset += -(offset + 16) % 4
                (value,) = struct.unpack(order + 'I', fields[offset:offset + 4])
                offset += 4
            if code == 5:
                reply_serial = value
            elif code == 3:
                member = value
        argument = None
        if len(body) >= 4:
            (length,) = struct.unpack(order + 'I', body[:4])
            argument = body[4:4 + length].decode(errors='replace')
        return kind, reply_serial, member, argument

    def call(self, member, argument=None):
        serial = self._send(1, '/org/freedesktop/DBus', 'org.freedesktop.DBus', member,
                            'org.freedesktop.DBus', argument)
        while True:
            kind, reply_serial, _, _ = self._message()
            if kind in (2, 3) and reply_serial == serial:
                if kind == 3:
                    raise OSError('the session bus refused ' + member)
                return

    def observe(self, name):
        self.call('AddMatch', "type='signal',path='%s',interface='%s',member='Posted',arg0='%s'"
                  % (NOTIFICATION_PATH, NOTIFICATION_INTERFACE, name))

    def post(self, name):
        self._send(4, NOTIFICATION_PATH, NOTIFICATION_INTERFACE, 'Posted', argument=name)

    def wait_for(self, name):
        while True:
            kind, _, member, argument = self._message()
            if kind == 4 and member == 'Posted' and argument == name:
                return


class CoreLink:
    """The socket to the core service: sends from any thread, reads on the reader thread."""

    def __init__(self):
        runtime = os.environ.get('XDG_RUNTIME_DIR', '')
        if runtime.startswith('/'):
            self.path = os.path.join(runtime, 'kerrow', 'browser.sock')
        else:
            self.path = '/tmp/kerrow-%d/browser.sock' % os.getuid()
        self.sock = None
        self.lock = threading.Lock()

    def connect(self):
        delay, give_up = 0.01, time.monotonic() + 10
        while True:
            sock = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
            try:
                sock.connect(self.path)
                with self.lock:
                    self.sock = sock
                return True
            except OSError as error:
                sock.close()
                if time.monotonic() + delay > give_up:
                    log.error('Error setting up socket: %s', error)
                    return False
                time.sleep(delay)
                delay = min(delay * 2, 1.0)

    def send(self, data):
        with self.lock:
            if self.sock is None:
                return
            try:
                self.sock.sendall(struct.pack('<I', len(data)) + data)
            except OSError:
                pass

    def receive_exactly(self, length):
        """Exactly `length` bytes, or None when the connection ended (a reset included)."""
        data = b''
        while len(data) < length:
            try:
                chunk = self.sock.recv(length - len(data))
            except OSError:
                return None
            if not chunk:
                return None
            data += chunk
        return data


def send_message(text):
    data = text.encode('utf-8')
    with stdout_lock:
        sys.stdout.buffer.write(struct.pack('@I', len(data)))
        sys.stdout.buffer.write(data)
        sys.stdout.buffer.flush()


def announce(line, message):
    text = json.dumps(message, separators=(',', ':'))
    log.info(line + text)
    send_message(text)


def handle_command(text):
    if CLOSE_TAB in text:
        rest = text.replace(CLOSE_TAB, '')
        log.info('Received Close Tab ID: ' + rest)
        piece = rest.rstrip('-').rsplit('-', 1)[-1]
        try:
            tab_id = int(piece)
        except ValueError:
            log.info('Could not cast to Int: ' + piece)
            return
        announce('Closing Tab: ', {'action': 'closeTab', 'payload': {'id': tab_id}})
    elif DISABLE_INTERNET in text:
        rest = text.replace(DISABLE_INTERNET, '')
        log.info('Received Disable Internet: ' + rest)
        announce('Disabling Internet: ', {'action': 'disableWeb', 'payload': rest})
    elif ENABLE_INTERNET in text:
        log.info('Received Enable Internet')
        announce('Enabling Internet: ', {'action': 'enableWeb', 'payload': {}})
    elif WEBSITE_LIST in text:
        log.info('Received Website list')
        try:
            website_list = json.loads(text.replace(WEBSITE_LIST, ''))
            list_type, websites = website_list['listType'], website_list['websites']
        except (ValueError, KeyError, TypeError):
            return
        if list_type == 0:
            announce('Setting Website List: ', {'action': 'setWhitelist', 'payload': {'whitelist': websites}})
        elif list_type == 1:
            announce('Setting Website List: ', {'action': 'setBlacklist', 'payload': {'blacklist': websites}})
        else:
            log.info('Clearing Allow Website Lists')
            send_message(json.dumps({'action': 'setWhitelist', 'payload': {'whitelist': []}}, separators=(',', ':')))
            log.info('Clearing Block Website Lists')
            send_message(json.dumps({'action': 'setBlacklist', 'payload': {'blacklist': []}}, separators=(',', ':')))


def read_commands(core):
    log.info('Established a Connection in host-to-core service')
    while True:
        header = core.receive_exactly(4)
        body = core.receive_exactly(struct.unpack('<I', header)[0]) if header else None
        if body is None:
            if not core.connect():
                return
            continue
        try:
            handle_command(body.decode('utf-8'))
        except UnicodeDecodeError:
            pass


def get_message():
    raw_length = sys.stdin.buffer.read(4)
    if len(raw_length) < 4:
        return None
    message_length = struct.unpack('@I', raw_length)[0]
    return sys.stdin.buffer.read(message_length)


def open_log(level):
    """Logs lines of `level` and above to the host's log file, with UTC time stamps."""
    state = os.environ.get('XDG_STATE_HOME') or os.path.join(os.path.expanduser('~'), '.local', 'state')
    log_directory = os.path.join(state, 'kerrow')
    os.makedirs(log_directory, mode=0o700, exist_ok=True)
    logging.Formatter.converter = time.gmtime
    logging.basicConfig(filename=os.path.join(log_directory, 'native-messaging-host.log'),
                        level=level, format='%(asctime)s.%(msecs)03dZ %(levelname)s %(message)s',
                        datefmt='%Y-%m-%dT%H:%M:%S')


def main():
    open_log(logging.INFO)
    log.info('KerrowNativeMessagingHost started')

    bus = SessionBus(os.environ['DBUS_SESSION_BUS_ADDRESS'])
    bus.observe(START)
    bus.post(ANNOUNCEMENT)
    bus.wait_for(START)

    core = CoreLink()
    core.connect()
    threading.Thread(target=read_commands, args=(core,), daemon=True).start()
    log.info('Requesting Device Twin update')
    core.send(UPDATE_DEVICE_TWIN)

    while True:
        body = get_message()
        if body is None:
            break
        try:
            json.loads(body.decode('utf-8'))
        except ValueError:
            log.info('Received a message that is not JSON')
        log.info('Sending Tab Data to Browser Messaging')
        core.send(body + TAB_LIST)
    log.info('Stopping KerrowNativeMessagingHost:BrowserExtensionIO')
    logging.shutdown()
    sys.exit(0)


if __name__ == '__main__':
    main()
