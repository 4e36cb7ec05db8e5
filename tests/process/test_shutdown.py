"""How listeners end: the machine-wide shutdown event, signals, and sudden death."""

import contextlib
import fcntl
import os
import re
import select
import signal
import socket
import subprocess
import threading
import time

import pytest

from conftest import (AS_NOBODY, ECHOED_BANNER, HEAD, LONG, SLOWNESS, WORKERS, all_stopped, as_root, eventually,
                      for_everybody, is_listening, listening_on, unread_bytes, windows_cannot, without_trace)
from peers import Peer, read_request

pytestmark = windows_cannot("a Wine process gets no signals, and its shutdown event is everybody's")

BOUND = 5.0 * SLOWNESS  # seconds that an end may take on a busy machine; it is meant to take less than one
OBSERVED = 0.3  # seconds for which something is watched not to happen
SILENT_PEERS = 64
READER_LEAD = 0.2  # seconds that the event may come later than the end of the reader
OBJECT, TIMEOUT = 0, 258
RAW, HTTP = ["-raw"], []
MODES = pytest.mark.parametrize("mode", [HTTP, RAW], ids=["http", "raw"])


@contextlib.contextmanager
def peers(port, count, sent=b"", receive_buffer=None):
    with contextlib.ExitStack() as stack:
        made = []
        for _ in range(count):
            peer = stack.enter_context(socket.socket())
            if receive_buffer:
                peer.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, receive_buffer)
            peer.settimeout(LONG)
            peer.connect(("127.0.0.1", port))
            peer.sendall(sent)
            made.append(peer)
        yield made


def all_read(port):
    """Whether the listener has read everything that was sent to the port."""
    with open("/proc/net/tcp", encoding="ascii") as table:
        entries = [line.split() for line in list(table)[1:]]
    return all(int(entry[4].split(":")[1], 16) == 0 for entry in entries
               if entry[1].endswith(f":{port:04X}") and entry[3] == "01")


def nothing(_http, _raw):
    return contextlib.nullcontext()


@contextlib.contextmanager
def silent_raw_peers(_, raw):
    running, port = raw
    with peers(port, SILENT_PEERS):
        eventually(lambda: running.output.count(b"\r\nConnect from ") == SILENT_PEERS, what="every peer served")
        yield


@contextlib.contextmanager
def clients_stopped_in_the_body(http, _):
    running, port = http
    with peers(port, WORKERS, b"POST / HTTP/1.1\r\nHost: x\r\nContent-Length: 1000\r\n\r\n" + b"b" * 10):
        eventually(lambda: running.output.count(b"Content-Length: 1000\n\n") == WORKERS, what="every worker busy")
        yield


@contextlib.contextmanager
def clients_stopped_in_the_headers(http, _):
    _, port = http
    with peers(port, WORKERS, b"POST / HTTP/1.1\r\nHost:"):
        eventually(lambda: all_read(port), what="every worker busy")
        yield


@contextlib.contextmanager
def clients_that_never_read(http, _):
    running, port = http
    with peers(port, WORKERS, b"GET / HTTP/1.1\r\nHost: x\r\n\r\n" * 1000, receive_buffer=1):
        eventually(lambda: running.output.count(b"\r\nResponse:\n") >= WORKERS, what="every client answered")
        yield


@contextlib.contextmanager
def a_raw_peer_that_never_stops_sending(_, raw):
    running, port = raw
    with peers(port, 1) as (peer,):
        def send():
            with contextlib.suppress(OSError):
                while True:
                    peer.sendall(b"x" * 1000)

        sender = threading.Thread(target=send)
        sender.start()
        running.wait_for_size(100_000)
        yield
        sender.join(LONG)
        assert not sender.is_alive()


LOADS = [nothing, silent_raw_peers, clients_stopped_in_the_body, clients_stopped_in_the_headers,
         clients_that_never_read, a_raw_peer_that_never_stops_sending]


class Event:
    """The shutdown event as another process has it."""

    def __init__(self, neighbours):
        self._agent = neighbours.start()
        self._handle, _ = self._agent.obtain("open-event", "KELTOP_SHUTDOWN")
        assert self._handle != "0"

    def set(self):
        assert self._agent.ask("set", self._handle) == "0"

    def is_set_within(self, seconds):
        return self._agent.wait(self._handle, int(seconds * 1000)) == OBJECT

    def close(self):
        assert self._agent.ask("close", self._handle) == "0"


