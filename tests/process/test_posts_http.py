"""Posts by plain HTTP, seen from the wire and from the console."""

import contextlib
import datetime
import http.server
import os
import re
import socket
import subprocess
import threading
import time

import pytest

from conftest import LONG, STOP_LINE, windows_cannot, wine_cannot, without_trace
from peers import JSON_BODY, Peer, answering, exchange_of, masked, read_request, reset

OK = b"HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\nhi"


def post(keltop, port, path="/rsi", *switches, host="127.0.0.1", scheme="http"):
    return keltop.run("-rsi", "json", "-url", f"{scheme}://{host}:{port}{path}", *switches)


@pytest.mark.parametrize("path, sent", [
    ("", b"/"), ("/", b"/"), ("/rsi", b"/rsi/"), ("/rsi/", b"/rsi/"), ("/a?b=1", b"/a/"), ("/a/?b=1", b"/a/"),
    ("/a#f", b"/a/"), ("/a?b=1#f", b"/a/"), ("?b=1", b"/"), ("#f", b"/"), ("/a/b.c", b"/a/b.c/"),
])
def test_request_on_the_wire_and_on_the_console(keltop, path, sent):
    with Peer(answering(OK)) as peer:
        console = exchange_of(post(keltop, peer.port, path))
    head, body = peer.request.split(b"\r\n\r\n", 1)
    lines = head.split(b"\r\n")
    assert lines[0] == b"POST " + sent + b" HTTP/1.1"
    assert re.fullmatch(rb"Date: \d{4}-\d\d-\d\dT\d\d:\d\d:\d\dZ", lines[1])
    assert lines[2:5] == [b"User-Agent: Vantrel/8.0.26 RSI/201", b"Content-Length: %d" % len(body),
                          b"Content-Type: application/json"]
    # What the library adds when it sends is not on the console.
    assert sorted(lines[5:]) == [b"Connection: Close", b"Host: 127.0.0.1:%d" % peer.port]
    assert console == (b"Sending request\n" + b"\r\n".join(lines[:5]) + b"\r\n\r\n" + body +
                       b"\r\nReceived response\nHTTP/1.1 OK 200\r\nContent-Length: 2\r\n\r\nhi\r\n")


# The path as it is typed, and as it goes out: what may not stand in a request line (RFC 3986, 3.3) is encoded, and stays
# encoded as the address had it; every other escape is the character that it stands for.
PATHS = {
    "/a%20b": b"/a%20b/", "/a b": b"/a%20b/", "/%61%2d%7E": b"/a-~/", "/a%2Fb": b"/a/b/", "/a%2f": b"/a/",
    "/a%3Fb": b"/a%3Fb/", "/a%3fb?c=1": b"/a%3fb/", "/a%23b#c": b"/a%23b/", "/a%25b": b"/a%25b/", "/a%2520b": b"/a%2520b/",
    "/a%0d%0aX-Evil: 1%0D%0A%0D%0Ab": b"/a%0d%0aX-Evil:%201%0D%0A%0D%0Ab/", "/a\r\nX-Evil: 1": b"/a%0D%0AX-Evil:%201/",
    "/%c3%a4": b"/%c3%a4/", "/\u00e4": b"/%C3%A4/", "/%e4%FF%00": b"/%e4%FF%00/", "/\t%7f%1b\x7f": b"/%09%7f%1b%7F/",
    "/-._~!$&'()*+,;=:@": b"/-._~!$&'()*+,;=:@/", "/\"<>\\^`{|}[]": b"/%22%3C%3E%5C%5E%60%7B%7C%7D%5B%5D/",
}


@pytest.mark.parametrize("path", PATHS)
def test_what_may_not_stand_in_a_request_line_is_encoded(keltop, path):
    if keltop.windows and not path.isascii():
        pytest.skip("the command line is in another character set there")
    with Peer(answering(OK)) as peer:
        console = exchange_of(post(keltop, peer.port, path))
    line = b"POST " + PATHS[path] + b" HTTP/1.1\r\n"
    assert peer.request.startswith(line + b"Date: ") and b"Evil" not in peer.request.split(b"\r\n", 1)[1]
    assert console.startswith(b"Sending request\n" + line + b"Date: ")


