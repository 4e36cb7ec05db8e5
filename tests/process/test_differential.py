"""The Windows build and the Linux build, given the same switches and the same peers, show the same."""

import concurrent.futures
import http.server
import re
import shlex
import socket
import tempfile
import threading
import time

import pytest

import peers
from conftest import LONG, Keltop, eventually

pytestmark = pytest.mark.skipif("not config.getoption('--keltop').endswith('.exe')",
                                reason="compares the Windows build with the Linux build")

MASKS = [
    (re.compile(rb"LOG1067 [^\n]*\n"), b""),  # a trace line may come between any two lines of the console
    (re.compile(rb"[A-Z][a-z]{2}, \d\d [A-Z][a-z]{2} \d{4} \d\d:\d\d:\d\d GMT"), b"DATE"),
    (re.compile(rb"\d{4}([-/])\d\d\1\d\d[-T ]\d\d:\d\d:\d\d([:.]\d+)?"), b"TIME"),
    (re.compile(rb"\d\d/\d\d/\d{4}|\d{4}-\d\d-\d\d|\d\d:\d\d:\d\d"), b"TIME"),
    (re.compile(rb"127\.0\.0\.1:\d+|0\.0\.0\.0:\d+"), b"ADDRESS"),
    (re.compile(rb"Listening on: \d+"), b"Listening on: PORT"),
]


def masked(text):
    for pattern, mask in MASKS:
        text = pattern.sub(mask, text)
    return text


@pytest.fixture
def both(request, keltop):
    """The program under test and the Linux build, each with a folder of its own."""
    with tempfile.TemporaryDirectory(prefix="keltop-reference-") as folder:
        reference = Keltop(request.config.getoption("--reference"), folder)
        assert not reference.windows
        try:
            yield keltop, reference
        finally:
            reference.close()


def same(results):
    windows, linux = results
    assert windows == linux
    return linux


RUNS = ["", "-h", "-?", "/H", "~h", "-x -H", "-raw", "-raw x", "-p", "-p 0", "-p abc", "-p -5", "~p -5",
        "-p ' 0x50'", "word", "-isi", "-rsi", "-isi json -p 80"]


@pytest.mark.parametrize("switches", RUNS)
def test_runs_that_end_by_themselves(both, switches):
    def run(program):
        done = program.run(*shlex.split(switches), timeout=LONG)
        return done.returncode, program.text_mode(done.stderr), masked(done.stdout)

    *_, shown = same([run(program) for program in both])
    assert b"KELTOP.EXE" in shown


def exchange(port, data):
    """All that the listener answers; it may close, or reset, before it has read everything."""
    answer = bytearray()
    with socket.create_connection(("127.0.0.1", port), timeout=LONG) as client:
        try:
            client.sendall(data)
            client.shutdown(socket.SHUT_WR)
            while chunk := client.recv(1 << 16):
                answer += chunk
        except ConnectionResetError:
            pass
    return bytes(answer)


REQUESTS = [
    b"GET /a%20b?c=%41 HTTP/1.1\r\nHost: x\r\nA: 1\r\nA: 2\r\n\r\n",
    b"POST / HTTP/1.1\r\nContent-Length: 12\r\n\r\nline\r\nline\n\x01\xff",
    b"PUT /x HTTP/1.0\r\nContent-Length: 5\r\nAuthorization: Basic eDp5\r\n\r\nab",
    b"DELETE http://elsewhere/x#y HTTP/1.1\r\n\r\n",
    b"OPTIONS * HTTP/1.1\r\n\r\n",
    b"POST / HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n2\r\nab\r\n0\r\n\r\n",
    b"GET /%zz HTTP/1.1\r\n\r\n",
    b"nonsense\r\n\r\n",
    b"GET / HTTP/9\r\nno colon\r\n\r\n",
    b"",
]


def test_http_listeners(both):
    def serve(program):
        running, port = program.listen()
        steps = []
        answered = 0
        for request in REQUESTS:
            answer = exchange(port, request)
            steps.append(masked(answer))
            answered += answer.startswith(b"HTTP/1.1 200")
            eventually(lambda: running.output.count(b"Response:") >= answered, what="what is shown of a request")
        code = running.interrupt()
        return steps, code, masked(running.output)

    _, code, shown = same([serve(program) for program in both])
    assert code == 0
    assert shown.count(b"Connected:") >= 5


RAW_BYTES = [bytes(byte for byte in range(256) if byte), b"with\0zero", b"line\nline\r\nline\r", b"\n" * 100, b"x" * 100_000]


def test_raw_listeners(both):
    def serve(program):
        running, port = program.listen("-raw")
        for number, data in enumerate(RAW_BYTES, 1):
            assert exchange(port, data) == b""
            eventually(lambda: running.output.count(b"Disconnect from") == number, what="the end of a peer")
        code = running.interrupt()
        return code, masked(running.output)

    code, _ = same([serve(program) for program in both])
    assert code == 0


class Peer(http.server.BaseHTTPRequestHandler):
    """Keeps what it is sent and answers."""

    def do_POST(self):
        body = self.rfile.read(int(self.headers.get("Content-Length", 0)))
        self.server.posts.append((self.requestline, self.headers.items(), body))
        self.send_response(202)
        self.send_header("X-Peer", "1")
        self.end_headers()
        self.wfile.write(b"answer\r\nof two lines\n")

    def log_message(self, *_):
        pass


@pytest.fixture
def peer():
    with http.server.HTTPServer(("127.0.0.1", 0), Peer) as server:
        server.posts = []
        thread = threading.Thread(target=server.serve_forever)
        thread.start()
        try:
            yield server
        finally:
            server.shutdown()
            thread.join()


POSTS = [f"{post} {protocol} {details}" for post, details in
         (("-rsi", "-room 12 -fname A&B -lname <C> -id 7 -code 3"), ("-isi", "-room 12 -item 5 -count 2 -category 9"))
         for protocol in ("jazz", "json", "form", "xml", "")]


@pytest.mark.parametrize("switches", POSTS)
def test_posts(both, peer, switches):
    url = f"http://127.0.0.1:{peer.server_address[1]}/x?y=z"

    def post(program):
        done = program.run(*switches.split(), "-url", url, timeout=LONG)
        sent = [masked(repr(post).encode()) for post in peer.posts]
        peer.posts.clear()
        return done.returncode, program.text_mode(done.stderr), masked(done.stdout), sent

    same([post(program) for program in both])


PATIENCE = 120  # seconds that a post waits for its peer


@pytest.mark.parametrize("answer", [b"", b"\x16\x03\x03\x00"], ids=["at once", "in a record"])
def test_a_handshake_that_stalls(both, answer):
    """Side by side: it takes two minutes."""
    def stall(_, connection):
        connection.settimeout(PATIENCE + 2 * LONG)
        connection.sendall(answer)
        while connection.recv(1 << 16):
            pass

    def post(program):
        with peers.Peer(stall) as peer:
            start = time.monotonic()
            done = program.run("-rsi", "json", "-url", f"https://127.0.0.1:{peer.port}/", timeout=PATIENCE + 3 * LONG)
            waited = time.monotonic() - start
        assert PATIENCE - 1 < waited < PATIENCE + LONG
        return done.returncode, program.text_mode(done.stderr), masked(done.stdout)

    with concurrent.futures.ThreadPoolExecutor() as threads:
        code, _, shown = same(list(threads.map(post, both)))
    assert code == 0
    assert shown.endswith(b"}\nPost(1192) Error: Timeout\n")
