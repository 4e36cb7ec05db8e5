"""Clients of both listeners, each a thread's loop: well-behaved, malformed, slow, silent and resetting."""

import contextlib
import random
import socket
import threading
import time

from conftest import LONG
from peers import reset
from test_http import MALFORMED, NO_ANSWER, address, connect, date_of, read_to_end, send

REST = 0.02  # seconds between two connections of a client that hurries
LARGEST_BODY = 20_000
LARGEST_PIECE = 100_000
ANOTHER = "another's"  # connections that the next process took: not its business
SMALL = 20_000  # malformed requests up to this size take part


class Count:
    """What several threads count."""

    def __init__(self):
        self._guard = threading.Lock()
        self._numbers = {}
        self.complaints = []

    def add(self, name, number=1):
        with self._guard:
            self._numbers[name] = self._numbers.get(name, 0) + number

    def __getitem__(self, name):
        with self._guard:
            return self._numbers.get(name, 0)

    def complain(self, text):
        with self._guard:
            self.complaints.append(text)


class Client(threading.Thread):
    """Repeats one kind of conversation with a listener until told to stop."""

    def __init__(self, number, listener, count, stop):
        super().__init__(daemon=True, name=f"{type(self).__name__} {number}")
        self.number = number
        self.listener = listener
        self.count = count
        self.dice = random.Random(number)
        self._stop_asked = stop

    def run(self):
        try:
            while not self._stop_asked.is_set():
                life = self.listener.life
                if life is None:
                    self.pause(REST)
                else:
                    self.converse(life)
                    self.count.add(type(self).__name__)
        except Exception as failure:  # told at the end, by another thread
            self.count.complain(f"{self.name}: {failure!r}")

    def converse(self, life):
        raise NotImplementedError

    def pause(self, seconds):
        self._stop_asked.wait(seconds)

    def failed(self, life, what):
        """Something did not happen that should have: lost, unless the listener had been killed by now."""
        excused = life.excuses(time.monotonic())
        self.count.add("excused" if excused else "lost")
        if not excused:
            self.count.complain(f"{self.name}: {what}")


class Asking(Client):
    """Whatever deserves an answer: each request is sent to its end and its answer checked."""

    def exchange(self, life, request, is_answer, push=send):
        """One request; gives whether it was answered, and counts it."""
        answer = b""
        failure = None
        self.count.add("begun")
        try:
            with connect(self.listener.port) as client:
                if self.listener.life is not life:
                    self.count.add(ANOTHER)
                    return False
                server = address(client.getpeername())
                push(client, request)
                answer = read_to_end(client)
        except OSError as error:
            failure = error
        answered = bool(answer) and is_answer(answer, server)
        if answered:
            self.count.add("answered")
        else:
            self.failed(life, f"{request[:80]!r} got {answer[:80]!r} {failure or ''}")
        return answered


class WellBehaved(Asking):
    """Requests with a number of their own, some with a body whose bytes are counted where they are shown."""

    def __init__(self, *arguments, sender=None):
        super().__init__(*arguments)
        self._sender = sender
        self._requests = 0

    def converse(self, life):
        self._requests += 1
        target = b"/%d/%d" % (self.number, self._requests)
        if self.exchange(life, self._request(life, target), self._is_answer, self.push):
            life.answered.add((self.number, self._requests))
            if self._sender is not None:
                life.under_way[self._sender] = 0
        self.pause(REST)

    def push(self, client, request):
        send(client, request)

    def _request(self, life, target):
        way = self.dice.randrange(4)
        if way == 0:
            return b"%b %b HTTP/1.1\r\nHost: soak\r\n\r\n" % (self.dice.choice([b"GET", b"HEAD", b"OPTIONS"]), target)
        if way == 1 or self._sender is None:
            # Of unknown length, and not shown.
            return b"POST %b HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n5\r\nhello\r\n0\r\n\r\n" % target
        length = self.dice.randrange(1, LARGEST_BODY)
        body = life.next_piece(self._sender, length)
        return b"PUT %b HTTP/1.1\r\nContent-Length: %d\r\n\r\n" % (target, length) + body

    @staticmethod
    def _is_answer(answer, server):
        try:
            date_of(answer, server)
        except AssertionError:
            return False
        return True