@pytest.mark.parametrize("host", ["127.0.0.1\r\nX-Evil", "[127.0.0.1\r\nX-Evil: 1]", "127.0.0.1 \t", "127.0.0.1\x7f"])
@pytest.mark.parametrize("scheme", ["http", "https"])
def test_no_host_puts_a_line_end_into_the_request(keltop, scheme, host):
    with socket.socket() as unasked:
        unasked.bind(("127.0.0.1", 0))
        unasked.listen()
        console = exchange_of(post(keltop, unasked.getsockname()[1], host=host, scheme=scheme))
        unasked.settimeout(0)
        with pytest.raises(BlockingIOError):
            unasked.accept()
    site = b"Post(1286)" if scheme == "http" else b"Post(1192)"
    assert site + b" Error: Host not found: " in console


@pytest.mark.parametrize("zone", ["UTC0", "XYZ-9", "XYZ11"])
def test_the_date_is_now_in_utc(keltop, zone):
    before = datetime.datetime.now(datetime.timezone.utc).replace(microsecond=0)
    with Peer(answering(OK)) as peer:
        exchange_of(keltop.run("-rsi", "json", "-url", f"http://127.0.0.1:{peer.port}/",
                               env={**keltop.env, "TZ": zone}))
    date = re.search(rb"\r\nDate: (\S+)\r\n", peer.request)[1].decode()
    told = datetime.datetime.strptime(date, "%Y-%m-%dT%H:%M:%S%z")
    assert before <= told <= datetime.datetime.now(datetime.timezone.utc)


@pytest.mark.parametrize("word, kind", [("json", b"application/json"), ("xml", b"text/xml"), ("jazz", b"text/xml")])
def test_content_type_by_protocol(keltop, word, kind):
    with Peer(answering(OK)) as peer:
        exchange_of(keltop.run("-isi", word, "-url", f"http://127.0.0.1:{peer.port}/"))
    assert b"\r\nContent-Type: " + kind + b"\r\n" in peer.request
    assert b"\r\nUser-Agent: Vantrel/8.0.26 ISI/201\r\n" in peer.request


def test_ipv6_literal_host(keltop):
    with Peer(answering(OK), host="::1") as peer:
        console = exchange_of(post(keltop, peer.port, host="[::1]"))
    assert b"\r\nHost: [::1]:%d\r\n" % peer.port in peer.request
    assert console.endswith(b"\r\nReceived response\nHTTP/1.1 OK 200\r\nContent-Length: 2\r\n\r\nhi\r\n")


@pytest.mark.parametrize("scheme", ["HTTP", "abcd"])
def test_a_colon_as_fifth_character_goes_by_plain_http(keltop, scheme):
    with Peer(answering(OK)) as peer:
        assert exchange_of(post(keltop, peer.port, scheme=scheme)).startswith(b"Sending request\nPOST /rsi/ HTTP/1.1")


@pytest.mark.parametrize("url, title", [
    ("abc", b"Sending request\nPOST abc/ HTTP/1.1\r\n"), ("abcde", b"Sending request\nPOST abcde/ HTTP/1.1\r\n"),
    ("a/b:c", b"Sending request\nPOST a/b:c/ HTTP/1.1\r\n"), ("abcdef", b"Posting:\r\n"), ("ftp://", b"Posting:\r\n"),
])
def test_addresses_without_a_host(keltop, url, title):
    console = exchange_of(keltop.run("-rsi", "json", "-url", url))
    site = b"Post(1192) Error: " if title.startswith(b"Posting") else b"Post(1286) Error: "
    assert console.startswith(title)
    assert site in console.splitlines()[-1]


