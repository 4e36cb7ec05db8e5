"""The HTTP test server and real clients: what it prints, what it answers, and what nobody can do to it."""

import base64
import contextlib
import datetime
import email.utils
import http.client
import os
import random
import re
import signal
import socket
import ssl
import statistics
import subprocess
import threading
import time

import pytest

from conftest import (LONG, SLOWNESS, WORKERS, eventually, free_port, is_listening, listening_on, port_in_use,
                      raise_descriptor_limit, unread_bytes, unsent_bytes, windows_cannot, wine_cannot)
from peers import reset

DATE = rb"(?:Mon|Tue|Wed|Thu|Fri|Sat|Sun), \d\d [A-Z][a-z]{2} \d{4} \d\d:\d\d:\d\d GMT"
TRACE_ECHO = re.compile(rb"LOG1067 [^\n]*\n")  # a trace line may come between any two lines of the console
BAD_REQUEST = b"HTTP/1.1 400 Bad Request\r\nConnection: Close\r\n\r\n"
SERVER_ERROR = b"HTTP/1.1 500 Internal Server Error\r\nConnection: Close\r\n\r\n"
NO_ANSWER = b""
CONTINUE = b"HTTP/1.1 100 Continue\r\n\r\n"
PROMPT = 5.0 * SLOWNESS  # seconds: far above what ending takes, far below any time-out of the network

posix_streams = windows_cannot("closed, full and broken standard streams are different things there")
posix_processes = windows_cannot("its processor time is not that of one Linux process")


# What the server prints and answers


def transcript(client, server, date, line, headers=b"", body=b"", path=b"/", query=b""):
    """What the console shows of a request. Headers and body are the lines as printed, line ends included."""
    version = line.rsplit(b" ", 1)[1]
    return (b"Connected:\n  Client: %b\n  Server: %b\n  Path: %b\n  Query: %b\n" % (client, server, path, query)
            + b"\r\nRequest:\n" + line + b"\n" + headers + b"\n" + body
            + b"\r\nResponse:\n200 OK " + version + b"\r\nDate: " + date
            + b"\r\nConnection: close\r\nContent-Language: en\r\nUser-Agent: Vantrel/8.0.26 KELTOP\r\n"
            b"Access-Control-Allow-Origin: *\r\nLocation: " + server + b"\r\n\r\n\r\n\n")


def date_of(answer, server, version=b"HTTP/1.1"):
    """The date of an answer, which has to be the one that every request gets."""
    match = re.fullmatch(
        re.escape(version) + rb" 200 OK\r\nDate: (" + DATE + rb")\r\nConnection: [Cc]lose\r\nContent-Language: en\r\n"
        rb"User-Agent: Vantrel/8.0.26 KELTOP\r\nAccess-Control-Allow-Origin: \*\r\nLocation: "
        + re.escape(server) + rb"\r\n\r\n", answer)
    assert match, answer
    return match[1]


def address(endpoint):
    return b"%b:%d" % (endpoint[0].encode(), endpoint[1])


def console_text(output):
    """The console from the server's announcement on, without trace lines."""
    start = output.find(b"Press Ctrl-C")
    return TRACE_ECHO.sub(b"", output[start:]) if start >= 0 else b""


def connect(port, host="127.0.0.1", receive_buffer=None):
    client = socket.socket()
    client.settimeout(LONG)
    if receive_buffer:
        client.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, receive_buffer)
    client.connect((host, port))
    return client


def send(client, data):
    """Sends what the server takes: it may answer and close before all of it has been sent."""
    with contextlib.suppress(BrokenPipeError, ConnectionResetError):
        client.sendall(data)


def read_to_end(client):
    """All that the server sends; it ends with a close, or a reset where it left something unread."""
    answer = bytearray()
    with contextlib.suppress(ConnectionResetError):
        while chunk := client.recv(1 << 16):
            answer += chunk
    return bytes(answer)


class Server:
    """A listening program and what its console has shown that no test has looked at yet."""

    def __init__(self, running, port):
        self.running = running
        self.port = port
        self._seen = 0
        self.expect(listening_on(port))

    @property
    def console(self):
        return console_text(self.running.output)[self._seen:]

    def expect(self, text):
        """The console goes on with exactly this text."""
        eventually(lambda: len(self.console) >= len(text) or not text.startswith(self.console)
                   or self.running.process.poll() is not None, what="console text")
        assert self.console[:len(text)] == text
        self._seen += len(text)

    def connect(self, host="127.0.0.1", **options):
        return connect(self.port, host, **options)

    def ask(self, request, host="127.0.0.1", half_close=False):
        """Sends a request; gives the answer, the client's address and the server's."""
        with self.connect(host) as client:
            ends = address(client.getsockname()), address(client.getpeername())
            send(client, request)
            if half_close:
                with contextlib.suppress(OSError):  # it may be closed already
                    client.shutdown(socket.SHUT_WR)
            return read_to_end(client), *ends

    def serve(self, request, line, *printed, host="127.0.0.1", interim=b"", half_close=False, **parts):
        """A request is answered and shown as told, and nothing else is shown."""
        answer, client, server = self.ask(request, host, half_close)
        assert answer.startswith(interim)
        date = date_of(answer[len(interim):], server, line.rsplit(b" ", 1)[1])
        self.expect(transcript(client, server, date, line, *printed, **parts))

    def still_serves(self):
        """It answers, and has shown nothing that the test did not expect."""
        self.serve(b"GET /still HTTP/1.1\r\n\r\n", b"GET /still HTTP/1.1", path=b"/still")
        assert self.console == b""
        assert self.running.process.poll() is None


@pytest.fixture
def server(keltop):
    return Server(*keltop.listen())


def test_a_whole_run(keltop):
    """The example of the manual, from the announcement to Ctrl-C."""
    server = Server(*keltop.listen())
    begin = datetime.datetime.now(datetime.timezone.utc).replace(microsecond=0)
    answer, client, local = server.ask(b"GET /a%20b?x=1 HTTP/1.1\r\nHost: h\r\n\r\n")
    date = date_of(answer, b"127.0.0.1:%d" % server.port)
    assert begin <= email.utils.parsedate_to_datetime(date.decode()) <= datetime.datetime.now(datetime.timezone.utc)
    assert server.running.interrupt() == 0
    assert console_text(server.running.output) == listening_on(server.port) + (
        b"Connected:\n"
        b"  Client: " + client + b"\n"
        b"  Server: " + local + b"\n"
        b"  Path: /a b\n"
        b"  Query: x=1\n"
        b"\r\nRequest:\n"
        b"GET /a%20b?x=1 HTTP/1.1\n"
        b"Host: h\n"
        b"\n"
        b"\r\nResponse:\n"
        b"200 OK HTTP/1.1\r\n"
        b"Date: " + date + b"\r\n"
        b"Connection: close\r\n"
        b"Content-Language: en\r\n"
        b"User-Agent: Vantrel/8.0.26 KELTOP\r\n"
        b"Access-Control-Allow-Origin: *\r\n"
        b"Location: " + local + b"\r\n"
        b"\r\n"
        b"\r\n\n")


