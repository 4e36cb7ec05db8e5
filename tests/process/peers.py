"""Peers for the posts: servers that this project did not write, or that say exactly the bytes a test gives them."""

import contextlib
import re
import socket
import struct
import threading

from conftest import LONG, without_trace

BANNER_END = b"Perform a test room status post. Run with -h for options.\n\n"

# What a room status post sends by default as JSON, masked.
JSON_BODY = (b'{\n  "room_status": {\n    "room": {\n      "attempt": 1,\n      "code": 1,\n      "date": "DATE",\n'
             b'      "description": "Coffee",\n      "room": "7101",\n      "time": "TIME",\n      "user": {\n'
             b'        "fname": "Orvin",\n        "id": 1000,\n        "lname": "Talbeck"\n      }\n    }\n  }\n}')


def after_banner(output):
    """What the program printed after the banner and the options, without its traces."""
    return without_trace(output).split(BANNER_END, 1)[1]


def exchange_of(done):
    """What a post printed that ended as every post ends."""
    assert done.returncode == 0, done.stdout
    return after_banner(done.stdout)


def masked(text):
    """Hides what differs between two runs: dates and times."""
    text = re.sub(rb"Date: \d{4}-\d\d-\d\dT\d\d:\d\d:\d\dZ", b"Date: DATE-TIME", text)
    text = re.sub(rb'(date="|"date": ")\d{8}"', rb'\1DATE"', text)
    return re.sub(rb'(time="|"time": ")\d\d:\d\d:\d\d"', rb'\1TIME"', text)


def read_request(connection):
    """Receives one request with its whole body and nothing more; gives its bytes."""
    request = bytearray()
    missing = 1
    while missing:
        piece = connection.recv(65536)
        assert piece, f"a request that is cut short, at {len(request)} bytes: {bytes(request[:500])!r}"
        request += piece
        head, end, body = bytes(request).partition(b"\r\n\r\n")
        if end:
            length = int(re.search(rb"(?i)content-length: (\d+)", head)[1])
            assert len(body) <= length, f"{len(body)} bytes of {length}"
            missing = length - len(body)
    return bytes(request)


def reset(connection):
    """Ends the connection with a reset instead of a close."""
    connection.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
    connection.close()


class Peer:
    """Accepts one connection and runs a routine on it. Into a narrow one little fits as long as nobody reads."""

    def __init__(self, serve, host="127.0.0.1", narrow=False):
        family = socket.AF_INET6 if ":" in host else socket.AF_INET
        self._listening = socket.socket(family)
        if narrow:
            # Short segments keep the sender's buffer from growing.
            self._listening.setsockopt(socket.IPPROTO_TCP, socket.TCP_MAXSEG, 1000)
            self._listening.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 4096)
        self._listening.bind((host, 0))
        self._listening.listen(1)
        self._listening.settimeout(LONG)
        self.port = self._listening.getsockname()[1]
        self.request = b""
        self._serve = serve
        self._failure = None
        self._thread = threading.Thread(target=self._run, daemon=True)
        self._thread.start()

    def _run(self):
        try:
            connection, _ = self._listening.accept()
            connection.settimeout(LONG)
            with contextlib.closing(connection):
                self._serve(self, connection)
        except Exception as failure:  # pylint: disable=broad-except
            self._failure = failure

    def __enter__(self):
        return self

    def __exit__(self, kind, value, trace):
        if kind is None:
            self._thread.join(2 * LONG)  # the program may have come and gone before it is accepted
        self._listening.close()
        if kind is None and self._failure:
            raise self._failure


def answering(response):
    """A peer's routine: takes the request, then sends these bytes and closes."""
    def serve(peer, connection):
        peer.request = read_request(connection)
        connection.sendall(response)
    return serve