def test_transcript_with_a_server_of_the_standard_library(keltop):
    class Handler(http.server.BaseHTTPRequestHandler):
        protocol_version = "HTTP/1.1"

        def do_POST(self):
            body = self.rfile.read(int(self.headers["Content-Length"]))
            assert b'"room_status"' in body
            self.send_response_only(500, "Out of coffee")
            self.send_header("X-One", "1")
            self.send_header("Content-Length", "5")
            self.end_headers()
            self.wfile.write(b"body\n")

        def log_message(self, *_):
            pass

    with http.server.HTTPServer(("127.0.0.1", 0), Handler) as server:
        threading.Thread(target=server.serve_forever, daemon=True).start()
        console = exchange_of(post(keltop, server.server_address[1], "/rsi"))
        server.shutdown()
    assert masked(console) == (
        b'Sending request\n'
        b'POST /rsi/ HTTP/1.1\r\n'
        b'Date: DATE-TIME\r\n'
        b'User-Agent: Vantrel/8.0.26 RSI/201\r\n'
        b'Content-Length: 285\r\n'
        b'Content-Type: application/json\r\n'
        b'\r\n'
        + JSON_BODY +
        b'\r\nReceived response\n'
        b'HTTP/1.1 Out of coffee 500\r\nX-One: 1\r\nContent-Length: 5\r\n\r\nbody\n\r\n')


RESPONSES = {
    "no length": (b"HTTP/1.1 200 OK\r\nA: b\r\n\r\nuntil the end", b"HTTP/1.1 OK 200\r\nA: b\r\n\r\nuntil the end\r\n"),
    "chunked": (b"HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n3\r\nabc\r\n4\r\ndefg\r\n0\r\n\r\n",
                b"HTTP/1.1 OK 200\r\nTransfer-Encoding: chunked\r\n\r\nabcdefg\r\n"),
    "100 first": (b"HTTP/1.1 100 Continue\r\n\r\n" + OK, b"HTTP/1.1 OK 200\r\nContent-Length: 2\r\n\r\nhi\r\n"),
    # The library takes any interim response but 100 for the final one.
    "103 first": (b"HTTP/1.1 103 Early Hints\r\nLink: x\r\n\r\n" + OK, b"HTTP/1.1 Early Hints 103\r\nLink: x\r\n\r\n\r\n"),
    "204": (b"HTTP/1.1 204 No Content\r\n\r\n", b"HTTP/1.1 No Content 204\r\n\r\n\r\n"),
    "301": (b"HTTP/1.1 301 Moved\r\nLocation: http://127.0.0.1:1/\r\nContent-Length: 0\r\n\r\n",
            b"HTTP/1.1 Moved 301\r\nLocation: http://127.0.0.1:1/\r\nContent-Length: 0\r\n\r\n\r\n"),
    "500": (b"HTTP/1.1 500 Internal Server Error\r\nContent-Length: 3\r\n\r\noh!",
            b"HTTP/1.1 Internal Server Error 500\r\nContent-Length: 3\r\n\r\noh!\r\n"),
    "999": (b"HTTP/1.1 999 Denied\r\nContent-Length: 0\r\n\r\n",
            b"HTTP/1.1 Denied 999\r\nContent-Length: 0\r\n\r\n\r\n"),
    "no reason": (b"HTTP/1.0 299\r\nContent-Length: 0\r\n\r\n", b"HTTP/1.0  299\r\nContent-Length: 0\r\n\r\n\r\n"),
    # The library's collection keeps headers of one name together.
    "repeated and empty headers": (b"HTTP/1.1 200 OK\r\nZ: 1\r\nA:\r\nZ: 2\r\nContent-Length: 0\r\n\r\n",
                                   b"HTTP/1.1 OK 200\r\nZ: 1\r\nZ: 2\r\nA: \r\nContent-Length: 0\r\n\r\n\r\n"),
    # The library decodes encoded words (RFC 2047) in header values.
    "encoded words": (b"HTTP/1.1 200 OK\r\nX: =?utf-8?Q?caf=C3=A9?=\r\nContent-Length: 0\r\n\r\n",
                      b"HTTP/1.1 OK 200\r\nX: caf\xc3\xa9\r\nContent-Length: 0\r\n\r\n\r\n"),
    "zero bytes": (b"HTTP/1.1 200 OK\r\nContent-Length: 3\r\n\r\na\0b", b"HTTP/1.1 OK 200\r\nContent-Length: 3\r\n\r\na\0b\r\n"),
    # What came before the peer closed in mid-answer is what is shown.
    "cut short": (b"HTTP/1.1 200 OK\r\nContent-Length: 10\r\n\r\nabc",
                  b"HTTP/1.1 OK 200\r\nContent-Length: 10\r\n\r\nabc\r\n"),
    "longer than it says": (b"HTTP/1.1 200 OK\r\nContent-Length: 3\r\n\r\nabcdef",
                            b"HTTP/1.1 OK 200\r\nContent-Length: 3\r\n\r\nabc\r\n"),
}