def test_requests_are_shown_one_after_the_other(server):
    server.serve(b"POST /1 HTTP/1.1\r\nContent-Length: 5\r\n\r\nhello", b"POST /1 HTTP/1.1", b"Content-Length: 5\n",
                 b"hello\n", path=b"/1")
    server.serve(b"GET /2?y HTTP/1.1\r\n\r\n", b"GET /2?y HTTP/1.1", path=b"/2", query=b"y")
    server.still_serves()


def test_the_addresses_are_those_of_the_connection(server):
    server.serve(b"GET / HTTP/1.1\r\n\r\n", b"GET / HTTP/1.1", host="127.0.0.2")
    server.still_serves()


# Methods and targets


@pytest.mark.parametrize("method", [b"GET", b"HEAD", b"POST", b"PUT", b"DELETE", b"OPTIONS", b"PATCH", b"TRACE",
                                    b"CONNECT", b"MADEUP", b"get", b"!#$%&'*+-.^_`|~09", b"M" * 32])
@pytest.mark.parametrize("length", [None, 3])
def test_every_method_is_handled_alike(server, method, length):
    headers, body, shown = b"", b"", b""
    if length:
        headers, body, shown = b"Content-Length: 3", b"abc", b"abc\n"
    server.serve(b"%b /some/path HTTP/1.1\r\n%b\r\n%b" % (method, headers and headers + b"\r\n", body),
                 b"%b /some/path HTTP/1.1" % method, headers and headers + b"\n", shown, path=b"/some/path")
    server.still_serves()


TARGETS = {  # target: path, query, target as printed
    b"/": (b"/", b"", b"/"),
    b"/a/./b/../c": (b"/a/./b/../c", b"", b"/a/./b/../c"),
    b"//host/p": (b"//host/p", b"", b"//host/p"),
    b"/a?": (b"/a", b"", b"/a"),
    b"/a?b?c=d&e": (b"/a", b"b?c=d&e", b"/a?b?c=d&e"),
    b"/a?x=1#part": (b"/a", b"x=1", b"/a?x=1#part"),
    b"/a%20b?x=%26+y": (b"/a b", b"x=&+y", b"/a%20b?x=%26+y"),
    b"/%41%2f%7e%c3%a4": (b"/A/~\xc3\xa4", b"", b"/A/~%C3%A4"),
    b"/x%00y?%00%0a": (b"/x\x00y", b"\x00\n", b"/x%00y?%00%0a"),
    b"/a%0D%0Ab": (b"/a\r\nb", b"", b"/a%0D%0Ab"),
    b"/\x80\x01<>": (b"/\x80\x01<>", b"", b"/%80%01%3C%3E"),
    b"http://u:p@h:90/x/y?q=a%20b#frag": (b"/x/y", b"q=a b", b"/x/y?q=a%20b#frag"),
    b"http://h": (b"", b"", b""),
    b"*": (b"*", b"", b"%2A"),
    b"host:443": (b"443", b"", b"443"),
    b"?": (b"", b"", b""),
    b"relative": (b"relative", b"", b"relative"),
    b"/" + b"a" * 16383: (b"/" + b"a" * 16383, b"", b"/" + b"a" * 16383),
}


@pytest.mark.parametrize("target", TARGETS, ids=lambda target: target[:24].decode("latin-1").encode("unicode_escape"))
def test_every_target_is_shown_decoded_and_as_a_request_line(server, target):
    path, query, printed = TARGETS[target]
    server.serve(b"GET %b HTTP/1.1\r\n\r\n" % target, b"GET %b HTTP/1.1" % printed, path=path, query=query)
    server.still_serves()


@pytest.mark.parametrize("version", [b"HTTP/1.0", b"HTTP/2.0", b"FOO"])
def test_the_answer_has_the_version_of_the_request(server, version):
    server.serve(b"POST /v " + version + b"\r\nContent-Length: 2\r\n\r\nok", b"POST /v " + version,
                 b"Content-Length: 2\n", b"ok\n", path=b"/v")
    server.still_serves()


# Headers


HEADERS = {  # as sent: as printed
    "repeated, held together": (b"A: 1\r\nB: x\r\na: 2\r\nA: 1\r\n", b"A: 1\na: 2\nA: 1\nB: x\n"),
    "folded": (b"A: 1\r\n two\r\n\tthree\r\nB: x\r\n", b"A: 1 two\tthree\nB: x\n"),
    "blanks": (b"A:x\r\nB:   y  \r\nC:\r\nD : z\r\n", b"A: x\nB: y\nC: \nD : z\n"),
    "no colon": (b"A: 1\r\nnonsense\r\nB: 2\r\n", b"A: 1\nB: 2\n"),
    "no name": (b": v\r\n", b": v\n"),
    "colons": (b"A: b:c: d\r\n", b"A: b:c: d\n"),
    "bare line feeds": (b"A: 1\nB: 2\n", b"A: 1\nB: 2\n"),
    "binary": (b"A: \x00\x01\x1b[2J\x80\xfe\r\n", b"A: \x00\x01\x1b[2J\x80\xfe\n"),
    "looked up": (b"Accept: text/html, */*;q=0.1\r\nTenant: T-1\r\nUser-Agent: me/1\r\n",
                  b"Accept: text/html, */*;q=0.1\nTenant: T-1\nUser-Agent: me/1\n"),
    "looked up, empty": (b"Accept:\r\nTenant:\r\nUser-Agent:\r\n", b"Accept: \nTenant: \nUser-Agent: \n"),
    "basic": (b"Authorization: Basic dXNlcjpwYXNz\r\n", b"Authorization: Basic dXNlcjpwYXNz\n"),
    "bearer": (b"Authorization: Bearer abc.def.ghi\r\n", b"Authorization: Bearer abc.def.ghi\n"),
    "scheme only": (b"Authorization: Basic\r\n", b"Authorization: Basic\n"),
    "no scheme": (b"Authorization:\r\n", b"Authorization: \n"),
    "not base64": (b"Authorization: Basic !!\x00=%%%\r\n", b"Authorization: Basic !!\x00=%%%\n"),
    "two credentials": (b"Authorization: Basic eDp5\r\nAuthorization: Bearer z\r\n",
                        b"Authorization: Basic eDp5\nAuthorization: Bearer z\n"),
    "a response's": (b"Connection: keep-alive\r\nLocation: /x\r\nDate: never\r\n",
                     b"Connection: keep-alive\nLocation: /x\nDate: never\n"),
    "longest name": (b"n" * 256 + b": v\r\n", b"n" * 256 + b": v\n"),
    "longest value": (b"A: " + b"v" * 8192 + b"\r\n", b"A: " + b"v" * 8192 + b"\n"),
    "most": (b"".join(b"X%d: %b\r\n" % (i, b"v" * 4000) for i in range(100)),
             b"".join(b"X%d: %b\n" % (i, b"v" * 4000) for i in range(100))),
}


