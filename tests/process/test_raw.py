"""The raw listener: what peers send is shown as it comes, and nothing is answered."""

import contextlib
import errno
import os
import random
import select
import socket
import ssl
import statistics
import subprocess
import threading
import time

import pytest

from conftest import (HEAD, LONG, SLOWNESS, WORKERS, eventually, listening_on, raise_descriptor_limit,
                       soft_descriptor_limit, windows_cannot, wine_cannot, without_trace)
from peers import reset

ANY = ("127.0.0.1", 0)

linux_output = windows_cannot("standard output of a Wine process is no Linux terminal and in text mode")


def address(peer):
    return b"%s:%d" % (peer.getsockname()[0].encode(), peer.getsockname()[1])


def connected(peer):
    return b"\r\nConnect from %s\n" % address(peer)


def disconnected(peer):
    return b"\r\nDisconnect from %s\n" % address(peer)


def closing(peer):
    return b"\r\nClosing connection to %s\n" % address(peer)


class Listener:
    def __init__(self, keltop, **options):
        self.keltop = keltop
        self.running, self.port = keltop.listen("-raw", **options)
        self._peers = contextlib.ExitStack()

    def connect(self, source=ANY):
        return self._peers.enter_context(socket.create_connection(("127.0.0.1", self.port), LONG, source))

    def crowd(self, count):
        """So many connected peers, which all began to connect at once."""
        made = [self._peers.enter_context(socket.socket()) for _ in range(count)]
        for peer in made:
            peer.setblocking(False)
            assert peer.connect_ex(("127.0.0.1", self.port)) in (0, errno.EINPROGRESS)
        for peer in made:
            peer.settimeout(LONG)
            waiting = select.poll()
            waiting.register(peer, select.POLLOUT)
            assert waiting.poll(1000 * LONG) and peer.getsockopt(socket.SOL_SOCKET, socket.SO_ERROR) == 0
        return made

    def peer(self, source=ANY):
        """A connected peer that is being shown."""
        made = self.connect(source)
        self.running.wait_for(connected(made))
        return made

    @property
    def shown(self):
        """What it has shown after banner, short list and the lines of a listener."""
        output = without_trace(self.running.output)
        head = HEAD + listening_on(self.port)
        assert output.startswith(head)
        return output[len(head):]

    def end(self):
        """All that it showed, as above."""
        self.keltop.end(self.running)
        return self.shown

    def close(self):
        self._peers.close()


@pytest.fixture
def raw(keltop):
    with contextlib.closing(Listener(keltop)) as listener:
        yield listener


def exchange(raw, sent):
    """What is shown of a peer that sends and closes."""
    peer = raw.peer()
    ends = disconnected(peer)
    peer.sendall(sent)
    peer.close()
    raw.running.wait_for(ends)
    return raw.end()


# One peer


def test_a_peer_that_sends_and_closes(raw):
    peer = raw.connect()
    begins, ends = connected(peer), disconnected(peer)
    peer.sendall(b"ABC")
    peer.close()
    raw.running.wait_for(ends)
    assert raw.end() == begins + b"ABC" + ends


def test_netcat_as_the_peer(raw):
    subprocess.run(["nc", "-N", "127.0.0.1", str(raw.port)], input=b"ABC", timeout=LONG, check=True)
    raw.running.wait_for(b"Disconnect from")
    begin, middle, end = raw.end().partition(b"ABC")
    assert (middle, end) == (b"ABC", begin.replace(b"Connect", b"Disconnect"))


def test_a_peer_that_sends_nothing_and_closes(raw):
    peer = raw.connect()
    begins, ends = connected(peer), disconnected(peer)
    peer.close()
    raw.running.wait_for(ends)
    assert raw.end() == begins + ends


def test_the_peers_own_address_is_shown(raw):
    peer = raw.peer(("127.0.0.77", 0))
    assert b"\r\nConnect from 127.0.0.77:" in raw.running.output
    ends = disconnected(peer)
    peer.close()
    raw.running.wait_for(ends)


def test_a_silent_peer_stays_open_and_prints_nothing(raw):
    peer = raw.peer()
    peer.settimeout(5)  # two polls
    with pytest.raises(TimeoutError):
        peer.recv(1)
    assert raw.end() == connected(peer)
    peer.settimeout(LONG)
    with contextlib.suppress(ssl.SSLEOFError):  # behind TLS: a program that ends says no farewell to open connections
        assert peer.recv(1) == b""