def interrupt(_, listeners):
    listeners[0][0].send_signal(signal.SIGINT)


def close_window(_, listeners):
    listeners[-1][0].send_signal(signal.SIGHUP)


def set_event(event, _):
    event.set()


def assert_gone(listeners):
    """No process of theirs and no listening port is left."""
    for running, port in listeners:
        assert not is_listening(port)
        assert members(running.process.pid) == []


def members(session):
    """The processes of a session."""
    found = []
    for name in filter(str.isdigit, os.listdir("/proc")):
        with contextlib.suppress(OSError), open(f"/proc/{name}/stat", encoding="ascii", errors="replace") as file:
            if int(file.read().rsplit(")", 1)[1].split()[3]) == session:
                found.append(int(name))
    return found


def wait_for_all(listeners):
    """Waits for the end of all; gives their exit codes."""
    deadline = time.monotonic() + LONG
    return [running.wait(deadline - time.monotonic()) for running, _ in listeners]


def shows_and_answers(running, port, mode):
    """Whether the listener does its work."""
    with socket.create_connection(("127.0.0.1", port), LONG) as peer:
        if mode == RAW:
            running.wait_for(b"\r\nConnect from 127.0.0.1:%d\n" % peer.getsockname()[1])
            return True
        peer.sendall(b"GET / HTTP/1.1\r\nHost: x\r\n\r\n")
        return peer.recv(100).startswith(b"HTTP/1.1 200 OK")


# Every listener of the machine ends


@pytest.mark.parametrize("load", LOADS, ids=lambda load: load.__name__)
@pytest.mark.parametrize("trigger", [interrupt, close_window, set_event], ids=lambda trigger: trigger.__name__)
def test_every_listener_ends_at_once(keltop, neighbours, trigger, load):
    listeners = [keltop.listen(*mode, start_new_session=True) for mode in (HTTP, RAW, HTTP, RAW)]
    event = Event(neighbours)
    with load(listeners[0], listeners[1]):
        begin = time.monotonic()
        trigger(event, listeners)
        codes = wait_for_all(listeners)
        spent = time.monotonic() - begin
    print(f"{trigger.__name__}, {load.__name__}: {spent * 1000:.0f} ms")
    assert codes == [0] * 4
    assert spent < BOUND
    assert_gone(listeners)
    assert event.is_set_within(0)


@MODES
def test_the_end_adds_nothing_to_the_output(keltop, mode):
    running, port = keltop.listen(*mode)
    assert running.interrupt() == 0
    assert without_trace(running.output) == HEAD + listening_on(port)
    assert running.process.stderr.read() == b""


@MODES
def test_connections_end_with_the_listener(keltop, mode):
    running, port = keltop.listen(*mode)
    with peers(port, WORKERS + 4, b"x") as made:
        assert running.interrupt() == 0
        for peer in made:
            with contextlib.suppress(ConnectionResetError):
                assert peer.recv(1) == b""


@MODES
def test_ctrl_c_as_soon_as_it_is_offered_ends_it(keltop, mode):
    for _ in range(20):
        running = keltop.start("-p", "65536", *mode)
        running.wait_for(b"Press Ctrl-C to stop.\n")
        assert running.interrupt() == 0


@MODES
def test_ctrl_c_again_and_again(keltop, mode):
    running, port = keltop.listen(*mode)
    with peers(port, WORKERS):
        for _ in range(200):
            running.send_signal(signal.SIGINT)
        assert running.wait() == 0


@MODES
def test_ctrl_c_and_window_closed_together(keltop, mode):
    running, _ = keltop.listen(*mode)
    running.send_signal(signal.SIGHUP)
    running.send_signal(signal.SIGINT)
    assert running.wait() == 0


@as_root
def test_listeners_of_other_accounts_end_too(keltop):
    os.chmod(keltop.objects, 0o1777)
    keltop.command = for_everybody(keltop.command, keltop.folder)
    for first, second in (({}, AS_NOBODY), (AS_NOBODY, {})):
        listeners = [keltop.listen(**first), keltop.listen(*RAW, **second)]
        listeners[1][0].send_signal(signal.SIGINT)
        assert wait_for_all(listeners) == [0, 0]


# The event's file is removed


def clean(keltop):
    """As a login manager removes an account's files at its last logout."""
    for name in os.listdir(keltop.objects):
        os.unlink(os.path.join(keltop.objects, name))


