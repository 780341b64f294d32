"""The packet logging daemon's end of the control socket, written from the format.

`PacketLogger` receives on the fixed path; `expected_capture` builds the datagram that asks for one
packet.
"""

import os
import socket
import struct
import threading

PATH = "/var/run/packetLog"
ENGINE_STARTING, OFFENDING_PACKET, ENGINE_SHUTTING_DOWN = 1, 4, 12
SETTINGS = (1, 10, 10)  # pcap, files, kilobytes: the defaults of tarn.evidencelog.*


class PacketLogger:
    """Receives on a thread of its own, unless the test keeps it from reading."""

    def __init__(self, reading=True):
        if os.path.exists(PATH):
            os.unlink(PATH)
        self._socket = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self._socket.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 1 << 22)
        self._socket.settimeout(0.05)
        self._socket.bind(PATH)
        self.datagrams = []
        self._end = threading.Event()
        self._thread = threading.Thread(target=self._collect, daemon=True)
        if reading:
            self._thread.start()

    def _collect(self):
        while True:
            last = self._end.is_set()
            try:
                self.datagrams.append(self._socket.recv(1 << 20))
            except socket.timeout:
                if last:
                    return

    def of_type(self, wanted):
        return [datagram for datagram in list(self.datagrams)
                if struct.unpack_from("<I", datagram)[0] == wanted]

    def close(self):
        """Ends the reading once nothing waits any more, and takes the socket away."""
        if self._thread.is_alive():
            self._end.set()
            self._thread.join()
        self._socket.close()
        if os.path.exists(PATH):
            os.unlink(PATH)


def bare(message_type):
    return struct.pack("<II", message_type, 8) + bytes(120)


def expected_capture(alert, settings=SETTINGS):
    """The datagram for one alert, with the packet after it where there is one."""
    packet = alert.packet
    data = packet.data if packet else b""
    length = len(data)
    datagram = struct.pack("<8I56s", 4, 120, *settings, 0, 0, alert.signature, b"SNORT")
    if length:
        datagram += struct.pack("<4I", length, length, packet.second, packet.microsecond)
    datagram += bytes(128 - len(datagram))
    return datagram + data
