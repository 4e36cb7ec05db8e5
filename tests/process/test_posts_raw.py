"""Raw posts: the hand-written request on the wire, and what each way of failing prints."""

import contextlib
import os
import re
import socket
import subprocess
import sys

import pytest

from conftest import LONG, free_port, windows_cannot, wine_cannot
from peers import Peer, exchange_of, masked, read_request, reset

BODY = (b'<?xml version="1.0" encoding="ISO-8859-1"?>\r\n<inventory>\n'
        b'\t<room number="7101" date="DATE" time="TIME" description="test room" attempt="1" sequence="1">\n'
        b'\t\t<user id="1000">\n\t\t\t<fname>Orvin</fname>\n\t\t\t<lname>Talbeck</lname>\n\t\t</user>\n'
        b'\t\t<item id="100" quantity="1" description="clean" price="1.00" catid="10"/>\n'
        b'\t</room>\n</inventory>\n\r\n')
BODY_LENGTH = len(BODY) - len(b"DATE") + 8 - len(b"TIME") + 8

# Switches that make a payload too large for the buffers between two sockets: as long as the peer does not read, the
# post is still being sent. A command line has at most 32,767 characters on Windows; each of these becomes six.
LARGE = ["-room", "'" * 30000]

LOST_NETWORK = os.path.join(os.path.dirname(__file__), "lost_network.py")


def post(keltop, url, *switches):
    return keltop.run("-isi", "xml", "-raw", "-url", url, *switches)


def silent(peer, connection):
    """Takes the request and waits for the program to go."""
    peer.request = read_request(connection)
    assert connection.recv(1) == b""


@pytest.mark.parametrize("path, sent", [
    ("/rsi", b"/rsi"), ("/rsi/", b"/rsi/"), ("/", b"/"), ("", b""), ("/a?b=1", b"/a"), ("/a#f", b"/a"),
    ("/a?b=1#f", b"/a"), ("?b=1", b""), ("#f", b""), ("/a%20b", b"/a b"),
])
@pytest.mark.parametrize("host", ["127.0.0.1", "::1"])
def test_request_byte_for_byte(keltop, host, path, sent):
    with Peer(silent, host=host) as peer:
        shown = f"[{host}]" if ":" in host else host
        console = exchange_of(post(keltop, f"http://{shown}:{peer.port}{path}"))
    assert masked(peer.request) == (b"POST " + sent + b" HTTP/1:1\r\nContent-Type: text/xml\r\n"
                                    b"Agent: Vantrel/8.0.26 ISI/201\r\nContent-Length: %d\r\n\r\n" % BODY_LENGTH + BODY)
    assert console == (b"Post(1025) %b %d\nPosting:\r\n%b\nPost(1103) Timeout: Timeout\n"
                       % (host.encode(), peer.port, peer.request))


@pytest.mark.parametrize("url, target", [
    ("http://no-such-host.invalid/", b"no-such-host.invalid 80"),
    ("https://no-such-host.invalid/", b"no-such-host.invalid 443"),
    ("ftp://no-such-host.invalid/", b"no-such-host.invalid 21"),
])
def test_unresolvable_host_reaches_the_post(keltop, url, target):
    lines = exchange_of(post(keltop, url)).split(b"\n")
    assert lines[0] == b"Post(1025) " + target
    assert re.fullmatch(rb"PostISI\(911\) Error: [^\n]+", lines[1]) and lines[2:] == [b""]
    lines = exchange_of(keltop.run("-rsi", "xml", "-raw", "-url", url)).split(b"\n")
    assert re.fullmatch(rb"PostRSI\(674\) Error: [^\n]+", lines[1]) and lines[2:] == [b""]


def test_malformed_address_reaches_the_post(keltop):
    assert exchange_of(post(keltop, "http://[::1/")) == (
        b"PostISI(911) Error: Bad URI syntax: unterminated IPv6 address\n")


def test_refused(keltop):
    with socket.socket() as bound:
        bound.bind(("127.0.0.1", 0))  # taken, and not listening
        port = bound.getsockname()[1]
        assert exchange_of(post(keltop, f"http://127.0.0.1:{port}/")) == (
            b"Post(1025) 127.0.0.1 %d\nPost(1035) Error: Connection refused\n" % port)


def test_a_peer_that_does_not_accept_times_out(keltop):
    with contextlib.ExitStack() as stack:
        listening = stack.enter_context(socket.socket())
        listening.bind(("127.0.0.1", 0))
        listening.listen(0)
        port = listening.getsockname()[1]
        for _ in range(4):  # fill its queue; then the system drops what comes
            waiting = stack.enter_context(socket.socket())
            waiting.setblocking(False)
            with contextlib.suppress(BlockingIOError):
                waiting.connect(("127.0.0.1", port))
        console = exchange_of(post(keltop, f"http://127.0.0.1:{port}/"))
    assert re.fullmatch(rb"Post\(1025\) 127\.0\.0\.1 \d+\nPost\(1040\) Error: Timeout: connect timed out[^\n]*\n", console)


@windows_cannot("descriptors have no limit there")
def test_no_descriptor_left_to_connect_with(keltop):
    """Some number of descriptors is enough for everything but the connection; its failure is none of the network's."""
    port = free_port()
    seen = set()
    for limit in range(4, 40):
        done = subprocess.run(["prlimit", f"--nofile={limit}", *keltop.command, "-isi", "xml", "-raw", "-url",
                               f"http://127.0.0.1:{port}/"], env=keltop.env, stdin=subprocess.DEVNULL,
                              stdout=subprocess.PIPE, stderr=subprocess.PIPE, timeout=LONG)
        if done.returncode == 0:
            seen.add(exchange_of(done))
    assert b"Post(1025) 127.0.0.1 %d\nPost(1045) Unknown error\n" % port in seen