@pytest.mark.parametrize("trigger", [interrupt, close_window, set_event], ids=lambda trigger: trigger.__name__)
@pytest.mark.parametrize("who", [0, 1], ids=["the first", "the second"])
def test_listeners_end_together_whatever_became_of_the_events_file(keltop, neighbours, who, trigger):
    listeners = [keltop.listen()]
    clean(keltop)
    listeners += [keltop.listen(*RAW), keltop.listen()]
    if who == 1:
        clean(keltop)
        listeners.reverse()
    with peers(listeners[1][1], 3, b"x"):
        trigger(Event(neighbours), listeners)
        assert wait_for_all(listeners) == [0] * 3


@as_root
def test_listeners_end_together_after_the_account_that_was_first_has_gone(keltop):
    """The file belongs to whoever ran keltop first, even for one post, and goes with that account's last logout."""
    os.chmod(keltop.objects, 0o1777)
    keltop.command = for_everybody(keltop.command, keltop.folder)
    keltop.run("-rsi", "json", **AS_NOBODY)
    first = keltop.listen()
    clean(keltop)
    second = keltop.listen(*RAW, **AS_NOBODY)
    second[0].send_signal(signal.SIGINT)
    assert wait_for_all([first, second]) == [0, 0]


# A terminal


@MODES
def test_ctrl_c_on_the_terminal(keltop, terminal, mode):
    running, port = terminal.listen(keltop, *mode)
    other, _ = keltop.listen()
    terminal.type(b"\x03")
    assert [running.wait(), other.wait()] == [0, 0]
    assert not is_listening(port)


@MODES
def test_closing_the_window(keltop, terminal, mode):
    running, port = terminal.listen(keltop, *mode)
    other, _ = keltop.listen()
    terminal.hang_up()
    assert [running.wait(), other.wait()] == [0, 0]
    assert not is_listening(port)


@MODES
def test_the_break_key_ends_only_its_own_listener(keltop, neighbours, terminal, mode):
    running, _ = terminal.listen(keltop, *mode)
    other, port = keltop.listen(*mode)
    event = Event(neighbours)
    terminal.type(b"\x1c")
    assert running.wait() == -signal.SIGQUIT
    assert not event.is_set_within(OBSERVED)
    assert shows_and_answers(other, port, mode)


# Other signals


@MODES
@pytest.mark.parametrize("number", [signal.SIGTERM, signal.SIGQUIT], ids=lambda number: number.name)
def test_other_signals_end_only_the_process_they_are_sent_to(keltop, neighbours, mode, number):
    listeners = [keltop.listen(*mode, start_new_session=True) for _ in range(2)]
    (running, port), (other, other_port) = listeners
    event = Event(neighbours)
    with peers(port, 3):
        running.send_signal(number)
        assert running.wait() == -number
    assert_gone(listeners[:1])
    assert not event.is_set_within(OBSERVED)
    assert shows_and_answers(other, other_port, mode)
    assert other.interrupt() == 0


@MODES
def test_a_closed_window_is_ignored_when_it_was_so_at_the_start(keltop, neighbours, mode):
    keltop.command = ["nohup", *keltop.command]
    running, port = keltop.listen(*mode)
    event = Event(neighbours)
    running.send_signal(signal.SIGHUP)
    assert not event.is_set_within(OBSERVED)
    assert running.process.poll() is None
    assert shows_and_answers(running, port, mode)
    assert running.interrupt() == 0


@MODES
def test_ctrl_c_ends_it_even_when_it_was_ignored_at_the_start(keltop, mode):
    keltop.command = ["env", "--ignore-signal=INT", *keltop.command]
    running, _ = keltop.listen(*mode)
    assert running.interrupt() == 0


# What is left


@MODES
def test_after_a_stop_the_next_start_listens_on_the_same_port(keltop, mode):
    running, port = keltop.listen(*mode)
    with peers(port, 3, b"x"):
        assert running.interrupt() == 0
        again = keltop.listen_on(port, *mode)
        assert shows_and_answers(again, port, mode)
        assert again.interrupt() == 0


@MODES
def test_a_killed_listener_leaves_nothing_behind(keltop, mode):
    running, port = keltop.listen(*mode, start_new_session=True)
    with peers(port, 3, b"x"):
        running.process.kill()
        assert running.wait() == -signal.SIGKILL
        assert_gone([(running, port)])
        again = keltop.listen_on(port, *mode)
        assert shows_and_answers(again, port, mode)
        assert again.interrupt() == 0