@pytest.mark.parametrize("name", RESPONSES)
def test_responses(keltop, name):
    response, printed = RESPONSES[name]
    with Peer(answering(response)) as peer:
        console = exchange_of(post(keltop, peer.port))
    assert console.endswith(b"}\r\nReceived response\n" + printed)


def test_the_request_is_on_the_console_before_the_answer_comes(keltop):
    shown = threading.Event()

    def serve(peer, connection):
        peer.request = read_request(connection)
        assert shown.wait(LONG)
        connection.sendall(OK)

    with Peer(serve) as peer:
        running = keltop.start("-rsi", "json", "-url", f"http://127.0.0.1:{peer.port}/")
        running.wait_for(b'"lname": "Talbeck"\n      }\n    }\n  }\n}')
        shown.set()
        assert running.wait() == 0
    assert without_trace(running.output).endswith(b"\r\n\r\nhi\r\n")


def test_refused(keltop):
    with socket.socket() as bound:
        bound.bind(("127.0.0.1", 0))  # taken, and not listening
        console = exchange_of(post(keltop, bound.getsockname()[1]))
    assert console.endswith(b"}Post(1286) Error: Connection refused\n")


def test_unresolvable_host(keltop):
    console = exchange_of(keltop.run("-rsi", "json", "-url", "http://no-such-host.invalid/"))
    assert re.search(rb"}Post\(1286\) Error: [^\n]*\n$", console), console


FAILING = {
    "closes without an answer": answering(b""),
    "closes in the head": answering(b"HTTP/1.1 200 OK\r\nContent-Le"),
    "garbage": answering(b"\x00\xff\x17garbage" * 1000),
    "no number": answering(b"HTTP/1.1 abc OK\r\n\r\n"),
    "endless header": answering(b"HTTP/1.1 200 OK\r\nA: " + b"x" * 1000000),
}


@pytest.mark.parametrize("name", FAILING)
def test_what_cannot_be_read_as_a_response(keltop, name):
    def serve(peer, connection):
        try:
            FAILING[name](peer, connection)
        except ConnectionError:
            pass  # the program did not want the rest

    with Peer(serve) as peer:
        console = exchange_of(post(keltop, peer.port))
    last = console[console.index(b"\n}") + 2:]
    assert last.startswith(b"Post(1261) Read error: ") and last.count(b"\n") == 1, last[:200]


@wine_cannot("tells a reset as an end", "8.0")
def test_reset_instead_of_an_answer(keltop):
    def serve(peer, connection):
        peer.request = read_request(connection)
        reset(connection)

    with Peer(serve) as peer:
        console = exchange_of(post(keltop, peer.port))
    assert console.endswith(b"}Post(1261) Read error: Connection reset by peer\n"), console[-200:]


def framed(framing, body, announced):
    """The head of a response and the beginning of its body, of which more is announced."""
    return {"length": b"HTTP/1.1 200 OK\r\nContent-Length: %d\r\n\r\n%b" % (announced, body),
            "chunk": b"HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n%x\r\n%b" % (announced, body),
            "end": b"HTTP/1.1 200 OK\r\n\r\n" + body}[framing]


@wine_cannot("tells a reset as an end", "8.0")
@pytest.mark.parametrize("size", [0, 5, 8191, 100000])
@pytest.mark.parametrize("framing", ["length", "chunk", "end"])
def test_reset_in_the_body(keltop, framing, size):
    def serve(peer, connection):
        peer.request = read_request(connection)
        connection.sendall(framed(framing, b"x" * size, 200000))
        reset(connection)

    with Peer(serve) as peer:
        console = exchange_of(post(keltop, peer.port))
    assert console.endswith(b"}Post(1261) Read error: Connection reset by peer\n"), console[-200:]