class Slow(WellBehaved):
    """The same, a few bytes at a time."""

    PIECES = 20

    def push(self, client, request):
        size = len(request) // self.PIECES + 1
        for start in range(0, len(request), size):
            send(client, request[start:start + size])
            self.pause(0.1)


class Malformed(Asking):
    """What the library refuses, with an answer where it gives one."""

    def converse(self, life):
        request, expected = self.dice.choice([entry for entry in MALFORMED.values() if len(entry[0]) < SMALL])
        if expected != NO_ANSWER:
            self.exchange(life, request, lambda answer, _: answer == expected, self._push)
        else:
            self._ask_for_nothing(request)
        self.pause(REST)

    @staticmethod
    def _push(client, request):
        send(client, request)
        with contextlib.suppress(OSError):
            client.shutdown(socket.SHUT_WR)

    def _ask_for_nothing(self, request):
        self.count.add("undeserving")
        with contextlib.suppress(OSError), connect(self.listener.port) as client:
            self._push(client, request)
            if answer := read_to_end(client):
                self.count.complain(f"{self.name}: {request[:80]!r} got {answer[:80]!r}")


class Silent(Client):
    """Connects, says nothing or too little, and goes."""

    def converse(self, life):
        self.count.add("undeserving")
        with contextlib.suppress(OSError), connect(self.listener.port) as client:
            if not self.listener.raw and self.dice.randrange(2):
                send(client, b"POST / HTTP/1.1\r\nContent-Le")
            self.pause(self.dice.uniform(0.5, 5))


class Resetting(Client):
    """Resets at any point of a request, before an answer or while one comes."""

    REQUEST = b"POST /reset HTTP/1.1\r\nContent-Length: 10000\r\n\r\n" + b"r" * 10000

    def converse(self, life):
        self.count.add("undeserving")
        with contextlib.suppress(OSError):
            client = connect(self.listener.port)
            send(client, self.REQUEST[:self.dice.choice([0, 5, 40, 5000, len(self.REQUEST)])])
            self.pause(self.dice.choice([0, 0, 0.01]))
            reset(client)
        self.pause(REST)


class RawPeer(Client):
    """Sends pieces that are to be seen at once and in order, then closes or, when all was seen, resets. Its connection
    is to be seen too."""

    def __init__(self, *arguments, sender):
        super().__init__(*arguments)
        self._sender = sender

    def converse(self, life):
        self.count.add("begun")
        with socket.socket() as client:
            client.settimeout(LONG)
            client.bind(("127.0.0.1", 0))
            port = client.getsockname()[1]
            seen = life.connected[port]  # connections from this port before
            try:
                client.connect(("127.0.0.1", self.listener.port))
            except OSError as failure:
                self.failed(life, f"no connection: {failure}")
                return
            if self.listener.life is not life:
                self.count.add(ANOTHER)
                return
            for _ in range(self.dice.randrange(1, 6)):
                if not self._send(life, client):
                    return
            if not life.wait_until(lambda: life.connected[port] == seen + 1):
                self.failed(life, f"{life.connected[port] - seen} connections shown from port {port}")
                return
            self.count.add("answered")
            if self.dice.randrange(4) == 0:
                reset(client)
        self.pause(REST)

    def _send(self, life, client):
        length = self.dice.choice([1, 100, self.dice.randrange(1, LARGEST_PIECE)])
        data = life.next_piece(self._sender, length)
        try:
            client.sendall(data)
        except OSError as failure:
            self.failed(life, f"cannot send: {failure}")
            return False
        wanted = life.sent[self._sender]
        if not life.wait_until(lambda: life.tally.shown[self._sender] >= wanted):
            self.failed(life, f"{life.tally.shown[self._sender]} of {wanted} bytes shown")
            return False
        life.under_way[self._sender] = 0
        return True