@pytest.mark.parametrize("sent, printed", HEADERS.values(), ids=HEADERS.keys())
def test_headers_are_shown_in_their_order(server, sent, printed):
    server.serve(b"GET /h HTTP/1.1\r\n" + sent + b"\r\n", b"GET /h HTTP/1.1", printed, path=b"/h")
    server.still_serves()


def test_the_library_leaves_out_bytes_of_all_ones_before_the_body(server):
    """It takes the byte for the end of what has come so far; in a body it is a byte like any other."""
    server.serve(b"POST /a\xffb?c\xffd HTTP/1.1\r\nA: b\xffc\r\nContent-Length: 3\r\n\r\n\xffx\xff",
                 b"POST /ab?cd HTTP/1.1", b"A: bc\nContent-Length: 3\n", b"\xffx\xff\n", path=b"/ab", query=b"cd")
    server.still_serves()


def test_a_request_may_end_with_the_stream(server):
    for request in (b"GET / HTTP/1.1\r\nA: 1\r\n", b"GET / HTTP/1.1\r\nA: 1"):
        server.serve(request, b"GET / HTTP/1.1", b"A: 1\n", half_close=True)
    server.still_serves()


# Bodies


def post(body, headers=b""):
    return b"POST /b HTTP/1.1\r\n%bContent-Length: %d\r\n\r\n%b" % (headers, len(body), body)


@pytest.mark.parametrize("length", [1, 4095, 4096, 4097, 8191, 8192, 8193, 16384, 100_000])
def test_a_body_is_shown_whole(server, length):
    body = random.Random(length).randbytes(length)
    server.serve(post(body), b"POST /b HTTP/1.1", b"Content-Length: %d\n" % length, body + b"\n", path=b"/b")
    server.still_serves()


def test_every_byte_of_a_body_is_shown(server):
    body = bytes(range(256)) + b"\x00\r\n\r\n\xff\x1a\x04\x00"
    server.serve(post(body), b"POST /b HTTP/1.1", b"Content-Length: %d\n" % len(body), body + b"\n", path=b"/b")
    server.still_serves()


def test_a_body_is_shown_by_any_method(server):
    server.serve(b"GET / HTTP/1.1\r\nContent-Length: 4\r\n\r\nbody", b"GET / HTTP/1.1", b"Content-Length: 4\n",
                 b"body\n")
    server.still_serves()


def test_the_first_of_two_lengths_counts(server):
    server.serve(b"POST / HTTP/1.1\r\nContent-Length: 5\r\nContent-Length: 3\r\n\r\nhello", b"POST / HTTP/1.1",
                 b"Content-Length: 5\nContent-Length: 3\n", b"hello\n")
    server.still_serves()


@pytest.mark.parametrize("header", [b"", b"Content-Length: 0", b"Content-Length: -5", b"Content-Length: "])
def test_without_a_length_no_body_is_shown(server, header):
    server.serve(b"POST / HTTP/1.1\r\n%b\r\nhello" % (header and header + b"\r\n"), b"POST / HTTP/1.1",
                 header and header + b"\n")
    server.still_serves()


@pytest.mark.parametrize("length", [b"+5", b"1,000", b"9223372036854775807"])
def test_what_the_library_takes_for_a_length_is_one(server, length):
    server.serve(b"POST / HTTP/1.1\r\nContent-Length: %b\r\n\r\nhello" % length, b"POST / HTTP/1.1",
                 b"Content-Length: %b\n" % length, b"hello\n", half_close=True)
    server.still_serves()


def test_a_body_that_ends_early_is_shown_as_far_as_it_came(server):
    server.serve(b"POST / HTTP/1.1\r\nContent-Length: 10\r\n\r\nhello", b"POST / HTTP/1.1", b"Content-Length: 10\n",
                 b"hello\n", half_close=True)
    server.still_serves()


CUT_SHORT = [1, 5, 300, 8191, 8192, 8193, 20_000]  # bytes that come of a body, of which far more were announced


def begin_body(server, stack, length):
    """A client that has sent the beginning of a body; gives it, the beginning, and what is shown once it has ended."""
    client = stack.enter_context(server.connect())
    ends = address(client.getsockname()), address(client.getpeername())
    body = random.Random(length).randbytes(length)
    client.sendall(b"POST /b HTTP/1.1\r\nContent-Length: 100000\r\n\r\n" + body)
    return client, transcript(*ends, b"DATE", b"POST /b HTTP/1.1", b"Content-Length: 100000\n", body + b"\n", path=b"/b")


@wine_cannot("loses what came before a reset", "10.0")
@pytest.mark.parametrize("length", CUT_SHORT)
def test_what_came_of_a_body_before_a_reset_is_shown(server, length):
    with contextlib.ExitStack() as stack:
        client, shown = begin_body(server, stack, length)
        eventually(lambda: b"Content-Length: 100000\n\n" in server.console, what="the request")
        reset(client)
        eventually(lambda: server.console.endswith(b"\r\n\r\n\r\n\n"), what="the end of the request")
        assert re.sub(DATE, b"DATE", server.console) == shown


@windows_cannot("a signal is no Ctrl-C under Wine")
@pytest.mark.parametrize("length", CUT_SHORT)
def test_ctrl_c_shows_what_has_come_of_a_body(server, length):
    with contextlib.ExitStack() as stack:
        client, shown = begin_body(server, stack, length)
        eventually(lambda: b"Content-Length: 100000\n\n" in server.console and unsent_bytes(client) == 0,
                   what="the request")
        assert server.running.interrupt() == 0
        assert re.sub(DATE, b"DATE", server.console) == shown
        assert read_to_end(client) == b"", "nothing is answered to half a request"


def test_a_chunked_body_is_not_shown(server):
    server.serve(b"POST /c HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n5\r\nhello\r\n0\r\n\r\n", b"POST /c HTTP/1.1",
                 b"Transfer-Encoding: chunked\n", path=b"/c")
    server.still_serves()


def test_a_long_chunked_body_is_left_unread_and_answered(server):
    chunk = b"10000\r\n" + b"z" * 0x10000 + b"\r\n"
    server.serve(b"POST /c HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n" + chunk * 80 + b"0\r\n\r\n",
                 b"POST /c HTTP/1.1", b"Transfer-Encoding: chunked\n", path=b"/c")
    server.still_serves()


@pytest.mark.parametrize("chunks", [b"zz\r\nhello\r\n", b"-1\r\n\r\n", b"ffffffffffffffff\r\nhello", b""])
def test_nonsense_chunks_are_not_looked_at(server, chunks):
    server.serve(b"POST /c HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n" + chunks, b"POST /c HTTP/1.1",
                 b"Transfer-Encoding: chunked\n", path=b"/c", half_close=True)
    server.still_serves()


def chunked(size):
    """A chunked body, the way that clients send a piece at a time."""
    for begin in range(0, size, 16384):
        yield b"c" * min(16384, size - begin)


def python_posts_chunked(port, size, folder):
    connection = http.client.HTTPConnection("127.0.0.1", port, timeout=LONG)
    with contextlib.closing(connection):
        connection.request("POST", "/c", chunked(size), encode_chunked=True,
                           headers={"Transfer-Encoding": "chunked"})
        return connection.getresponse().status