def sanitized(keltop):
    """Whether the build keeps books of its own in memory."""
    with open(keltop.command[-1], "rb") as program:
        return b"__asan_init" in (content := program.read()) or b"__tsan_init" in content


def measured_run(keltop, url, output):
    """Runs a post with its console in a file; gives its largest resident size in bytes, 0 where that tells nothing.

    The process is asked while it runs: what the system tells of it afterwards includes the size that the process which
    started it once had.
    """
    largest = 0
    with open(output, "wb") as console:
        process = subprocess.Popen([*keltop.command, "-rsi", "json", "-url", url], env=keltop.env, stdout=console,
                                   stdin=subprocess.DEVNULL)
        while process.poll() is None:
            with open(f"/proc/{process.pid}/status", encoding="ascii") as status:
                peak = re.search(r"VmHWM:\s+(\d+)", status.read())  # no longer there once it is ending
            if peak:
                largest = max(largest, int(peak[1]) * 1024)
            time.sleep(0.001)
    assert process.returncode == 0
    assert largest > 0
    return 0 if sanitized(keltop) else largest


@pytest.mark.parametrize("chunked", [False, True])
def test_a_response_of_100_megabytes(keltop, chunked):
    size = 100 * 1024 * 1024
    piece = bytes(range(256)) * 4096

    def serve(peer, connection):
        peer.request = read_request(connection)
        connection.sendall(b"HTTP/1.1 200 OK\r\n" + (b"Transfer-Encoding: chunked" if chunked else
                                                     b"Content-Length: %d" % size) + b"\r\n\r\n")
        for _ in range(size // len(piece)):
            connection.sendall(b"%x\r\n%b\r\n" % (len(piece), piece) if chunked else piece)
        connection.sendall(b"0\r\n\r\n" if chunked else b"")

    output = os.path.join(keltop.folder, "console")
    with Peer(serve) as peer:
        largest = measured_run(keltop, f"http://127.0.0.1:{peer.port}/", output)
    assert largest < 3 * size
    with keltop.open_output(output) as console:
        console.seek(-size - 2 - 4 - len(STOP_LINE), os.SEEK_END)
        assert console.read(4) == b"\r\n\r\n"
        for _ in range(size // len(piece)):
            assert console.read(len(piece)) == piece
        assert console.read() == b"\r\n" + STOP_LINE


@windows_cannot("the system has no limit of that kind there")
@pytest.mark.parametrize("framing", ["length", "chunk", "end"])
def test_memory_that_runs_out_in_a_body_is_told(keltop, framing):
    if sanitized(keltop):
        pytest.skip("a sanitizer needs more room than the limit leaves")
    size = 300 * 1024 * 1024
    piece = bytes(range(256)) * 4096

    def serve(peer, connection):
        peer.request = read_request(connection)
        with contextlib.suppress(ConnectionError):  # the rest is not wanted
            connection.sendall(framed(framing, b"", size))
            for _ in range(size // len(piece)):
                connection.sendall(piece)

    with Peer(serve) as peer:
        command = ["sh", "-c", 'ulimit -v 400000; exec "$@"', "sh", *keltop.command]
        done = subprocess.run([*command, "-rsi", "json", "-url", f"http://127.0.0.1:{peer.port}/"], env=keltop.env,
                              stdout=subprocess.PIPE, stderr=subprocess.PIPE, stdin=subprocess.DEVNULL, check=True,
                              timeout=3 * LONG)
    console = without_trace(done.stdout)
    came, end = console.split(b"\r\nReceived response\n", 1)[1].split(b"\r\n\r\n", 1)[1].rsplit(b"\r\n", 1)
    assert end == b"Post(1261) Read error: Out of memory\n"
    assert len(piece) < len(came) < size
    assert came == (piece * (len(came) // len(piece) + 1))[:len(came)]
