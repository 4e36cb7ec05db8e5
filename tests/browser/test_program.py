"""The switch -view of the program, with real peers and, where it is about the page, a real browser."""

import contextlib
import json
import re
import socket
import ssl
import threading
import time
import urllib.error
import urllib.request

import pytest
from conftest import LONG, SLOWNESS, eventually, free_port, process

HEAD, listening_on, without_trace = process.HEAD, process.listening_on, process.without_trace
ADDRESS = re.compile(rb"View: http://127\.0\.0\.1:(\d+)/\r\n\n")


def view_port(running):
    running.wait_for(b"View: http://127.0.0.1:")
    return int(eventually(lambda: ADDRESS.search(running.output), what="the whole address")[1])


def watched(keltop, *switches):
    """A listener with its page: it, its port and the page's."""
    running, port = keltop.listen(*switches, "-view")
    return running, port, view_port(running)


def get(port, path):
    with urllib.request.urlopen(f"http://127.0.0.1:{port}{path}", timeout=LONG) as answer:
        return answer.read()


def talk(port, *pieces, end=True):
    """Sends the pieces one after the other; gives what came back."""
    with socket.create_connection(("127.0.0.1", port), LONG) as peer:
        for piece in pieces:
            peer.sendall(piece)
        if end:
            peer.shutdown(socket.SHUT_WR)
        answer = b""
        with contextlib.suppress(ConnectionResetError):
            while part := peer.recv(65536):
                answer += part
        return answer


def connection(page_port, number, ended=True):
    """What the log has of a connection, when it has all of it."""
    def look():
        with contextlib.suppress(urllib.error.HTTPError):
            one = json.loads(get(page_port, f"/connections/{number}"))
            return one if not ended or one["state"] != "open" else None
    return eventually(look, what=f"connection {number}")


def received(page_port, number):
    return get(page_port, f"/connections/{number}/received")


def sent(page_port, number):
    return get(page_port, f"/connections/{number}/sent")


def test_the_page_s_address_is_said_after_the_listener_s(keltop):
    port, page_port = free_port(), free_port()
    running = keltop.start("-p", str(port), "-view", str(page_port))
    assert view_port(running) == page_port
    assert b"<title>keltop</title>" in get(page_port, "/")
    assert keltop.end(running) == HEAD + listening_on(port) + b"View: http://127.0.0.1:%d/\r\n\n" % page_port


@pytest.mark.parametrize("value", [[], ["0"]])
def test_without_a_port_a_free_one_is_taken(keltop, value):
    running = keltop.start("-p", str(free_port()), "-VIEW", *value)
    page_port = view_port(running)
    assert page_port != 0
    assert b"<title>keltop</title>" in get(page_port, "/")


def test_a_port_that_cannot_be_had_is_an_error(keltop):
    with socket.create_server(("127.0.0.1", 0)) as taken:
        used = taken.getsockname()[1]
        port = free_port()
        done = keltop.run("-p", str(port), "-view", str(used))
        assert done.returncode == 1
        errors = [b"Error: Net Exception: Address already in use: 127.0.0.1:%d\n" % used]
        if keltop.windows:
            errors.append(b"Error: I/O error: Permission denied\n")
        assert without_trace(done.stdout) in [HEAD + listening_on(port) + error for error in errors]


def test_a_port_that_is_none_is_an_error(keltop):
    port = free_port()
    done = keltop.run("-p", str(port), "-view", "99999")
    assert done.returncode == 1
    assert without_trace(done.stdout) == HEAD + listening_on(port) + b"Error: Service not found: 99999\n"


def test_the_listener_s_own_port_in_use_opens_no_page(keltop):
    with socket.create_server(("0.0.0.0", 0)) as taken:
        done = keltop.run("-p", str(taken.getsockname()[1]), "-view")
    assert done.returncode == 1
    assert b"View:" not in done.stdout


def test_what_the_console_shows_is_the_same_with_the_page(keltop):
    transcripts = []
    for switches in ([], ["-view"]):
        running, port = keltop.listen(*switches)
        talk(port, b"POST /a%20b?x=1 HTTP/1.1\r\nHost: h\r\nContent-Length: 5\r\n\r\nhello")
        running.wait_for(b"Location: ")
        shown = re.sub(rb"127\.0\.0\.1:\d+|Date: [^\r]*|Listening on: \d+", b"MASKED", ADDRESS.sub(b"", keltop.end(running)))
        transcripts.append(shown.rstrip())
    assert transcripts[0] == transcripts[1]