def curl_posts_chunked(port, size, folder):
    path = os.path.join(folder, "body")
    with open(path, "wb") as file:
        file.write(b"c" * size)
    done = subprocess.run(["curl", "--silent", "--show-error", "--max-time", str(LONG), "--noproxy", "*", "--header",
                           "Transfer-Encoding: chunked", "--data-binary", f"@{path}", "--write-out", "%{http_code}",
                           f"http://127.0.0.1:{port}/c"], capture_output=True, check=True)
    return int(done.stdout)


def node_posts_chunked(port, size, folder):
    script = """
const [port, size] = process.argv.slice(1).map(Number);
const request = require('http').request({port, host: '127.0.0.1', path: '/c', method: 'POST'},
    (response) => { console.log(response.statusCode); response.resume(); });
for (let left = size; left > 0; left -= 16384) request.write(Buffer.alloc(Math.min(left, 16384), 'c'));
request.end();
"""
    done = subprocess.run(["node", "-e", script, str(port), str(size)], capture_output=True, timeout=LONG, check=False)
    return int(done.stdout) if done.returncode == 0 else done.stderr.decode()


@pytest.mark.parametrize("post_chunked", [python_posts_chunked, curl_posts_chunked, node_posts_chunked])
@pytest.mark.parametrize("size", [1_000, 100_000, 1_000_000, 10_000_000])
def test_the_answer_reaches_a_client_that_still_sends(server, tmp_path, post_chunked, size):
    for _ in range(5):
        assert post_chunked(server.port, size, tmp_path) == 200
    eventually(lambda: server.console.count(b"\r\nResponse:\n") == 5, what="all requests")
    assert b"ccc" not in server.console, "what comes after the answer is shown to nobody"


def test_the_answer_to_a_malformed_request_reaches_a_client_that_still_sends(server):
    for _ in range(5):
        with server.connect() as client:
            client.sendall(b"M" * 5_000_000)
            assert read_to_end(client) == BAD_REQUEST


def test_a_client_that_never_stops_sending_is_cut_off_and_harms_nobody(server):
    with server.connect() as endless:
        endless.sendall(b"POST /c HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n")
        begin, sent = time.monotonic(), 0
        with pytest.raises((BrokenPipeError, ConnectionResetError)):
            while True:
                sent += endless.send(b"10000\r\n" + b"z" * 0x10000 + b"\r\n")
                assert time.monotonic() - begin < LONG
                if sent < 2 << 20:
                    asked(server.port)
        print(f"cut off after {sent >> 20} MiB, {time.monotonic() - begin:.2f} s")
        assert sent >= 1 << 20, "less than many clients send before they look at the answer"
        assert time.monotonic() - begin < 2 + 3 * SLOWNESS
        assert sent < 200 << 20


def test_a_client_that_keeps_the_connection_is_closed_after_a_while(server):
    with server.connect() as client:
        client.sendall(b"POST /c HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n")
        date_of(read_to_end(client), b"127.0.0.1:%d" % server.port)
        begin = time.monotonic()

        def refused():
            try:
                client.send(b"x")
            except (BrokenPipeError, ConnectionResetError):
                return True
            return False

        eventually(refused, what="the connection's end")
        print(f"ended after {time.monotonic() - begin:.2f} s")
        assert 1 < time.monotonic() - begin < 2 + 3 * SLOWNESS


def test_ctrl_c_does_not_wait_for_who_still_sends(server):
    with server.connect() as client:
        client.sendall(b"POST /c HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n")
        date_of(read_to_end(client), b"127.0.0.1:%d" % server.port)
        begin = time.monotonic()
        assert server.running.interrupt() == 0
        assert time.monotonic() - begin < PROMPT


def test_the_request_is_shown_before_its_body_has_come(server):
    with server.connect() as client:
        ends = address(client.getsockname()), address(client.getpeername())
        client.sendall(b"POST /b HTTP/1.1\r\nContent-Length: 5\r\n\r\nhe")
        server.expect(b"Connected:\n  Client: %b\n  Server: %b\n  Path: /b\n  Query: \n\r\nRequest:\n"
                      b"POST /b HTTP/1.1\nContent-Length: 5\n\n" % ends)
        client.sendall(b"llo")
        server.expect(b"hello\n\r\nResponse:\n200 OK HTTP/1.1\r\n")
        date_of(read_to_end(client), ends[1])


def test_a_client_that_waits_for_leave_to_send_its_body_gets_it(server):
    with server.connect() as client:
        ends = address(client.getsockname()), address(client.getpeername())
        client.sendall(b"POST /e HTTP/1.1\r\nExpect: 100-continue\r\nContent-Length: 5\r\n\r\n")
        assert client.recv(1 << 16) == CONTINUE
        client.sendall(b"hello")
        date = date_of(read_to_end(client), ends[1])
    server.expect(transcript(*ends, date, b"POST /e HTTP/1.1", b"Expect: 100-continue\nContent-Length: 5\n",
                             b"hello\n", path=b"/e"))
    server.still_serves()


@pytest.mark.parametrize("through", ["file", "pipe"])
def test_a_body_of_200_megabytes_is_shown_whole(keltop, through):
    block, blocks = random.Random(200).randbytes(1 << 20), 200
    length = blocks << 20
    path, port = os.path.join(keltop.folder, "console"), free_port()
    with open(path, "wb") as console, contextlib.ExitStack() as stack:
        target = console
        if through == "pipe":
            reader = stack.enter_context(subprocess.Popen(["cat"], stdin=subprocess.PIPE, stdout=console))
            target = reader.stdin
        process = stack.enter_context(started(keltop, port, stdout=target))
        if through == "pipe":
            reader.stdin.close()
        with connect(port) as client:
            ends = address(client.getsockname()), address(client.getpeername())
            client.sendall(b"POST /big HTTP/1.1\r\nContent-Length: %d\r\n\r\n" % length)
            for _ in range(blocks):
                client.sendall(block)
            date = date_of(read_to_end(client), ends[1])
        process.send_signal(signal.SIGINT)
        assert process.wait(LONG) == 0
    with open(path, "rb") as console:
        shown = keltop.text_mode(console.read())
    same = console_text(shown) == listening_on(port) + transcript(
        *ends, date, b"POST /big HTTP/1.1", b"Content-Length: %d\n" % length, block * blocks + b"\n", path=b"/big")
    assert same  # not in one expression: nobody wants to see the difference


# Malformed requests


