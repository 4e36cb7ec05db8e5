"""One run of each mode under valgrind: no invalid access, nothing undefined used, nothing lost."""

import argparse
import concurrent.futures
import contextlib
import os
import shlex
import signal
import socket
import subprocess
import sys
import tempfile

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.join(HERE, "..", "process"))

# pylint: disable=wrong-import-position
from conftest import LONG, Keltop, free_port, port_in_use, without_trace
from peers import Peer, answering, reset
from posts import ANSWER, WORD, answering_by_tls, make_certificate, taking
from test_http import MALFORMED, connect, read_to_end, send

ERROR = 99  # the exit code of a run in which valgrind found something
VALGRIND = ["valgrind", "-q", f"--error-exitcode={ERROR}", "--leak-check=full",
            "--show-leak-kinds=definite,indirect,possible", "--errors-for-leak-kinds=definite,indirect,possible",
            "--num-callers=30", f"--suppressions={os.path.join(HERE, 'valgrind.suppressions')}"]
LARGE_BODY = b"b" * 100_000


class Mode:
    """One run with folders of its own."""

    def __init__(self, command):
        self._folder = tempfile.TemporaryDirectory(prefix="keltop-valgrind-")
        self.log = os.path.join(self._folder.name, "log")
        self.program = Keltop(shlex.join([*VALGRIND, f"--log-file={self.log}", command]), self._folder.name)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.program.close()
        self._folder.cleanup()

    def finish(self, code, output, expected, *texts):
        """What is wrong with a finished run; nothing when it is clean."""
        with open(self.log, encoding="utf-8", errors="replace") as file:
            found = file.read()
        wrong = [found] if found else []
        wrong += [f"ended with {code}, not {expected}"] if code != expected else []
        return "\n".join(wrong + [f"no {text!r} in {output[-500:]!r}" for text in texts if text not in output])


def run(command, *switches, expected=0, texts=()):
    with Mode(command) as mode:
        done = mode.program.run(*switches, timeout=2 * LONG)
        return mode.finish(done.returncode, done.stdout, expected, *texts)


def post(command, serve, scheme, *switches, texts=()):
    with Peer(serve) as peer:
        return run(command, *switches, "-url", f"{scheme}://127.0.0.1:{peer.port}/rsi", texts=texts)


def port_taken(command):
    with socket.socket() as taken:
        taken.bind(("0.0.0.0", 0))
        taken.listen(1)
        port = taken.getsockname()[1]
        with Mode(command) as mode:
            done = mode.program.run("-p", str(port), timeout=2 * LONG)
            return mode.finish(done.returncode, without_trace(done.stdout), 1, port_in_use(mode.program, port)[0])


def listener(command, *switches, talk, texts, left_open):
    """Ends by Ctrl-C, with a connection still open or with none."""
    with Mode(command) as mode, contextlib.ExitStack() as stack:
        running, port = mode.program.listen(*switches)
        talk(running, port)
        if left_open:
            stack.enter_context(connect(port))
        running.send_signal(signal.SIGINT)
        return mode.finish(running.wait(), running.output, 0, *texts)


def talk_http(running, port):
    def ask(request):
        with connect(port) as client:
            send(client, request)
            return read_to_end(client)

    ok = b"HTTP/1.1 200 OK\r\n"
    assert ask(b"GET /a%20b?c=d HTTP/1.1\r\nAuthorization: Basic YTpi\r\n\r\n").startswith(ok)
    assert ask(b"PUT /body HTTP/1.1\r\nContent-Length: %d\r\n\r\n" % len(LARGE_BODY) + LARGE_BODY).startswith(ok)
    assert ask(b"POST / HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n1\r\na\r\n0\r\n\r\n").startswith(ok)
    for request, expected in MALFORMED.values():
        if expected and request.endswith(b"\r\n\r\n"):
            assert ask(request) == expected, request[:80]
    client = connect(port)
    send(client, b"POST / HTTP/1.1\r\nContent-Length: 100\r\n\r\nhalf of it")
    running.wait_for(b"Content-Length: 100\n")
    reset(client)


def talk_raw(running, port):
    with connect(port) as client:
        client.sendall(b"some \0bytes")
        running.wait_for(b"some bytes")
    running.wait_for(b"Disconnect from")
    client = connect(port)
    client.sendall(b"and more")
    running.wait_for(b"and more")
    reset(client)
    running.wait_for(b"Closing connection to")


def resetting(peer, connection):
    connection.recv(1)
    reset(connection)


def garbage(peer, connection):
    connection.recv(1)
    connection.sendall(b"neither TLS nor HTTP\r\n")


def modes(command, context):
    """Names and what to call for what is wrong."""
    nobody = f"http://127.0.0.1:{free_port()}/"
    tls = answering_by_tls(context)
    yield "help, any key", lambda: run(command, texts=[b"press any key"])
    yield "help", lambda: run(command, "-h", texts=[b"Example: "])
    yield "no port", lambda: run(command, "-raw", expected=1, texts=[b"No port number specified."])
    yield "bad port", lambda: run(command, "-p", "x", expected=1, texts=[b"Invalid port number specified."])
    yield "port in use", lambda: port_taken(command)
    for name, left_open in (("", False), (", a client left", True)):
        yield "http listener" + name, lambda left=left_open: listener(
            command, talk=talk_http, texts=[LARGE_BODY, b"Query: c=d"], left_open=left)
        yield "raw listener" + name, lambda left=left_open: listener(
            command, "-raw", talk=talk_raw, texts=[b"some bytes"], left_open=left)
    protocols = iter(["json", "jazz", "xml"] * 2)
    for switch in ("-rsi", "-isi"):
        for name, serve, scheme, switches, texts in (("http", answering(ANSWER), "http", (), [WORD]),
                                                     ("https", tls, "https", (), [WORD]),
                                                     ("raw", taking, "http", ("-raw",), [b"Posting:"])):
            words = (switch, next(protocols), *switches)
            yield f"post {' '.join(words)} by {name}", lambda serve=serve, scheme=scheme, words=words, texts=texts: post(
                command, serve, scheme, *words, texts=texts)
    yield "post without address", lambda: run(command, "-rsi", "json")
    yield "post to nobody", lambda: run(command, "-rsi", "xml", "-url", nobody)
    yield "raw post to nobody", lambda: run(command, "-isi", "xml", "-raw", "-url", nobody)
    yield "post to a bad address", lambda: run(command, "-isi", "jazz", "-url", "http://[::1/")
    for name, serve in (("resets", resetting), ("answers garbage", garbage)):
        for scheme in ("http", "https"):
            yield f"post by {scheme} to who {name}", lambda serve=serve, scheme=scheme: post(
                command, serve, scheme, "-isi", "json")


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--keltop", required=True)
    command = parser.parse_args().keltop
    failed = 0
    with tempfile.TemporaryDirectory() as folder, concurrent.futures.ThreadPoolExecutor(os.cpu_count()) as pool:
        context = make_certificate(folder)
        runs = [(name, pool.submit(call)) for name, call in modes(command, context)]
        for name, future in runs:
            try:
                wrong = future.result()
            except (AssertionError, OSError, subprocess.TimeoutExpired) as failure:
                wrong = repr(failure)
            print(f"{name:45} {'clean' if not wrong else 'FOUND'}", flush=True)
            if wrong:
                failed += 1
                print(wrong[:6000])
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
