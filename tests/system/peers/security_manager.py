"""The security manager's end of its command socket.

`SecurityManager` answers each request as its test says, well or badly; `SilentSecurityManager`
takes every connection and never reads. Both are written from the format and share no code with the
daemon.
"""

import socket
import struct
import threading
from pathlib import Path

SOCKET = Path("/var/tmp/.secmgrsock")
ADDED = struct.pack("=II", 15, 0)


class SecurityManager:
    """A security manager that answers each request as the test says; the last word holds for good.

    A word is a byte string to answer with, `None` for silence, or a tuple of a byte string and
    "close". Requests are kept whole and in order.
    """

    def __init__(self, *words):
        self._words = list(words)
        self.frames = []
        self.connections = 0
        self.closed = 0
        SOCKET.unlink(missing_ok=True)
        self._listener = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        self._listener.bind(str(SOCKET))
        self._listener.listen(8)
        self._open = []
        self._thread = threading.Thread(target=self._serve, daemon=True)
        self._thread.start()

    def _serve(self):
        while True:
            try:
                connection, _ = self._listener.accept()
            except OSError:
                return
            self.connections += 1
            self._open.append(connection)
            threading.Thread(target=self._session, args=(connection,), daemon=True).start()

    def _session(self, connection):
        try:
            while self._answer(connection):
                pass
        except OSError:
            pass
        connection.close()
        self.closed += 1

    def _answer(self, connection):
        header = self._read(connection, 8)
        if len(header) < 8:
            return False
        frame = header + self._read(connection, struct.unpack("=II", header)[1])
        word = self._words.pop(0) if len(self._words) > 1 else self._words[0]
        self.frames.append(frame)
        if isinstance(word, tuple):
            connection.sendall(word[0])
            return False
        if word is not None:
            connection.sendall(word)
        return True

    @staticmethod
    def _read(connection, length):
        data = b""
        while len(data) < length:
            piece = connection.recv(length - len(data))
            if not piece:
                break
            data += piece
        return data

    def close(self):
        self._listener.shutdown(socket.SHUT_RDWR)
        self._listener.close()
        self._thread.join()
        for connection in self._open:
            try:
                connection.shutdown(socket.SHUT_RDWR)
            except OSError:
                pass
        SOCKET.unlink(missing_ok=True)


class SilentSecurityManager:
    """A security manager that takes every rule and never answers."""

    def __init__(self):
        self._socket = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        self._socket.bind(str(SOCKET))
        self._socket.listen(16)

    def close(self):
        self._socket.close()