MALFORMED = {  # a request, and the answer to it
    "garbage": (b"garbage", BAD_REQUEST),
    "no version": (b"GET /x\r\n\r\n", BAD_REQUEST),
    "method alone": (b"GET\r\n\r\n", BAD_REQUEST),
    "blank line first": (b"\r\n\r\nGET /x HTTP/1.1\r\n\r\n", BAD_REQUEST),
    "cut request line": (b"GET /x HT", BAD_REQUEST),
    "control bytes": (b"\x00\x01\x02\xff\xfe\r\n\r\n", BAD_REQUEST),
    "all bytes": (bytes(range(256)) * 64, BAD_REQUEST),
    "tls": (b"\x16\x03\x01\x02\x00\x01\x00\x01\xfc\x03\x03" + bytes(100), BAD_REQUEST),
    "long method": (b"M" * 33 + b" /x HTTP/1.1\r\n\r\n", BAD_REQUEST),
    "long target": (b"GET /" + b"a" * 16384 + b" HTTP/1.1\r\n\r\n", BAD_REQUEST),
    "long version": (b"GET /x HTTP/1.10\r\n\r\n", BAD_REQUEST),
    "long name": (b"GET /x HTTP/1.1\r\n" + b"n" * 257 + b": v\r\n\r\n", BAD_REQUEST),
    "long value": (b"GET /x HTTP/1.1\r\nA: " + b"v" * 8193 + b"\r\n\r\n", BAD_REQUEST),
    "long folded value": (b"GET /x HTTP/1.1\r\nA: " + b"v" * 8000 + b"\r\n " + b"v" * 192 + b"\r\n\r\n", BAD_REQUEST),
    "101 headers": (b"GET /x HTTP/1.1\r\n" + b"A: 1\r\n" * 101 + b"\r\n", BAD_REQUEST),
    "endless target": (b"GET /" + b"a" * 3_000_000, BAD_REQUEST),
    "endless header": (b"GET /x HTTP/1.1\r\nA: " + b"v" * 3_000_000, BAD_REQUEST),
    "bad escape": (b"GET /%zz HTTP/1.1\r\n\r\n", SERVER_ERROR),
    "cut escape": (b"GET /% HTTP/1.1\r\n\r\n", SERVER_ERROR),
    "no scheme": (b"GET : HTTP/1.1\r\n\r\n", SERVER_ERROR),
    "open bracket": (b"GET http://[::1 HTTP/1.1\r\n\r\n", SERVER_ERROR),
    "port not a number": (b"GET http://h:port/ HTTP/1.1\r\n\r\n", SERVER_ERROR),
    "port too large": (b"GET http://h:99999/ HTTP/1.1\r\n\r\n", SERVER_ERROR),
    "length not a number": (b"POST / HTTP/1.1\r\nContent-Length: abc\r\n\r\nhello", NO_ANSWER),
    "length with a tail": (b"POST / HTTP/1.1\r\nContent-Length: 5x\r\n\r\nhello", NO_ANSWER),
    "length too large": (b"POST / HTTP/1.1\r\nContent-Length: 99999999999999999999\r\n\r\nhello", NO_ANSWER),
    "length in hexadecimal": (b"POST / HTTP/1.1\r\nContent-Length: 0x5\r\n\r\nhello", NO_ANSWER),
    "two lengths in one": (b"POST / HTTP/1.1\r\nContent-Length: 5, 5\r\n\r\nhello", NO_ANSWER),
    "nothing": (b"", NO_ANSWER),
}


@pytest.mark.parametrize("request_bytes, expected", MALFORMED.values(), ids=MALFORMED.keys())
def test_a_malformed_request_gets_the_librarys_answer_and_is_not_shown(server, request_bytes, expected):
    for _ in range(3):
        assert server.ask(request_bytes, half_close=True)[0] == expected
    server.still_serves()


def test_a_fragment_that_cannot_be_decoded_is_refused_or_shown_as_it_came(server):
    """A fragment is none of the server's business. The library decodes it up to version 1.11, and keeps it as it is from
    1.13 on."""
    answer, client, local = server.ask(b"GET /a#%zz HTTP/1.1\r\n\r\n")
    if answer != SERVER_ERROR:
        server.expect(transcript(client, local, date_of(answer, local), b"GET /a#%zz HTTP/1.1", path=b"/a"))
    server.still_serves()


def test_a_query_that_cannot_be_decoded_is_found_while_printing(server):
    answer, client, local = server.ask(b"GET /a?b=%zz HTTP/1.1\r\n\r\n")
    assert answer == SERVER_ERROR
    server.expect(b"Connected:\n  Client: %b\n  Server: %b\n  Path: /a\n  Query: " % (client, local))
    server.still_serves()


def test_random_bytes_do_no_harm(server):
    choice = random.Random(2024)
    good = b"POST /f%20g?h=i HTTP/1.1\r\nHost: x\r\nAuthorization: Basic eDp5\r\nContent-Length: 5\r\n\r\nhello"
    for _ in range(300):
        request = bytearray(good)
        for _ in range(choice.randint(1, 6)):
            request[choice.randrange(len(request))] = choice.randrange(256)
        server.ask(bytes(request[:choice.randint(0, len(request))]), half_close=True)
    assert server.ask(b"GET / HTTP/1.1\r\n\r\n")[0].startswith(b"HTTP/1.1 200 OK\r\n")
    assert server.running.interrupt() == 0


# One request a connection


@pytest.mark.parametrize("headers", [b"", b"Connection: keep-alive\r\n"])
def test_the_first_of_pipelined_requests_is_answered(server, headers):
    shown = headers.replace(b"\r", b"")
    server.serve(b"GET /1 HTTP/1.1\r\n%b\r\nGET /2 HTTP/1.1\r\n\r\n" % headers, b"GET /1 HTTP/1.1", shown, path=b"/1")
    server.serve(b"POST /3 HTTP/1.1\r\n%bContent-Length: 5\r\n\r\nhelloGET /4 HTTP/1.1\r\n\r\n" % headers,
                 b"POST /3 HTTP/1.1", shown + b"Content-Length: 5\n", b"hello\n", path=b"/3")
    server.still_serves()


# Clients that stall, reset and never read


STAGES = {  # what a client has sent when it stops, and the rest of it
    "before the request line": (b"", b"POST /s HTTP/1.1\r\nA: 1\r\nContent-Length: 5\r\n\r\nhello"),
    "in the request line": (b"POST /s HT", b"TP/1.1\r\nA: 1\r\nContent-Length: 5\r\n\r\nhello"),
    "in a header": (b"POST /s HTTP/1.1\r\nA:", b" 1\r\nContent-Length: 5\r\n\r\nhello"),
    "between headers": (b"POST /s HTTP/1.1\r\nA: 1\r\n", b"Content-Length: 5\r\n\r\nhello"),
    "before the body": (b"POST /s HTTP/1.1\r\nA: 1\r\nContent-Length: 5\r\n\r\n", b"hello"),
    "in the body": (b"POST /s HTTP/1.1\r\nA: 1\r\nContent-Length: 5\r\n\r\nhe", b"llo"),
    "before reading the answer": (b"POST /s HTTP/1.1\r\nA: 1\r\nContent-Length: 5\r\n\r\nhello", b""),
}


def test_clients_that_stall_hold_up_nobody_and_may_go_on(server):
    with contextlib.ExitStack() as stack:
        stalled = []
        for begin, rest in STAGES.values():
            client = stack.enter_context(server.connect())
            client.sendall(begin)
            stalled.append((client, rest))
        for number in range(WORKERS):
            answer, _, local = server.ask(post(b"other %d" % number))
            date_of(answer, local)
        for client, rest in reversed(stalled):
            client.sendall(rest)
            date_of(read_to_end(client), local)
    eventually(lambda: server.console.count(b"hello\n\r\nResponse:\n") == len(STAGES), what="the stalled requests")
    for number in range(WORKERS):
        assert server.console.count(b"\nother %d\n\r\nResponse:\n" % number) == 1


