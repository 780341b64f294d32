"""The CRM's end of its message queue, written from the format; shares no code with the daemon."""

import os
import select
import socket
import struct
import time
from pathlib import Path

SOCKET = Path("/etc/crm/AuxThread_crmMQ")
ERROR, INFORMATION = 0, 1
PATIENCE = float(os.environ.get("TARN_TEST_PATIENCE", "30"))  # seconds


class MessageQueue:
    """Stands in for the CRM at its message socket."""

    def __init__(self):
        self._socket = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self._socket.bind(str(SOCKET))

    def take(self, seconds=PATIENCE):
        """Kind and text of the next message, its header checked; None when none comes in time."""
        if not select.select([self._socket], [], [], seconds)[0]:
            return None
        message = self._socket.recv(2000)
        reserved, kind_of, length, when, zero, kind = struct.unpack_from("=IHHIII", message)
        assert (reserved, kind_of, length, zero) == (0, 1237, len(message), 0), message
        assert abs(when - time.time()) < 60, message
        assert message[-1] == 0 or len(message) == 533, message
        return kind, message[20:].rstrip(b"\0").decode()

    def close(self):
        """Goes and leaves its socket's file behind, as a receiver that crashed does."""
        self._socket.close()