@MODES
def test_a_listener_killed_while_the_event_was_set_leaves_nothing_behind(keltop, neighbours, mode):
    running, port = keltop.listen(*mode)
    event = Event(neighbours)
    running.send_signal(signal.SIGSTOP)
    event.set()
    event.close()
    running.process.kill()
    running.wait()
    again = keltop.listen_on(port, *mode)
    assert not Event(neighbours).is_set_within(OBSERVED)
    assert shows_and_answers(again, port, mode)
    assert again.interrupt() == 0


def test_one_of_two_listeners_killed_leaves_the_other_to_be_stopped(keltop, neighbours):
    (killed, _), (other, port) = keltop.listen(), keltop.listen(*RAW)
    killed.process.kill()
    killed.wait()
    assert shows_and_answers(other, port, RAW)
    Event(neighbours).set()
    assert other.wait() == 0


@MODES
def test_a_start_while_the_event_is_set_ends_at_once(keltop, neighbours, mode):
    first, port = keltop.listen()
    event = Event(neighbours)
    assert first.interrupt() == 0
    begin = time.monotonic()
    done = keltop.run("-p", str(port), *mode, timeout=LONG)
    print(f"start and end while the event is set: {(time.monotonic() - begin) * 1000:.0f} ms")
    assert (without_trace(done.stdout), done.returncode) == (HEAD + listening_on(port), 0)
    assert not is_listening(port)
    event.close()
    again = keltop.listen_on(port, *mode)
    assert shows_and_answers(again, port, mode)


@MODES
def test_an_event_that_somebody_else_made_is_the_same(keltop, neighbours, mode):
    agent = neighbours.start()
    handle, error = agent.obtain("create-event", "KELTOP_SHUTDOWN")
    assert error == 0
    running, port = keltop.listen(*mode)
    assert shows_and_answers(running, port, mode)
    assert agent.ask("set", handle) == "0"
    assert running.wait() == 0


# Modes that do not listen


def test_ctrl_c_during_a_post_ends_every_listener_and_not_the_post(keltop, neighbours):
    listener, port = keltop.listen()
    asked, released = threading.Event(), threading.Event()

    def serve(peer, connection):
        peer.request = read_request(connection)
        asked.set()
        assert released.wait(LONG)
        connection.sendall(b"HTTP/1.1 200 OK\r\nContent-Length: 4\r\n\r\nlate")

    with Peer(serve) as peer:
        posting = keltop.start("-rsi", "json", "-url", f"http://127.0.0.1:{peer.port}/")
        assert asked.wait(LONG)
        posting.send_signal(signal.SIGINT)
        assert listener.wait() == 0
        assert not is_listening(port)
        assert posting.process.poll() is None
        released.set()
        assert posting.wait() == 0
    assert without_trace(posting.output).endswith(b"\r\n\r\nlate\r\n")


def test_a_post_has_the_event_and_outlives_it(keltop, neighbours):
    def serve(peer, connection):
        peer.request = read_request(connection)
        Event(neighbours).set()
        connection.sendall(b"HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\nhi")

    with Peer(serve) as peer:
        done = keltop.run("-isi", "xml", "-url", f"http://127.0.0.1:{peer.port}/")
    assert done.returncode == 0
    assert without_trace(done.stdout).endswith(b"\r\n\r\nhi\r\n")


def test_the_help_has_no_event_and_ctrl_c_ends_it(keltop, neighbours):
    listener, port = keltop.listen()
    agent = neighbours.start()
    helping = keltop.start(stdin=subprocess.PIPE)
    with helping.process.stdin:
        helping.wait_for(b"press any key")
        helping.send_signal(signal.SIGINT)
        assert helping.wait() == -signal.SIGINT
    assert shows_and_answers(listener, port, HTTP)
    assert listener.interrupt() == 0
    helping = keltop.start(stdin=subprocess.PIPE)
    with helping.process.stdin:
        helping.wait_for(b"press any key")
        assert agent.obtain("open-event", "KELTOP_SHUTDOWN")[0] == "0"


# Output that nobody reads


