"""Unified2 as the tests understand it, written from the format and not from the daemon.

`records` splits a stream; `Alert`, `Packet` and `ExtraData` read one payload each; the `build_*`
functions make records; `Association` predicts which alerts the daemon releases, in what order and
with what attached, as long as the stream has no quiet second in it.
"""

import socket
import struct
from collections import deque

PACKET, ALERT_IPV4, ALERT_IPV6, EXTRA_DATA = 2, 104, 105, 110
URI, HOST_NAME = 9, 10
PENDING_LIMIT = 128


def frame(record_type, payload):
    return struct.pack(">II", record_type, len(payload)) + payload


def records(stream):
    """Yields (type, payload) for each record of a byte string."""
    offset = 0
    while offset < len(stream):
        record_type, length = struct.unpack_from(">II", stream, offset)
        payload = stream[offset + 8:offset + 8 + length]
        assert len(payload) == length, "the stream ends within a record"
        yield record_type, payload
        offset += 8 + length


class Packet:
    def __init__(self, payload):
        (self.sensor_id, self.event_id, self.event_second, self.second, self.microsecond,
         self.linktype, length) = struct.unpack_from(">7I", payload)
        self.data = payload[28:28 + length]


class ExtraData:
    def __init__(self, payload):
        (self.event_type, self.event_length, self.sensor_id, self.event_id, self.event_second,
         self.type, self.data_type, blob_length) = struct.unpack_from(">8I", payload)
        self.text = payload[32:32 + blob_length - 8]


class Alert:
    """An alert record and what became attached to it."""

    def __init__(self, record_type, payload):
        self.version = 4 if record_type == ALERT_IPV4 else 6
        width = 4 if self.version == 4 else 16
        (self.sensor_id, self.event_id, self.second, self.microsecond, self.signature,
         self.generator, self.revision, self.classification,
         self.priority) = struct.unpack_from(">9I", payload)
        self.source = payload[36:36 + width]
        self.destination = payload[36 + width:36 + 2 * width]
        (self.source_port, self.destination_port, self.protocol, self.impact_flag, self.impact,
         self.blocked, self.mpls, self.vlan, self.policy) = struct.unpack_from(
             ">HHBBBBIHH", payload, 36 + 2 * width)
        self.packet = None
        self.uri = None
        self.host_name = None


class Association:
    """The pending list of the alert reader: 128 alerts, released oldest first."""

    def __init__(self):
        self.pending = deque()
        self.lost_packets = 0
        self.lost_extra_data = 0

    def feed(self, record_type, payload):
        """Takes one record and returns the alerts that it pushes out."""
        released = []
        if record_type in (ALERT_IPV4, ALERT_IPV6):
            while len(self.pending) >= PENDING_LIMIT:
                released.append(self.pending.popleft())
            self.pending.append(Alert(record_type, payload))
        elif record_type == PACKET:
            packet = Packet(payload)
            if self.pending and self.pending[-1].event_id == packet.event_id:
                self.pending[-1].packet = packet
            else:
                self.lost_packets += 1
        elif record_type == EXTRA_DATA:
            self._attach_extra_data(ExtraData(payload))
        return released

    def flush(self):
        """What a quiet second releases."""
        released = list(self.pending)
        self.pending.clear()
        return released

    def _attach_extra_data(self, extra):
        position = -1
        if self.pending:
            distance = signed32(self.pending[-1].event_id - extra.event_id)
            if distance < 0:
                distance += 65536
            position = len(self.pending) - distance - 1
        if not 0 <= position < min(len(self.pending), PENDING_LIMIT) \
                or self.pending[position].event_id != extra.event_id:
            self.lost_extra_data += 1
        elif extra.type == URI:
            self.pending[position].uri = extra
        elif extra.type == HOST_NAME:
            self.pending[position].host_name = extra


def signed32(value):
    return (value + 0x80000000) % 0x100000000 - 0x80000000


def alerts_of(stream):
    """Every alert of a stream in order of release, with its attachments."""
    association = Association()
    released = []
    for record_type, payload in records(stream):
        released += association.feed(record_type, payload)
    return released + association.flush()


def build_alert(event_id, signature, source="10.1.2.3", destination="192.168.7.9", *, second=0,
                protocol=6, source_port=40000, destination_port=80, vlan=0):
    family = socket.AF_INET6 if ":" in source else socket.AF_INET
    payload = struct.pack(">9I", 1, event_id, second, 0, signature, 1, 1, 1, 1)
    payload += socket.inet_pton(family, source) + socket.inet_pton(family, destination)
    payload += struct.pack(">HHBBBBIHH", source_port, destination_port, protocol, 0, 0, 0, 0, vlan,
                           0)
    return frame(ALERT_IPV6 if family == socket.AF_INET6 else ALERT_IPV4, payload)


def build_packet(event_id, data, *, second=0, microsecond=0):
    return frame(PACKET, struct.pack(">7I", 1, event_id, second, second, microsecond, 1, len(data))
                 + data)


def build_extra_data(event_id, kind, text):
    return frame(EXTRA_DATA, struct.pack(">8I", 4, 24 + len(text) + 8, 1, event_id, 0, kind, 1,
                                         len(text) + 8) + text)