def test_a_request_that_comes_byte_by_byte_is_shown_alike(server):
    request = post(b"hello", b"Host: x\r\n")
    with server.connect() as client:
        client.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        ends = address(client.getsockname()), address(client.getpeername())
        for byte in request:
            client.sendall(bytes([byte]))
        date = date_of(read_to_end(client), ends[1])
    server.expect(transcript(*ends, date, b"POST /b HTTP/1.1", b"Host: x\nContent-Length: 5\n", b"hello\n",
                             path=b"/b"))
    server.still_serves()


@pytest.mark.parametrize("begin", [begin for begin, _ in STAGES.values()], ids=STAGES.keys())
def test_clients_that_reset_do_no_harm(server, begin):
    for _ in range(2 * WORKERS):
        client = server.connect()
        client.sendall(begin)
        reset(client)
    answer, _, local = server.ask(b"GET /after HTTP/1.1\r\n\r\n")
    date_of(answer, local)
    server.running.wait_for(b"GET /after HTTP/1.1\n")
    assert server.running.interrupt() == 0


@wine_cannot("loses a connection that is reset before it is accepted", "8.0", "10.0")
def test_a_complete_request_that_is_reset_at_once_is_shown(server):
    for number in range(40):
        client = server.connect()
        ends = address(client.getsockname()), address(client.getpeername())
        client.sendall(b"GET /%d HTTP/1.1\r\n\r\n" % number)
        reset(client)
        eventually(lambda: server.console.endswith(b"\r\n\r\n\r\n\n"), what="the request")
        assert re.sub(DATE, b"DATE", server.console) == transcript(*ends, b"DATE", b"GET /%d HTTP/1.1" % number,
                                                                   path=b"/%d" % number)
        server.expect(server.console)


@wine_cannot("tells a reset as an end, or loses what came before it", "8.0", "10.0")
@pytest.mark.parametrize("begin", [b"", b"GET /x", b"GET /x HTTP/1.1\r\nA: 1\r\n"])
def test_a_reset_before_the_end_of_the_headers_is_not_shown(server, begin):
    client = server.connect()
    client.sendall(begin)
    reset(client)
    server.still_serves()


def test_a_reset_in_the_body_ends_the_body(server):
    client = server.connect()
    ends = address(client.getsockname()), address(client.getpeername())
    client.sendall(b"POST / HTTP/1.1\r\nContent-Length: 10\r\n\r\n")
    server.expect(b"Connected:\n  Client: %b\n  Server: %b\n  Path: /\n  Query: \n\r\nRequest:\nPOST / HTTP/1.1\n"
                  b"Content-Length: 10\n\n" % ends)
    reset(client)
    eventually(lambda: server.console.endswith(b"\r\n\r\n\r\n\n"), what="the end of the request")
    shown = re.sub(DATE, b"DATE", server.console)
    server.expect(server.console)
    assert shown == b"\n" + transcript(*ends, b"DATE", b"POST / HTTP/1.1").partition(b"\n\n")[2]
    server.still_serves()


def test_clients_that_never_read_hold_up_nobody(server):
    with contextlib.ExitStack() as stack:
        for _ in range(2 * WORKERS):
            client = stack.enter_context(server.connect(receive_buffer=1))
            client.sendall(b"GET / HTTP/1.1\r\n\r\n")
        answer, _, local = server.ask(b"GET / HTTP/1.1\r\n\r\n")
        date_of(answer, local)
        eventually(lambda: server.console.count(b"\r\nResponse:\n") == 2 * WORKERS + 1, what="all requests")


def test_a_client_beside_others_that_stall_is_served(server):
    with contextlib.ExitStack() as stack:
        stalled = [stack.enter_context(server.connect()) for _ in range(WORKERS)]
        for client in stalled:
            client.sendall(b"POST / HTTP/1.1\r\nContent-Length: 5\r\n\r\n")
        eventually(lambda: server.console.count(b"Content-Length: 5\n") == WORKERS, what="all requests")
        answer, _, local = server.ask(b"GET /beside HTTP/1.1\r\n\r\n")
        date_of(answer, local)


# Many clients at once


def test_eight_clients_at_once_are_all_answered(server):
    rounds, start, answers = 25, threading.Barrier(8), []

    def work(number):
        start.wait(LONG)
        for turn in range(rounds):
            answers.append(server.ask(post(b"<client %d turn %d>" % (number, turn))))

    threads = [threading.Thread(target=work, args=(number,)) for number in range(8)]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    assert len(answers) == 8 * rounds
    for answer, _, local in answers:
        date_of(answer, local)
    eventually(lambda: server.console.count(b"\r\nResponse:\n") == 8 * rounds, what="all requests")
    for number in range(8):  # lines of different requests may be mixed, but each text is there once
        for turn in range(rounds):
            assert server.console.count(b"<client %d turn %d>" % (number, turn)) == 1
    for _, client, _ in answers:
        assert re.search(re.escape(client) + rb"\b", server.console)
    assert server.console.count(b"Connected:") == 8 * rounds


@pytest.mark.parametrize("begin", [b"GET /x HTTP/1.1\r\nA:", post(b"x" * 9)[:-4]], ids=["in headers", "in body"])
def test_a_thousand_clients_stopped_in_their_requests_keep_nobody_out(keltop, begin):
    raise_descriptor_limit()
    count = 1000 if keltop.plain else 200
    server = Server(*keltop.listen())
    with contextlib.ExitStack() as stack:
        for _ in range(count):
            stack.enter_context(server.connect()).sendall(begin)
        delays = []
        for _ in range(20):
            before = time.monotonic()
            asked(server.port)
            delays.append(time.monotonic() - before)
        print(f"beside {count} stalled: median {1000 * statistics.median(delays):.1f} ms, "
              f"greatest {1000 * max(delays):.1f} ms")
        if b"Content-Length" in begin:
            eventually(lambda: server.console.count(b"Content-Length: 9\n") == count, what="every request")
        if keltop.plain:
            print(f"{server.running.resident_kib} KiB resident")
            assert server.running.resident_kib <= 48 * 1024
        before = time.monotonic()
        assert server.running.interrupt() == 0
        print(f"ended in {time.monotonic() - before:.2f} s")
        assert time.monotonic() - before < (1 if keltop.plain else 5) * SLOWNESS
    if not keltop.windows:  # a signal is no Ctrl-C under Wine
        assert server.console.count(b"\nxxxxx\n") == (count if b"Content-Length" in begin else 0)