def test_a_peer_that_half_closes_is_disconnected(raw):
    peer = raw.peer()
    peer.sendall(b"ABC")
    peer.shutdown(socket.SHUT_WR)
    assert peer.recv(1) == b""
    assert raw.end() == connected(peer) + b"ABC" + disconnected(peer)


@pytest.mark.parametrize("sent", [b"x", b"GET / HTTP/1.1\r\nHost: x\r\n\r\n", bytes(range(256)) * 50], ids=len)
def test_nothing_is_ever_sent_to_the_peer(raw, sent):
    peer = raw.peer()
    ends = disconnected(peer)
    peer.sendall(sent)
    peer.settimeout(0.3)
    with pytest.raises(TimeoutError):
        peer.recv(1)
    peer.settimeout(LONG)
    peer.shutdown(socket.SHUT_WR)
    assert peer.recv(1) == b""
    raw.running.wait_for(ends)


def test_slow_peers_are_shown_across_the_poll_and_the_receive_time_out(raw):
    """Pauses of 3 s, longer than a poll, and of 11 s, longer than a read waits."""
    early, late = raw.peer(), raw.peer()
    delays = []

    def show(peer, byte):
        size = raw.running.size
        sent = time.monotonic()
        peer.sendall(byte)
        raw.running.wait_for_size(size + 1)
        delays.append(time.monotonic() - sent)

    show(early, b"1")
    time.sleep(3)  # the pauses are what is tested
    show(early, b"2")
    time.sleep(11)
    show(early, b"3")
    show(late, b"a")
    time.sleep(0.5)
    show(late, b"b")
    show(early, b"4")
    print(f"slow peer: greatest delay {max(delays) * 1000:.2f} ms")
    assert max(delays) < 1 * SLOWNESS
    assert raw.end() == connected(early) + connected(late) + b"123ab4"


# Bytes


def test_every_byte_but_zero_is_shown_unchanged(raw):
    output = exchange(raw, bytes(range(256)))
    assert output.split(b"\n", 2)[2].startswith(bytes(range(1, 256)) + b"\r\nDisconnect from ")


@pytest.mark.parametrize("sent", [b"\0", b"A\0B\0\0C", b"\0" * 10_000 + b"A", b"A" + b"\0" * 10_000, b"\0A" * 5_000],
                         ids=["one", "between", "before", "after", "alternating"])
def test_zero_bytes_are_not_shown(raw, sent):
    peer = raw.peer()
    ends = disconnected(peer)
    peer.sendall(sent)
    begins = connected(peer)
    peer.close()
    raw.running.wait_for(ends)
    assert raw.end() == begins + sent.replace(b"\0", b"") + ends


@pytest.mark.parametrize("count", [1, 2047, 2048, 2049, 2050, 8192, 65_537, 300_000])
def test_bursts_of_any_length_are_complete(raw, count):
    sent = random.Random(count).randbytes(count)
    peer = raw.peer()
    begins, ends = connected(peer), disconnected(peer)
    peer.sendall(sent)
    peer.close()
    raw.running.wait_for(ends)
    shown = sent.replace(b"\0", b"")
    assert raw.end() == begins + shown + ends


@linux_output
@pytest.mark.parametrize("place", ["pipe", "file"])
def test_twenty_megabytes_in_one_burst(keltop, place):
    sent = random.Random(20).randbytes(20_000_000)
    path = os.path.join(keltop.folder, "output")
    with open(path, "wb") as file:
        listener = Listener(keltop, **({"stdout": file} if place == "file" else {}))
    with contextlib.closing(listener) as raw, open(path, "rb") as written:
        def tail(count):
            if place == "pipe":
                return raw.running.tail(count)
            written.seek(max(0, os.path.getsize(path) - count))
            return written.read()

        peer = raw.connect()
        begins, ends = connected(peer), disconnected(peer)
        begin = time.monotonic()
        peer.sendall(sent)
        peer.close()
        eventually(lambda: tail(len(ends)) == ends, what="the whole burst", timeout=3 * LONG)
        print(f"20 MB to a {place}: {20 / (time.monotonic() - begin):.1f} MB/s")
        assert raw.running.interrupt() == 0
        written.seek(0)
        output = without_trace(raw.running.output if place == "pipe" else written.read())
    assert output == HEAD + listening_on(raw.port) + begins + sent.replace(b"\0", b"") + ends, "not what was sent"


# Promptness