@MODES
@pytest.mark.parametrize("trigger", [interrupt, close_window, set_event], ids=lambda trigger: trigger.__name__)
def test_a_blocked_output_does_not_keep_it(keltop, neighbours, mode, trigger):
    unread, output = os.pipe()
    try:
        size = fcntl.fcntl(output, fcntl.F_SETPIPE_SZ, 1 << 14)
        running, port = keltop.listen(*mode, stdout=output, start_new_session=True)
        event = Event(neighbours)
        sent = b"x" * 2 * size
        if mode == HTTP:
            sent = b"POST / HTTP/1.1\r\nContent-Length: %d\r\n\r\n" % len(sent) + sent
        with peers(port, WORKERS, sent):
            # In pages that may be partly used: how many bytes it holds says less.
            eventually(lambda: not select.select([], [output], [], 0)[1], what="a full pipe")
            begin = time.monotonic()
            trigger(event, [(running, port)])
            assert running.wait() == 0
            print(f"{trigger.__name__}, blocked output: {(time.monotonic() - begin) * 1000:.0f} ms")
        assert_gone([(running, port)])
    finally:
        os.close(output)
        os.close(unread)


@MODES
@pytest.mark.parametrize("trigger", [interrupt, close_window, set_event], ids=lambda trigger: trigger.__name__)
def test_an_output_that_is_full_before_it_listens_does_not_keep_it(keltop, neighbours, mode, trigger):
    """Banner and options fit; what the listener says first has to wait, and the main thread has to say it."""
    unread, output = os.pipe()
    try:
        size = fcntl.fcntl(output, fcntl.F_SETPIPE_SZ, 4096)
        os.write(output, b"." * (size - len(HEAD) - 100))
        running = keltop.start("-p", "65536", *mode, stdout=output, start_new_session=True)
        eventually(lambda: unread_bytes(unread) > size - 100, what="a full pipe")
        eventually(lambda: os.listdir(keltop.objects), what="the event")
        event = Event(neighbours)
        assert running.process.poll() is None
        trigger(event, [(running, None)])
        assert running.wait() == 0
        assert b"Press" not in os.read(unread, size)  # it did wait
    finally:
        os.close(output)
        os.close(unread)


# A reader that has gone


def ends_its_trace(keltop):
    """Whether the program's trace file has its last line."""
    with open(os.path.join(keltop.data, "TRACELOGS", "LOG1067.ltt"), "rb") as file:
        return file.read().endswith(b"LOG1067 0000 0000  00000000 \r\n")


@contextlib.contextmanager
def listening_to_nobody(keltop, mode):
    """A listener whose reader has gone after what it shows at its start."""
    unread, output = os.pipe()
    with open(unread, "rb", buffering=0) as reader:
        running, port = keltop.listen(*mode, stdout=output)
        os.close(output)
        shown = b""
        while not (ECHOED_BANNER.search(shown) and without_trace(shown).endswith(listening_on(port))):
            shown += reader.read(4096)
    yield running, port


@MODES
@pytest.mark.parametrize("trigger", [interrupt, close_window, set_event], ids=lambda trigger: trigger.__name__)
def test_a_listener_whose_reader_went_first_is_stopped_as_any_other(keltop, neighbours, mode, trigger):
    """Ctrl-C on `keltop ... | tee file` reaches both, and tee is the faster one."""
    with listening_to_nobody(keltop, mode) as (running, port):
        trigger(Event(neighbours), [(running, port)])
        assert running.wait() == 0
    assert ends_its_trace(keltop)


def writes(running):
    """How often the program has written something, or tried to; nothing when it has ended."""
    with contextlib.suppress(OSError), open(f"/proc/{running.process.pid}/io", encoding="ascii") as counts:
        return int(re.search(r"^syscw: (\d+)$", counts.read(), re.MULTILINE)[1])
    return None


def has_stopped_or_ended(running):
    with contextlib.suppress(OSError):  # its threads go while they are looked at
        return running.process.poll() is not None or all_stopped(running)
    return False


def stopped_after_a_text(keltop, neighbours):
    """A connection's text finds no reader, and the event is set while the program is stopped. Gives the exit code, and
    the seconds from before the text until the program was stopped."""
    with listening_to_nobody(keltop, RAW) as (running, port):
        event = Event(neighbours)
        before = writes(running)
        begin = time.monotonic()
        with peers(port, 4, b"x"):
            eventually(lambda: writes(running) != before, what="a text")
            running.send_signal(signal.SIGSTOP)
            eventually(lambda: has_stopped_or_ended(running), what="a stop")
            spent = time.monotonic() - begin
            event.set()
            running.send_signal(signal.SIGCONT)
            code = running.wait()
        event.close()  # a set event that somebody holds would end the next listener
    return code, spent