def test_a_request_that_the_library_refuses_is_there_with_its_answer(keltop):
    _, port, page_port = watched(keltop)
    answer = talk(port, b"hello\r\n\r\n")
    assert answer.startswith(b"HTTP/1.1 400 ")
    one = connection(page_port, 1)
    assert (one["kind"], one["status"]) == ("bytes", "400")
    assert received(page_port, 1) == b"hello\r\n\r\n"
    assert sent(page_port, 1) == answer


def test_a_tls_hello_on_a_plain_port_is_named(keltop):
    _, port, page_port = watched(keltop)
    context = ssl.create_default_context()
    context.check_hostname, context.verify_mode = False, ssl.CERT_NONE
    # The library may wait for more of what it takes for a line: how it answers is not asked here.
    with socket.create_connection(("127.0.0.1", port), 1) as peer, pytest.raises((ssl.SSLError, OSError)):
        context.wrap_socket(peer)
    assert connection(page_port, 1)["kind"] == "tls"
    assert received(page_port, 1)[:3] == b"\x16\x03\x01"


def test_a_connection_that_says_nothing_is_there(keltop):
    _, port, page_port = watched(keltop)
    with socket.create_connection(("127.0.0.1", port), LONG) as peer:
        one = connection(page_port, 1, ended=False)
        assert (one["kind"], one["state"], one["in"]) == ("silent", "open", 0)
        assert one["peer"] == "127.0.0.1:%d" % peer.getsockname()[1]
    assert connection(page_port, 1)["state"] == "closed by peer"


def test_target_and_headers_are_there_as_they_came(keltop):
    _, port, page_port = watched(keltop)
    request = (b"GET /a%c3%a9~b%7e%2fc?q=%41 HTTP/1.1\r\nHost:   x\r\nX-Folded: one\r\n\t two\r\nx-Word: =?UTF-8?Q?a?=\r\n\r\n")
    talk(port, request, end=False)
    one = connection(page_port, 1)["request"]
    assert one["second"] == "/a%c3%a9~b%7e%2fc?q=%41"
    assert one["headers"] == [["Host", "x"], ["X-Folded", "one\r\n\t two"], ["x-Word", "=?UTF-8?Q?a?="]]
    assert received(page_port, 1) == request


def test_a_short_body_is_marked(keltop):
    _, port, page_port = watched(keltop)
    talk(port, b"POST / HTTP/1.1\r\nContent-Length: 30\r\n\r\nshort")
    one = connection(page_port, 1)["request"]["body"]
    assert (one["end"], one["announced"], one["bytes"]) == ("shorter", 30, "short")


def test_a_chunked_body_is_there_whole(keltop):
    _, port, page_port = watched(keltop)
    chunks = b"".join(b"%x\r\n%s\r\n" % (len(part), part) for part in (b"a" * 1000, b"b" * 70_000, b"end"))
    request = b"POST /c HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n" + chunks + b"0\r\n\r\n"
    talk(port, request)
    one = connection(page_port, 1)["request"]["body"]
    assert (one["end"], one["chunked"], one["size"]) == ("complete", True, 71_003)
    assert received(page_port, 1) == request
    assert get(page_port, "/connections/1/body") == b"a" * 1000 + b"b" * 70_000 + b"end"


def test_bytes_after_the_end_of_a_request_are_there(keltop):
    _, port, page_port = watched(keltop)
    talk(port, b"GET / HTTP/1.1\r\n\r\nAFTER")
    assert connection(page_port, 1)["request"]["rest"] == {"size": 5, "bytes": "AFTER"}


def test_raw_peers_that_interleave_are_apart_and_whole(keltop):
    _, port, page_port = watched(keltop, "-raw")
    with socket.create_connection(("127.0.0.1", port), LONG) as one, socket.create_connection(("127.0.0.1", port), LONG) as other:
        connection(page_port, 2, ended=False)
        for number in range(50):
            one.sendall(b"\x02ROOM %d\x00\x03" % number)
            other.sendall(b"STATUS %d\r\n" % number)
        for number, peer, sent_all in ((1, one, b"".join(b"\x02ROOM %d\x00\x03" % n for n in range(50))),
                                       (2, other, b"".join(b"STATUS %d\r\n" % n for n in range(50)))):
            assert connection(page_port, number, ended=False)["peer"].endswith(f":{peer.getsockname()[1]}")
            eventually(lambda number=number, all=sent_all: received(page_port, number) == all, what="every byte")


