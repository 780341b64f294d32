"""A sensor under load, for tests of what happens to a busy daemon."""

import os
import threading

from harness import ALERT_FIFO
from unified2 import build_alert


class LoadThread(threading.Thread):
    """A sensor that writes alerts on and on, whatever becomes of the FIFO's other end."""

    def __init__(self, signature):
        super().__init__(daemon=True)
        self.signature = signature
        self.written = 0  # an alert's time is its number, by which its report is known again
        self._ending = threading.Event()

    def record(self, number):
        return build_alert(number & 0xFFFF, self.signature, second=number)

    def run(self):
        descriptor = None
        while not self._ending.wait(0.001):
            try:
                if descriptor is None:
                    descriptor = os.open(ALERT_FIFO, os.O_WRONLY | os.O_NONBLOCK)
                os.write(descriptor, self.record(self.written))
                self.written += 1
            except BlockingIOError:
                pass  # The daemon is between two cycles and the FIFO is full.
            except OSError:
                # The reader is away; what it has not read is gone with it.
                if descriptor is not None:
                    os.close(descriptor)
                    descriptor = None
        if descriptor is not None:
            os.close(descriptor)

    def end(self):
        self._ending.set()
        self.join()
