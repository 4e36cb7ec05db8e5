"""Listeners under load: each life of one is accounted for from its first byte on the console to its last."""

import collections
import os
import re
import signal
import socket
import threading
import time

from alphabet import SENDERS, Tally, piece, plain
from conftest import LONG, eventually

PATH = re.compile(rb"  Path: /(\d+)/(\d+)\n")
CONNECT = re.compile(rb"\r\nConnect from 127\.0\.0\.1:(\d+)\n")
ENDS = (b"\r\nDisconnect from ", b"\r\nClosing connection to ")
LONGEST_TEXT = 200  # bytes of a line that is looked for


def port_beside_the_clients():
    """A free port that no connection of a client gets by chance while its listener is dead."""
    with open("/proc/sys/net/ipv4/ip_local_port_range", encoding="ascii") as file:
        first = int(file.read().split()[0])
    for port in range(first - 1, 1024, -7):
        with socket.socket() as probe:
            try:
                probe.bind(("0.0.0.0", port))
                return port
            except OSError:
                pass
    raise AssertionError("no free port")


class Life:
    """One process of a listener and what is known of it. A thread reads its console as it comes."""

    def __init__(self, program, port, raw):
        self.killed_at = None
        self.tally = Tally()
        self.sent = [0] * SENDERS  # bytes of each sender, which alone adds to its number
        self.under_way = [0] * SENDERS  # the last bytes of them that have neither been shown nor answered yet
        self.answered = set()  # requests, as (client, number)
        self.shown = set()
        self.shown_twice = 0
        self.connected = collections.Counter()  # how often each port of a peer was shown
        self.ends = 0
        self.complaint = b""  # what it said on its standard error
        self._looked = b""
        self._changed = threading.Condition()
        end, beginning = os.pipe()
        self.running = program.start("-p", str(port), *(["-raw"] if raw else []), stdout=beginning)
        os.close(beginning)
        self._reader = threading.Thread(target=self._read, args=(end,), daemon=True)
        self._reader.start()

    @property
    def pid(self):
        return self.running.process.pid

    @property
    def connects(self):
        return self.connected.total()

    def next_piece(self, sender, length):
        """What a sender sends next."""
        data = piece(sender, self.sent[sender], length)
        self.sent[sender] += length
        self.under_way[sender] = length
        return data

    def _read(self, end):
        with os.fdopen(end, "rb", buffering=0) as console:
            while text := console.read(1 << 16):
                with self._changed:
                    self._take(text)
                    self._changed.notify_all()

    def _take(self, text):
        self.tally.add(text)
        known = len(self._looked)
        looked = self._looked + plain(text)
        for found in PATH.finditer(looked):
            if found.end() > known:
                request = int(found[1]), int(found[2])
                self.shown_twice += request in self.shown
                self.shown.add(request)
        self.connected.update(int(found[1]) for found in CONNECT.finditer(looked) if found.end() > known)
        self.ends += sum(self._new(text, looked, known) for text in ENDS)
        self._looked = looked[-LONGEST_TEXT:]

    @staticmethod
    def _new(text, looked, known):
        """How often the text stands there that was not whole before."""
        return looked.count(text, max(0, known - len(text) + 1))

    def wait_until(self, condition, timeout=LONG):
        """Waits for what the console tells; false when it does not come or the process is killed first."""
        deadline = time.monotonic() + timeout
        with self._changed:
            while not condition():
                if self.killed_at or time.monotonic() > deadline:
                    return False
                self._changed.wait(0.05)
        return True

    def excuses(self, moment):
        """Whether the process had been killed by that moment."""
        return self.killed_at is not None and self.killed_at <= moment

    def kill(self):
        self.killed_at = time.monotonic()
        self.running.send_signal(signal.SIGKILL)
        self.wait()

    def wait(self):
        code = self.running.wait()
        with self.running.process.stderr as stream:
            self.complaint = stream.read()
        self._reader.join(LONG)
        assert not self._reader.is_alive(), "somebody else holds the console"
        return code


class Listener:
    """A port on which one process after the other listens."""

    def __init__(self, program, port, raw):
        self.port = port
        self.raw = raw
        self.lives = []
        self._program = program
        self._current = None

    def start(self):
        life = Life(self._program, self.port, self.raw)
        self.lives.append(life)
        eventually(lambda: self._accepts() or life.running.process.poll() is not None, what="listening")
        assert life.running.process.poll() is None, "a listener that does not start"
        self._current = life

    def _accepts(self):
        with socket.socket() as probe:
            return probe.connect_ex(("127.0.0.1", self.port)) == 0

    @property
    def life(self):
        """The process that listens, or nothing while there is none."""
        return self._current

    @property
    def kills(self):
        return sum(life.killed_at is not None for life in self.lives)

    def kill(self):
        life, self._current = self._current, None
        life.kill()