def test_a_text_between_the_readers_end_and_the_listeners_does_no_harm(keltop, neighbours):
    """The reader is gone, Ctrl-C is on its way, and a connection writes. The event may come READER_LEAD later than the
    text; whether it did is certain only of a program that was stopped before. A busy machine needs some tries."""
    for _ in range(50):
        code, spent = stopped_after_a_text(keltop, neighbours)
        if spent < READER_LEAD:
            break
        print(f"{spent * 1000:.0f} ms: too late")
    assert spent < READER_LEAD, "the machine is too busy"
    assert code == 0
    assert ends_its_trace(keltop)


@pytest.mark.parametrize("pipeline", ['"$@" | head -1', '"$@" | true'])
@pytest.mark.parametrize("post", ["-rsi", "-isi"])
def test_a_post_is_sent_whole_whoever_reads(keltop, post, pipeline):
    def serve(peer, connection):
        peer.request = read_request(connection)
        connection.sendall(b"HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\nhi")

    with Peer(serve) as peer:
        command = [*keltop.command, post, "json", "-url", f"http://127.0.0.1:{peer.port}/"]
        shell = subprocess.run(["bash", "-c", f"{pipeline}; exit ${{PIPESTATUS[0]}}", "bash", *command], env=keltop.env,
                               stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, timeout=LONG)
    assert peer.request.endswith(b"}")
    assert shell.returncode == 0
    assert ends_its_trace(keltop)


@pytest.mark.parametrize("switches", [["-h"], ["-p"], ["-raw"]], ids=" ".join)
def test_what_neither_listens_nor_posts_ends_with_its_reader(keltop, switches):
    unread, output = os.pipe()
    os.close(unread)
    running = keltop.start(*switches, stdout=output)
    os.close(output)
    assert running.wait() == -signal.SIGPIPE


# A wait that fails


@MODES
def test_a_wait_that_fails_is_an_error_of_the_listener(keltop, mode):
    running, port = keltop.listen(*mode)
    with peers(port, 3, b"x"):
        begin = time.monotonic()
        os.truncate(os.path.join(keltop.objects, "keltop.Global%5CKELTOP_SHUTDOWN"), 3)
        assert running.wait() == 1
        assert time.monotonic() - begin < BOUND
    errors = re.findall(rb"Error: .*", running.output)
    assert errors == [b"Error: System exception: Cannot wait for the shutdown event"]
    assert ends_its_trace(keltop)


# By hand


STOP_BY_HAND = re.compile(r"^printf .* \| dd of=\S+.*$", re.MULTILINE)


def the_line(keltop):
    """The line of the documentation that stops every listener, for the folder of this test."""
    with open(os.path.join(os.path.dirname(__file__), "../../docs/named-objects.md"), encoding="utf-8") as page:
        (line,) = STOP_BY_HAND.findall(page.read())
    assert "=/dev/shm/" in line
    return line.replace("=/dev/shm/", f"={keltop.objects}/")


def by_hand(keltop, **account):
    return subprocess.run(["sh", "-c", the_line(keltop)], stderr=subprocess.PIPE, timeout=LONG, **account)


@MODES
def test_the_line_of_the_documentation_stops_every_listener(keltop, mode):
    running, _ = keltop.listen(*mode)
    assert by_hand(keltop).returncode == 0
    assert running.wait() == 0


def test_the_line_of_the_documentation_changes_nothing_without_an_event(keltop):
    by_hand(keltop)
    assert os.listdir(keltop.objects) == []
    running, port = keltop.listen()
    assert shows_and_answers(running, port, HTTP)


def test_the_line_of_the_documentation_is_of_no_account_after_the_event(keltop):
    """What a listener left behind is dead, and stays so."""
    assert keltop.listen()[0].interrupt() == 0
    by_hand(keltop)
    running, port = keltop.listen()
    assert shows_and_answers(running, port, HTTP)
    assert running.process.poll() is None


@as_root
def test_the_line_of_the_documentation_works_on_another_accounts_event(keltop):
    """Where the system refuses to create what is there already (fs.protected_regular)."""
    os.chmod(keltop.objects, 0o1777)
    keltop.command = for_everybody(keltop.command, keltop.folder)
    running, _ = keltop.listen(**AS_NOBODY)
    assert by_hand(keltop).returncode == 0
    assert running.wait() == 0