def test_a_reply_shows_its_first_piece_only(keltop):
    def serve(peer, connection):
        connection.sendall(b"r" * 5000)  # there long before the request is out
        with contextlib.suppress(ConnectionResetError):  # by the rest, which the program does not read
            peer.request = read_request(connection)

    with Peer(serve, narrow=True) as peer:
        console = exchange_of(post(keltop, f"http://127.0.0.1:{peer.port}/", *LARGE))
    assert console.endswith(b"</inventory>\n\r\n\n\r\nReceived:\r\n" + b"r" * 2048 + b"\n")


def test_a_reply_is_read_as_a_terminated_text(keltop):
    def serve(peer, connection):
        connection.sendall(b"seen\0unseen")
        peer.request = read_request(connection)

    with Peer(serve, narrow=True) as peer:
        console = exchange_of(post(keltop, f"http://127.0.0.1:{peer.port}/", *LARGE))
    assert console.endswith(b"\n\r\nReceived:\r\nseen\n")


def test_a_peer_that_sends_nothing_and_closes(keltop):
    def serve(peer, connection):
        connection.shutdown(socket.SHUT_WR)
        peer.request = read_request(connection)

    with Peer(serve, narrow=True) as peer:
        console = exchange_of(post(keltop, f"http://127.0.0.1:{peer.port}/", *LARGE))
    assert console.endswith(b"</inventory>\n\r\n\nPost(1089) Zerio bytes read\n")


@wine_cannot("tells a reset as an end, or not at all", "8.0", "10.0")
def test_reset_while_sending(keltop):
    def serve(peer, connection):
        assert connection.recv(1000)
        reset(connection)

    with Peer(serve, narrow=True) as peer:
        console = exchange_of(post(keltop, f"http://127.0.0.1:{peer.port}/", *LARGE))
    assert console.endswith(b"</inventory>\n\r\n\nPost(1064) Error: Connection reset by peer\n")


@windows_cannot("no socket tells of a broken pipe there")
def test_a_pipe_that_breaks_while_sending(keltop):
    def serve(peer, connection):
        connection.shutdown(socket.SHUT_WR)
        assert connection.recv(1000)
        reset(connection)

    with Peer(serve, narrow=True) as peer:
        console = exchange_of(post(keltop, f"http://127.0.0.1:{peer.port}/", *LARGE))
    assert console.endswith(b"</inventory>\n\r\n\nPost(1074) Unknown error\n")


@wine_cannot("tells a reset as an end", "8.0")
def test_reset_while_receiving(keltop):
    """The reset has to come within the wait of some microseconds that the system rounds up; it does sooner or later."""
    def serve(peer, connection):
        peer.request = read_request(connection)
        reset(connection)

    expected = b"</inventory>\n\r\n\nPost(1095) Connection reset: Connection reset by peer\n"
    for _ in range(50):
        with Peer(serve) as peer:
            console = exchange_of(post(keltop, f"http://127.0.0.1:{peer.port}/"))
        if console.endswith(expected):
            break
        assert console.endswith(b"</inventory>\n\r\n\nPost(1103) Timeout: Timeout\n")
    assert console.endswith(expected)


def in_a_network_of_its_own(how, *command, **options):
    namespaces = ["--net"] if os.geteuid() == 0 else ["--map-root-user", "--net"]
    return subprocess.run(["unshare", *namespaces, sys.executable, LOST_NETWORK, how, *command], timeout=3 * LONG,
                          stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.PIPE, **options)


def network_can_be_lost():
    return sys.platform == "linux" and in_a_network_of_its_own("trial", check=False).returncode == 0


needs_a_network = pytest.mark.skipif(not network_can_be_lost(), reason="needs a network namespace")


@windows_cannot("a network of its own is Linux's")
@needs_a_network
@pytest.mark.parametrize("how, shown", [
    ("unreachable", b"Post(1099) Error: Net Exception: No route to host\n"),
    ("prohibit", b"Post(1107) Other error\n"),
])
def test_the_way_to_the_peer_is_lost_before_the_answer(keltop, how, shown):
    done = in_a_network_of_its_own(how, *keltop.command, "-isi", "xml", "-raw", env=keltop.env, check=False)
    assert done.stderr == b""
    assert exchange_of(done).endswith(b"</inventory>\n\r\n\n" + shown)


@windows_cannot("a network of its own is Linux's")
@needs_a_network
def test_a_network_that_swallows_what_is_sent(keltop):
    done = in_a_network_of_its_own("silence", *keltop.command, "-isi", "xml", "-raw", *LARGE, env=keltop.env,
                                   check=False)
    assert exchange_of(done).endswith(b"</inventory>\n\r\n\nPost(1069) Error: Timeout\n")


def test_a_secure_address_is_posted_raw_all_the_same(keltop):
    with Peer(silent) as peer:
        console = exchange_of(post(keltop, f"https://127.0.0.1:{peer.port}/"))
    assert peer.request.startswith(b"POST / HTTP/1:1\r\n")
    assert console.endswith(b"Post(1103) Timeout: Timeout\n")
