"""The CRM's end of the event queue, and the bytes that it expects to find there.

`CrmReader` maps the ring, reads it by the rules of the reader's role and counts the semaphore's
posts. `expected_message` builds a report from an alert and the entry of its signature. Both are
written from the formats and share no code with the daemon.
"""

import ctypes
import mmap
import os
import struct
import time

RING_SIZE = 0x800000
NO_VLAN = 0xFFFFFFFF
SEVERITIES = {1: b"low", 2: b"medium", 3: b"high"}

_libc = ctypes.CDLL(None, use_errno=True)
_libc.sem_open.restype = ctypes.c_void_p
_libc.sem_open.argtypes = [ctypes.c_char_p, ctypes.c_int, ctypes.c_uint, ctypes.c_uint]
_libc.sem_close.argtypes = [ctypes.c_void_p]
_libc.sem_trywait.argtypes = [ctypes.c_void_p]
_libc.sem_getvalue.argtypes = [ctypes.c_void_p, ctypes.POINTER(ctypes.c_int)]


class CrmReader:
    """Reads ring "-0" of one channel. It may be made before the daemon starts, as the CRM is."""

    def __init__(self, channel=2):
        self.path = f"/var/tmp/EventQueueCRM{channel}-0"
        descriptor = os.open(self.path, os.O_RDWR | os.O_CREAT, 0o700)
        os.ftruncate(descriptor, RING_SIZE)
        self._map = mmap.mmap(descriptor, RING_SIZE)
        os.close(descriptor)
        # Whole words: an index is never seen or stored in pieces.
        self._words = memoryview(self._map).cast("I")
        self._size = RING_SIZE - 8
        self._semaphore = _libc.sem_open(b"/EventQueueCRM.sem", os.O_CREAT, 0o600, 0)
        if not self._semaphore:
            raise OSError(ctypes.get_errno(), "sem_open")

    def close(self):
        self._words.release()
        self._map.close()
        _libc.sem_close(self._semaphore)

    def posts(self):
        """The semaphore's count: posts that nobody has taken."""
        value = ctypes.c_int()
        _libc.sem_getvalue(self._semaphore, ctypes.byref(value))
        return value.value

    def take_post(self):
        """Takes one post; False when there is none."""
        return _libc.sem_trywait(self._semaphore) == 0

    def indexes(self):
        return self._words[0], self._words[1]

    def let_go(self):
        """Gives the room of every message back without a look at it."""
        self._words[0] = self._words[1]

    def read(self):
        """The next message, or None when the ring is empty."""
        read_index, write_index = self.indexes()
        if read_index == write_index:
            return None
        length = self._words[2 + read_index // 4]
        assert 0 < length <= self._size, f"length word {length} at {read_index}"
        start = read_index + 4
        first = self._map[8 + start:8 + min(start + length, self._size)]
        body = first + self._map[8:8 + length - len(first)]
        self._words[2 + read_index // 4] = 0
        self._words[0] = (read_index + length + 7) // 4 * 4 % self._size
        return body

    def drain(self):
        """Every message that is there now."""
        messages = []
        while (message := self.read()) is not None:
            messages.append(message)
        return messages

    def collect(self, count, seconds=20.0):
        """Waits until `count` messages have come; fewer when the time is up."""
        deadline = time.monotonic() + seconds
        messages = self.drain()
        while len(messages) < count and time.monotonic() < deadline:
            time.sleep(0.005)
            messages += self.drain()
        return messages


class Entry:
    """What the event file says of one signature, as far as a report shows it."""

    def __init__(self, name="", severity=0, rule="", user_response="", blocked=0):
        self.name = name
        self.severity = severity
        self.rule = rule
        self.user_response = user_response
        self.blocked = blocked

    @property
    def with_raw(self):
        return "WithRaw" in self.user_response


def parse_event_file(text):
    """Signature to Entry, for event files that keep each signature's lines together."""
    entries = {}
    words = {"low": 1, "medium": 2, "high": 3}
    for line in text.splitlines():
        line = line.strip(" \t")
        if not line or line.startswith("#"):
            continue
        name, value = (part.strip(" \t") for part in line.split("=", 1))
        _, signature, key = name.split(".", 2)
        entry = entries.setdefault(int(signature), Entry())
        if key == "severity":
            entry.severity = words[value.lower()]
        elif key == "rule":
            entry.rule = value
        elif key == "msg":
            entry.name = value
        elif key == "user.response":
            entry.user_response = value
    return entries


def expected_report(alert):
    """The 256 bytes of the event report."""
    ipv4 = [0, 0]
    ipv6 = [bytes(16), bytes(16)]
    if alert.version == 4:
        ipv4 = [int.from_bytes(alert.source, "big"), int.from_bytes(alert.destination, "big")]
    else:
        ipv6 = [alert.source, alert.destination]
    icmp_type = icmp_code = source_port = destination_port = 0
    if alert.protocol in (6, 17):
        source_port, destination_port = alert.source_port, alert.destination_port
    elif alert.protocol == (1 if alert.version == 4 else 58):
        icmp_type, icmp_code = alert.source_port & 0xFF, alert.destination_port & 0xFF

    report = struct.pack("<HBB", 1, icmp_type, icmp_code)
    report += ipv6[0] + struct.pack("<I", ipv4[0])
    report += struct.pack("<IIII", 0, alert.signature, 0, alert.vlan or NO_VLAN)
    report += struct.pack("<I", ipv4[1]) + ipv6[1]
    report += struct.pack("<HH", destination_port, source_port)
    report += struct.pack("<III", 0, ipv4[0], ipv4[1])
    report += struct.pack("<HH", destination_port, source_port)
    report += ipv6[0] + ipv6[1] + bytes(16)
    report += struct.pack("<QQ", alert.second, alert.second)
    report += struct.pack("<IIIII", 1, 0, 6, 2, 0xFFFFFFFF)
    report += bytes(28)
    report += struct.pack("<HHB", 0x0800 if alert.version == 4 else 0x86DD, alert.protocol, 1)
    report += bytes(256 - len(report))
    assert len(report) == 256
    return report


def expected_message(alert, entry):
    """The whole message for one alert whose signature has an entry."""
    user_response = entry.user_response.encode().removeprefix(b",")
    strings = [b"", user_response, entry.name.encode() + b":" + SEVERITIES[entry.severity], b""]
    strings = [text + b"\0" for text in strings]
    offsets = [256 + sum(map(len, strings[:position])) for position in range(4)]
    message = struct.pack("<8I", 1, 32 + 256 + sum(map(len, strings)), *offsets, entry.blocked, 0)
    message += expected_report(alert) + b"".join(strings)

    packet = alert.packet
    if entry.with_raw and packet is not None and packet.data:
        length = len(packet.data)
        message += struct.pack("<II", 2, 48 + length)
        message += struct.pack("<IIII", length, length, packet.second, packet.microsecond)
        message += bytes(24) + packet.data

    pairs = {b"Rule": entry.rule.encode()}
    if alert.uri is not None:
        pairs[b"URL"] = alert.uri.text
    if alert.host_name is not None:
        pairs[b"server"] = alert.host_name.text
    attributes = b"".join(key + b"\0" + pairs[key] + b"\0" for key in sorted(pairs))
    message += struct.pack("<II", 3, 8 + len(attributes) + 1) + attributes + b"\0"
    return message + struct.pack("<II", 0xFF, 8)