def report(place, delays):
    print(f"byte to {place}: median {statistics.median(delays) * 1000:.2f} ms, greatest {max(delays) * 1000:.2f} ms")
    assert statistics.median(delays) < 0.25 * SLOWNESS
    assert max(delays) < 2 * SLOWNESS


def delays_of_single_bytes(peer, wait_for_size, size):
    peer.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
    delays = []
    for number in range(1, 101):
        sent = time.monotonic()
        peer.sendall(b"x")
        wait_for_size(size + number)
        delays.append(time.monotonic() - sent)
    return delays


def test_bytes_appear_promptly_through_a_pipe(raw):
    peer = raw.peer()
    report("pipe", delays_of_single_bytes(peer, raw.running.wait_for_size, raw.running.size))
    assert raw.end() == connected(peer) + b"x" * 100


@linux_output
def test_bytes_appear_promptly_on_a_terminal(keltop, terminal):
    running, port = terminal.listen(keltop, "-raw")
    with socket.create_connection(("127.0.0.1", port)) as peer:
        terminal.screen.wait_for(connected(peer).replace(b"\n", b"\r\n").lstrip())
        report("terminal", delays_of_single_bytes(peer, terminal.screen.wait_for_size, terminal.screen.size))
    assert running.interrupt() == 0


@linux_output
def test_bytes_appear_promptly_in_a_file(keltop):
    path = os.path.join(keltop.folder, "output")
    with open(path, "wb") as file:
        running, port = keltop.listen("-raw", stdout=file)
    shown = bytearray()
    with socket.create_connection(("127.0.0.1", port)) as peer, open(path, "rb") as written:
        def read_until(done):
            deadline = time.monotonic() + LONG
            while not done():
                assert time.monotonic() < deadline
                shown.extend(written.read())

        read_until(lambda: connected(peer) in shown)
        report("file", delays_of_single_bytes(peer, lambda size: read_until(lambda: len(shown) >= size), len(shown)))
    assert running.interrupt() == 0


def test_bytes_appear_while_a_burst_goes_on(raw):
    """A peer that never pauses is shown as it sends, not when it is done."""
    peer = raw.peer()
    size = raw.running.size
    stop = threading.Event()

    def send():
        while not stop.is_set():
            peer.sendall(b"x" * 100)

    sender = threading.Thread(target=send)
    sender.start()
    try:
        raw.running.wait_for_size(size + 200_000)
    finally:
        stop.set()
        sender.join()


# Several peers