def test_eight_clients_stopped_together_are_handled_together(server):
    """All eight are in their bodies at one time: none waits for another to end."""
    with contextlib.ExitStack() as stack:
        clients = [stack.enter_context(server.connect()) for _ in range(8)]
        for client in clients:
            client.sendall(b"POST / HTTP/1.1\r\nContent-Length: 5\r\n\r\n")
        eventually(lambda: server.console.count(b"Content-Length: 5\n") == 8, what="all requests")
        for client in clients:
            client.sendall(b"hello")
        for client in clients:
            date_of(read_to_end(client), b"127.0.0.1:%d" % server.port)


# Clients as they are used


def curl(server, *arguments, target="/c"):
    """Runs curl; gives the answer's head, and both addresses."""
    done = subprocess.run(["curl", "--silent", "--show-error", "--include", "--max-time", str(LONG), "--noproxy", "*",
                           "--user-agent", "agent", *arguments, "--write-out", "%{stderr}%{local_port}",
                           f"http://127.0.0.1:{server.port}{target}"],
                          env={**os.environ, "http_proxy": ""}, capture_output=True, check=True)
    return done.stdout, b"127.0.0.1:" + done.stderr, b"127.0.0.1:%d" % server.port


CURL = {
    "get": ([], b"GET", b"", b""),
    "head": (["--head"], b"HEAD", b"", b""),
    "delete": (["--request", "DELETE"], b"DELETE", b"", b""),
    "form": (["--data", "room=101&status=2"], b"POST",
             b"Content-Length: 17\nContent-Type: application/x-www-form-urlencoded\n", b"room=101&status=2\n"),
    "user": (["--user", "me:secret"], b"GET", b"", b""),
}


@pytest.mark.parametrize("arguments, method, headers, body", CURL.values(), ids=CURL.keys())
def test_curl(server, arguments, method, headers, body):
    answer, client, local = curl(server, *arguments)
    user = b"Authorization: Basic " + base64.b64encode(b"me:secret") + b"\n" if "--user" in arguments else b""
    server.expect(transcript(client, local, date_of(answer, local), method + b" /c HTTP/1.1",
                             b"Host: " + local + b"\n" + user + b"User-Agent: agent\nAccept: */*\n" + headers, body,
                             path=b"/c"))
    server.still_serves()


def test_curl_puts_a_file_after_leave_to_send(server, tmp_path):
    content = random.Random(5).randbytes(2_000_000)
    (tmp_path / "body").write_bytes(content)
    answer, client, local = curl(server, "--upload-file", str(tmp_path / "body"), "--header", "Expect: 100-continue")
    assert answer.startswith(CONTINUE)
    server.expect(transcript(client, local, date_of(answer[len(CONTINUE):], local), b"PUT /c HTTP/1.1",
                             b"Host: " + local + b"\nUser-Agent: agent\nAccept: */*\nExpect: 100-continue\n"
                             b"Content-Length: 2000000\n", content + b"\n", path=b"/c"))
    server.still_serves()


def test_curl_through_it_as_a_proxy_shows_the_absolute_target_without_its_host(server):
    done = subprocess.run(["curl", "--silent", "--show-error", "--include", "--max-time", str(LONG),
                           "--proxy", f"http://127.0.0.1:{server.port}", "--user-agent", "agent",
                           "--write-out", "%{stderr}%{local_port}", "http://example.test:81/p%20q?x=%3D"],
                          capture_output=True, check=True)
    local = b"127.0.0.1:%d" % server.port
    server.expect(transcript(b"127.0.0.1:" + done.stderr, local, date_of(done.stdout, local),
                             b"GET /p%20q?x=%3D HTTP/1.1", b"Host: example.test:81\nUser-Agent: agent\nAccept: */*\n"
                             b"Proxy-Connection: Keep-Alive\n", path=b"/p q", query=b"x=="))
    server.still_serves()


@pytest.mark.parametrize("method", ["GET", "HEAD", "POST", "PUT", "PATCH", "DELETE", "OPTIONS"])
def test_the_python_client(server, method):
    body = None if method in ("GET", "HEAD") else b"{}"
    connection = http.client.HTTPConnection("127.0.0.1", server.port, timeout=LONG)
    with contextlib.closing(connection):
        connection.connect()
        ends = address(connection.sock.getsockname()), address(connection.sock.getpeername())
        connection.request(method, "/py?x=1", body, {"Tenant": "T"})
        response = connection.getresponse()
        assert (response.status, response.reason, response.read()) == (200, "OK", b"")
        date = response.getheader("Date").encode()
    length = b"Content-Length: 2\n" if body else b""
    server.expect(transcript(*ends, date, method.encode() + b" /py?x=1 HTTP/1.1",
                             b"Host: " + ends[1] + b"\nAccept-Encoding: identity\n" + length + b"Tenant: T\n",
                             b"{}\n" if body else b"", path=b"/py", query=b"x=1"))
    server.still_serves()


# The port


@pytest.mark.parametrize("switches", [[], ["-raw"]])
def test_a_second_instance_on_the_port_is_told_so(keltop, server, switches):
    second = keltop.run("-p", str(server.port), *switches)
    assert second.returncode == 1
    assert console_text(second.stdout) in port_in_use(keltop, server.port)
    server.still_serves()


@pytest.mark.parametrize("host", ["0.0.0.0", "127.0.0.1"])
def test_a_port_that_another_program_listens_on_is_reported(keltop, host):
    with socket.socket() as other:
        other.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        other.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEPORT, 1)
        other.bind((host, 0))
        other.listen()
        port = other.getsockname()[1]
        refused = keltop.run("-p", str(port))
    assert refused.returncode == 1
    assert console_text(refused.stdout) in port_in_use(keltop, port)


def test_the_port_is_free_again_at_once(keltop):
    running, port = keltop.listen()
    server = Server(running, port)
    server.still_serves()  # the server closes first: the connection lingers in the system
    assert running.interrupt() == 0
    again = keltop.start("-p", str(port))
    eventually(lambda: is_listening(port) or again.process.poll() is not None, what="listening")
    Server(again, port).still_serves()


# Ctrl-C


def silent(server):
    return [server.connect() for _ in range(WORKERS + 4)]


def in_headers(server):
    clients = silent(server)
    for client in clients:
        client.sendall(b"GET / HTTP/1.1\r\nA:")
    return clients


def in_body(server):
    clients = [server.connect() for _ in range(WORKERS)]
    for client in clients:
        client.sendall(b"POST / HTTP/1.1\r\nContent-Length: 100000\r\n\r\nbegin")
    eventually(lambda: server.console.count(b"Content-Length: 100000\n") == WORKERS, what="all requests")
    return clients


def never_reading(server):
    clients = [server.connect(receive_buffer=1) for _ in range(WORKERS)]
    for client in clients:
        client.sendall(b"GET / HTTP/1.1\r\n\r\n")
    eventually(lambda: server.console.count(b"GET / HTTP/1.1\n") == WORKERS, what="all requests")
    return clients


@pytest.mark.parametrize("stop_clients", [lambda server: [], silent, in_headers, in_body, never_reading],
                         ids=["nobody", "silent", "in headers", "in body", "never reading"])