def test_a_reset_is_told_as_one(keltop):
    _, port, page_port = watched(keltop, "-raw")
    peer = socket.create_connection(("127.0.0.1", port), LONG)
    peer.sendall(b"abc")
    eventually(lambda: connection(page_port, 1, ended=False)["in"] == 3)
    peer.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, b"\x01\x00\x00\x00\x00\x00\x00\x00")
    peer.close()
    assert connection(page_port, 1)["state"] == "reset"


def events_of(page_port):
    """A client that reads events, and has read the first."""
    browser = socket.create_connection(("127.0.0.1", page_port), LONG)
    browser.sendall(b"GET /events HTTP/1.1\r\nHost: 127.0.0.1:%d\r\n\r\n" % page_port)
    came = b""
    while b"event: hello" not in came:
        came += browser.recv(4096)
    return browser


def test_the_listener_ends_in_a_moment_with_browsers_that_do_not_read(keltop):
    running, port, page_port = watched(keltop)
    browsers = [events_of(page_port) for _ in range(16)]
    for number in range(300):
        talk(port, b"GET /%d/%s HTTP/1.1\r\n\r\n" % (number, b"x" * 400), end=False)
    begin = time.monotonic()
    if keltop.windows:
        running.process.kill()
    else:
        assert running.interrupt() == 0
        assert time.monotonic() - begin < 1 * SLOWNESS
    for browser in browsers:
        browser.close()


def test_a_request_is_on_the_page_in_a_moment(keltop, page):
    _, port, page_port = watched(keltop)
    page.open(page_port)
    page.run("""
        window.seen = [];
        new MutationObserver(() => {
          const row = document.querySelector('[role=option] .what');
          if (row && !window.seen.length) { window.seen.push(Date.now()); }
        }).observe(document.getElementById('rows'), { childList: true, subtree: true });""")
    before = time.time()
    talk(port, b"GET /now HTTP/1.1\r\n\r\n", end=False)
    shown = page.until(lambda: page.run("return window.seen[0]"))
    assert shown / 1000 - before < 0.2 * SLOWNESS
    assert page.rows() == ["GET /now"]


def test_a_thousand_raw_peers_are_listed(keltop, page):
    _, port, page_port = watched(keltop, "-raw")
    page.open(page_port)
    with contextlib.ExitStack() as peers:
        for number in range(1000):
            peer = peers.enter_context(socket.create_connection(("127.0.0.1", port), LONG))
            peer.sendall(b"PEER %d\r\n" % number)
        page.until(lambda: page.text("#counts").startswith("1,000 seen · 1,000 open"))
        eventually(lambda: len(json.loads(get(page_port, "/search?text=PEER"))["ids"]) == 1000, what="every peer's bytes")


CLICK = """
    const done = arguments[0], rows = [...document.querySelectorAll('[role=option]')];
    const row = rows[Math.floor(rows.length / 2)], id = row.dataset.id, begin = performance.now();
    new MutationObserver((_, observer) => {
      if (document.getElementById('detail').dataset.shows === id) {
        observer.disconnect();
        done(performance.now() - begin);
      }
    }).observe(document.getElementById('detail'), { attributes: true, childList: true });
    row.click();"""


def test_a_click_is_answered_while_a_thousand_requests_a_second_come_and_all_are_listed(keltop, page):
    _, port, page_port = watched(keltop)
    page.open(page_port)
    talk(port, b"GET /first HTTP/1.1\r\n\r\n", end=False)
    page.until(page.rows)
    begin = time.monotonic()

    def client():
        for number in range(1250):
            talk(port, b"GET /%d HTTP/1.1\r\n\r\n" % number, end=False)
            time.sleep(max(0, begin + number * 0.004 - time.monotonic()))

    clients = [threading.Thread(target=client) for _ in range(4)]
    for one in clients:
        one.start()
    answered = []
    while any(one.is_alive() for one in clients):
        answered.append(page.driver.execute_async_script(CLICK))
    for one in clients:
        one.join()
    page.until(lambda: page.text("#counts").startswith("5,001 seen"))
    page.until(lambda: page.all("[role=option]")[-1].get_attribute("aria-setsize") == "5001", "every request in the list")
    assert len(answered) > 5
    assert sorted(answered)[len(answered) // 2] < 100 * SLOWNESS
    print(f"clicks answered in {min(answered):.0f} to {max(answered):.0f} ms, {len(answered)} of them")