def test_several_peers_at_once_are_all_shown(raw):
    each = 5_000
    peers = [raw.peer() for _ in range(WORKERS)]
    begins, ends = [connected(peer) for peer in peers], [disconnected(peer) for peer in peers]

    def send(peer, byte):
        for _ in range(50):
            peer.sendall(bytes([byte]) * (each // 50))
        peer.close()

    senders = [threading.Thread(target=send, args=(peer, 0xE0 + number)) for number, peer in enumerate(peers)]
    for sender in senders:
        sender.start()
    for sender in senders:
        sender.join()
    eventually(lambda: len(raw.shown) >= sum(map(len, begins + ends)) + WORKERS * each, what="all bytes")
    output = raw.end()
    assert [output.count(bytes([0xE0 + number])) for number in range(WORKERS)] == [each] * WORKERS
    shown = bytes(byte for byte in output if byte < 0xE0)
    assert len(shown) == sum(map(len, begins + ends))


def test_a_thousand_peers_at_once_are_all_shown(keltop):
    """Each is shown while all are connected, from beginning to end in its order, and costs little."""
    raise_descriptor_limit()
    count = 1000 if keltop.plain else 200
    few_descriptors = {} if keltop.windows else {"preexec_fn": lambda: soft_descriptor_limit(256)}
    with contextlib.closing(Listener(keltop, **few_descriptors)) as raw:
        begin = time.monotonic()
        peers = raw.crowd(count)
        for number, peer in enumerate(peers):
            peer.sendall(b"<first %d>\n" % number)
        eventually(lambda: raw.running.output.count(b"<first ") == count, what="every first line")
        print(f"{count} peers shown after {time.monotonic() - begin:.2f} s")
        for number, peer in enumerate(peers):
            peer.sendall(b"<second %d>\n" % number)
        eventually(lambda: raw.running.output.count(b"<second ") == count, what="every second line")
        shown = raw.shown
        for number, peer in enumerate(peers):
            assert shown.count(connected(peer)) == 1
            first, second = shown.find(b"<first %d>\n" % number), shown.find(b"<second %d>\n" % number)
            assert -1 < shown.find(connected(peer)) < first < second
        if keltop.plain:
            print(f"{raw.running.resident_kib} KiB resident")
            assert raw.running.resident_kib <= 48 * 1024
        begin = time.monotonic()
        assert b"Disconnect" not in raw.end()
        print(f"ended in {time.monotonic() - begin:.2f} s")
        assert time.monotonic() - begin < (1 if keltop.plain else 5) * SLOWNESS


def test_peers_one_after_another(raw):
    expected = b""
    for number in range(100):
        shown = len(raw.running.output)  # a port may come again
        peer = raw.connect()
        ends = disconnected(peer)
        expected += connected(peer) + b"%d" % number + ends
        peer.sendall(b"%d" % number)
        peer.close()
        raw.running.wait_for(ends, start=shown)
    assert raw.end() == expected


def test_peers_that_connect_send_and_close_in_a_crowd_are_all_shown(raw):
    raise_descriptor_limit()
    for turn in range(3):
        for number in range(300):
            with socket.create_connection(("127.0.0.1", raw.port), LONG) as peer:
                peer.sendall(b"<%d of turn %d>" % (number, turn))
        eventually(lambda: raw.running.output.count(b"\r\nDisconnect") == 300 * (turn + 1), what="every peer's end")
    shown = raw.end()
    for turn in range(3):
        for number in range(300):
            assert shown.count(b"<%d of turn %d>" % (number, turn)) == 1


# Resets


@wine_cannot("tells a reset as an end", "8.0")
def test_a_reset_shows_two_lines_and_harms_no_other_peer(raw):
    other, peer = raw.peer(), raw.peer()
    begins, ends = connected(peer), closing(peer)
    other.sendall(b"1")
    eventually(lambda: raw.shown.endswith(b"1"))
    reset(peer)
    raw.running.wait_for(ends)
    third = raw.peer()
    other.sendall(b"2")
    eventually(lambda: raw.shown.endswith(b"2"))
    reported = b"Error: Connection reset by peer\n" + ends
    assert raw.end() == connected(other) + begins + b"1" + reported + connected(third) + b"2"


def test_what_came_before_a_reset_is_shown(raw):
    peer = raw.peer()
    begins, ends = connected(peer), closing(peer)
    peer.sendall(b"ABC")
    eventually(lambda: raw.shown.endswith(b"ABC"))
    reset(peer)
    raw.running.wait_for(ends)
    assert raw.end() == begins + b"ABCError: Connection reset by peer\n" + ends


@wine_cannot("tells a reset as an end, or loses a connection that is reset before it is accepted", "8.0", "10.0")
@pytest.mark.parametrize("sent", [b"", b"ABC", b"x" * 5_000], ids=len)
def test_a_peer_that_resets_at_once_is_shown_with_its_bytes(raw, sent):
    expected = b""
    for _ in range(40):
        before = len(raw.running.output)  # an earlier peer may have had the same port
        peer = raw.connect()
        begins, ends = connected(peer), closing(peer)
        peer.sendall(sent)
        reset(peer)
        expected += begins + sent + b"Error: Connection reset by peer\n" + ends
        raw.running.wait_for(ends, start=before)
    assert raw.end() == expected


@wine_cannot("tells a reset as an end", "8.0")
def test_a_reset_in_the_midst_of_a_burst(raw):
    peer = raw.peer()
    ends = closing(peer)
    peer.sendall(b"x" * 1_000_000)
    reset(peer)
    raw.running.wait_for(ends)
    exchange_after(raw)


def test_resets_before_a_connection_is_served_harm_nothing(raw):
    peers = []
    while len(peers) < WORKERS:
        for _ in range(50):  # as many as may wait for a worker: the library closes what comes beyond 64
            reset(raw.connect())
        peers += [raw.peer() for _ in range(4)]
    for _ in range(50):  # these wait for a worker that there is not
        reset(raw.connect())
    for peer in peers:
        peer.close()
    exchange_after(raw)


def exchange_after(raw):
    """The listener still listens and shows. What it has to say of other peers may come in between."""
    for number in range(WORKERS + 1):
        peer = raw.peer()
        ends = disconnected(peer)
        peer.sendall(b"<after %d>" % number)
        peer.close()
        raw.running.wait_for(b"<after %d>" % number)
        raw.running.wait_for(ends)
