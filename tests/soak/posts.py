"""Posts of every kind to servers of this process, one after the other."""

import contextlib
import itertools
import os
import ssl
import subprocess

from clients import Client
from peers import Peer, answering, read_request

WORD = b"well received"
ANSWER = b"HTTP/1.1 200 OK\r\nContent-Length: %d\r\n\r\n%b" % (len(WORD), WORD)


def make_certificate(folder):
    """A server's side of TLS, which nobody should trust."""
    certificate, key = (os.path.join(folder, name) for name in ("certificate.pem", "key.pem"))
    subprocess.run(["openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-subj", "/CN=127.0.0.1", "-days", "2",
                    "-keyout", key, "-out", certificate], check=True, capture_output=True, timeout=60)
    context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
    context.load_cert_chain(certificate, key)
    return context


def answering_by_tls(context):
    def serve(peer, connection):
        with context.wrap_socket(connection, server_side=True) as secure:
            answering(ANSWER)(peer, secure)
    return serve


def taking(peer, connection):
    """Raw posts hardly wait for an answer, so none is sent."""
    peer.request = read_request(connection)
    with contextlib.suppress(ConnectionResetError):
        connection.recv(1)


class Posts(Client):
    """The post must reach the server whole, be shown as it was sent, and the answer too."""

    def __init__(self, number, program, count, stop):
        super().__init__(number, None, count, stop)
        self._program = program
        context = make_certificate(program.folder)
        ways = [("http", (), answering(ANSWER)), ("https", (), answering_by_tls(context)), ("http", ("-raw",), taking)]
        self._kinds = itertools.cycle(itertools.product(["-rsi", "-isi"], ["json", "jazz", "xml"], ways))

    def run(self):
        while not self._stop_asked.is_set():
            self.converse(None)
            self.count.add(type(self).__name__)
            self.pause(0.5)

    def converse(self, life):
        post, protocol, (scheme, switches, serve) = next(self._kinds)
        self.count.add("begun")
        try:
            with Peer(serve) as peer:
                url = f"{scheme}://127.0.0.1:{peer.port}/soak"
                done = self._program.run(post, protocol, *switches, "-url", url)
            shown = peer.request.split(b"\r\n\r\n", 1)[1] in done.stdout and (switches or WORD in done.stdout)
            if done.returncode == 0 and done.stderr == b"" and shown:
                self.count.add("answered")
                return
            failure = done
        except Exception as error:  # told at the end, by another thread
            failure = error
        self.count.add("lost")
        self.count.complain(f"{post} {protocol} {scheme} {switches}: {failure!r}"[:1000])