def test_ctrl_c_ends_it_at_once_whoever_is_connected(server, stop_clients):
    clients = stop_clients(server)
    begin = time.monotonic()
    code = server.running.interrupt()
    seconds = time.monotonic() - begin
    print(f"ended in {seconds:.3f} s")
    assert code == 0
    assert seconds < PROMPT
    for client in clients:
        with contextlib.suppress(ssl.SSLEOFError):  # behind TLS: a program that ends says no farewell
            read_to_end(client)  # which ends: nobody is left waiting
        client.close()


def test_ctrl_c_under_load_ends_it_in_good_order(keltop):
    """Workers print and answer while the program ends."""
    for turn in range(8):
        running, port = keltop.listen()
        done = threading.Event()

        def load():
            while not done.is_set():
                with contextlib.suppress(OSError), connect(port) as client:
                    send(client, post(b"x" * 20_000))
                    read_to_end(client)

        clients = [threading.Thread(target=load) for _ in range(4)]
        for client in clients:
            client.start()
        try:
            eventually(lambda: running.output.count(b"Response:") > 5 * turn, what="requests")
            assert running.interrupt(PROMPT) == 0
        finally:
            done.set()
            for client in clients:
                client.join()


# The standard output


@contextlib.contextmanager
def started(keltop, port, redirection=None, **options):
    """The program listening with a standard output of its own; redirection is in the shell's words."""
    command = [*keltop.command, "-p", str(port)]
    if redirection:
        command = ["sh", "-c", f'exec "$@" {redirection}', "sh", *command]
    process = subprocess.Popen(command, env=keltop.env, stdin=subprocess.DEVNULL, **options)
    try:
        eventually(lambda: is_listening(port) or process.poll() is not None, what="listening")
        yield process
    finally:
        if process.poll() is None:
            process.kill()
        process.wait()


def processor_seconds(process):
    with open(f"/proc/{process.pid}/stat", encoding="ascii") as file:
        fields = file.read().rsplit(")", 1)[1].split()
    return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")


def asked(port, request=b"POST / HTTP/1.1\r\nContent-Length: 5\r\n\r\nhello"):
    """An answer as it has to be, to the byte: text for the console in it would show."""
    with connect(port) as client:
        client.sendall(request)
        date_of(read_to_end(client), b"127.0.0.1:%d" % port)


def stays_idle(process):
    before = processor_seconds(process)
    time.sleep(1)  # the time that is observed
    return processor_seconds(process) - before < 0.1


def ended_by_ctrl_c(process):
    process.send_signal(signal.SIGINT)
    return process.wait(PROMPT)


@posix_streams
@pytest.mark.parametrize("redirection", [">/dev/full", ">&-", "<&- >&- 2>&-"])
def test_without_a_usable_standard_output_it_goes_on_answering(keltop, redirection):
    port = free_port()
    with started(keltop, port, redirection) as process, connect(port) as quiet:
        for _ in range(50):
            asked(port)
        assert stays_idle(process)
        quiet.settimeout(0)
        with pytest.raises(BlockingIOError):  # nothing has been sent to a client that said nothing
            quiet.recv(1)
        assert processor_seconds(process) < 1
        assert ended_by_ctrl_c(process) == 0
        quiet.settimeout(LONG)
        assert read_to_end(quiet) == b""


@posix_streams
def test_text_for_a_closed_standard_output_goes_nowhere_else(keltop):
    """Whatever the program opens gets the number of the closed descriptor, unless that is taken first."""
    port = free_port()
    with started(keltop, port, "<&- >&- 2>&-") as process:
        asked(port)
        assert [os.readlink(f"/proc/{process.pid}/fd/{number}") for number in range(3)] == ["/dev/null"] * 3
        folders = [keltop.objects, keltop.data]
        files = [os.path.join(at, name) for folder in folders for at, _, names in os.walk(folder) for name in names]
        assert files  # the shutdown event at least
        for path in files:
            with open(path, "rb") as file:
                content = file.read()
            for text in (b"KELTOP.EXE", b"Options: ", b"Listening", b"Connected", b"hello", b"Response"):
                assert text not in content, path
        assert ended_by_ctrl_c(process) == 0


@posix_streams
def test_a_pipe_that_closes_ends_it_when_a_worker_writes(keltop):
    port = free_port()
    out, into = os.pipe()
    with started(keltop, port, stdout=into) as process:
        os.close(into)
        os.close(out)
        with connect(port) as client:
            client.sendall(b"GET / HTTP/1.1\r\n\r\n")
            assert read_to_end(client) == b""
        assert process.wait(PROMPT) == -signal.SIGPIPE


@posix_streams
def test_a_pipe_that_is_closed_from_the_beginning_ends_it(keltop):
    out, into = os.pipe()
    os.close(out)
    with started(keltop, free_port(), stdout=into) as process:
        os.close(into)
        assert process.wait(PROMPT) == -signal.SIGPIPE


@posix_streams
def test_head_ends_it_like_any_filter(keltop):
    port = free_port()
    shell = subprocess.Popen(["bash", "-c", '"$@" | head -1; echo ${PIPESTATUS[0]}', "bash", *keltop.command, "-p",
                              str(port)], env=keltop.env, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                             start_new_session=True)

    def ended():
        """It ends when it next writes: at the latest for a request."""
        with contextlib.suppress(ConnectionError), connect(port) as client:
            send(client, b"GET / HTTP/1.1\r\n\r\n")
            read_to_end(client)
        return shell.poll() is not None

    with shell:
        try:
            eventually(ended, what="the end")
        finally:
            if shell.poll() is None:
                os.killpg(shell.pid, signal.SIGKILL)
        shown = shell.stdout.read().splitlines()
    assert shown[0] != b""
    assert shown[1:] == [b"%d" % (128 + signal.SIGPIPE)]


@posix_streams
def test_where_broken_pipes_are_ignored_it_goes_on_answering(keltop):
    port = free_port()
    out, into = os.pipe()
    with started(keltop, port, stdout=into, restore_signals=False) as process:  # Python itself ignores SIGPIPE
        os.close(into)
        os.close(out)
        for _ in range(50):
            asked(port)
        assert stays_idle(process)
        assert processor_seconds(process) < 1
        assert ended_by_ctrl_c(process) == 0


@posix_streams
def test_a_console_that_nobody_reads_does_not_hold_up_ctrl_c(keltop):
    port = free_port()
    out, into = os.pipe()
    with started(keltop, port, stdout=into) as process, connect(port) as client:
        os.close(into)
        shown = b""
        while b"Listening on: " not in shown:  # what the main thread has to say: it must not be held up itself
            shown += os.read(out, 4096)
        client.sendall(post(b"x" * 1_000_000))  # which is more than the pipe holds
        eventually(lambda: unread_bytes(out) >= 32_768, what="a pipe that fills")
        begin = time.monotonic()
        assert ended_by_ctrl_c(process) == 0
        print(f"ended in {time.monotonic() - begin:.3f} s")
        os.close(out)


@posix_processes
def test_waiting_for_clients_costs_no_processor_time(server):
    clients = in_body(server) + silent(server)
    assert stays_idle(server.running.process)
    for client in clients:
        client.close()
