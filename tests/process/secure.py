"""Clients behind TLS, made of Python's own TLS, and files with certificates."""

import contextlib
import hashlib
import os
import re
import socket
import ssl
import subprocess

from conftest import LONG

FINGERPRINT_LINE = re.compile(rb"TLS certificate SHA-256: ((?:[0-9A-F]{2}:){31}[0-9A-F]{2})\r\n\n")


def openssl(*arguments):
    subprocess.run(["openssl", *arguments], check=True, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                   stderr=subprocess.DEVNULL, timeout=60)


def believing(minimum=ssl.TLSVersion.TLSv1_2, maximum=ssl.TLSVersion.TLSv1_3):
    """A client that takes any certificate."""
    context = ssl.SSLContext(ssl.PROTOCOL_TLS_CLIENT)
    context.check_hostname = False
    context.verify_mode = ssl.CERT_NONE
    context.minimum_version, context.maximum_version = minimum, maximum
    return context


ANY_VERSION = believing()


class TlsSocket:
    """A connected socket behind TLS, used as a plain one. Unlike Python's own it can end one direction alone, and be
    ended or reset without TLS's farewell; and what is encrypted can be looked at and sent in pieces."""

    def __init__(self, connection, context=ANY_VERSION):
        self.plain = connection
        self._received, self._to_send = ssl.MemoryBIO(), ssl.MemoryBIO()
        self.tls = context.wrap_bio(self._received, self._to_send, server_hostname="localhost")
        self._mute = False
        try:
            self._drive(self.tls.do_handshake)
        except BaseException:
            connection.close()
            raise

    def __getattr__(self, name):
        return getattr(self.plain, name)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()

    def _drive(self, action):
        while True:
            try:
                return action()
            except ssl.SSLWantReadError:
                self._flush()
                piece = self.plain.recv(1 << 16)
                if piece:
                    self._received.write(piece)
                else:
                    self._received.write_eof()
            finally:
                self._flush()

    def _flush(self):
        if encrypted := self._to_send.read():
            self.plain.sendall(encrypted)

    def encrypt(self, data):
        """The record that sending it would send."""
        self.tls.write(data)
        return self._to_send.read()

    def sendall(self, data):
        if data:
            self.plain.sendall(self.encrypt(data))

    def recv(self, count):
        """As a socket's; an end without TLS's farewell is an ssl.SSLEOFError, unless this Python has the library
        overlook it (OP_IGNORE_UNEXPECTED_EOF, which older ones set by themselves)."""
        try:
            return self._drive(lambda: self.tls.read(count))
        except ssl.SSLZeroReturnError:
            return b""

    def _say_farewell(self):
        if not self._mute:
            self._mute = True
            with contextlib.suppress(ssl.SSLError, ValueError):
                self.tls.unwrap()
            self._flush()

    def shutdown(self, how):
        if how != socket.SHUT_RD:
            self._say_farewell()
        self.plain.shutdown(how)

    def setsockopt(self, level, option, value):
        if option == socket.SO_LINGER:  # it is about to be reset
            self._mute = True
        self.plain.setsockopt(level, option, value)

    def close(self):
        with contextlib.suppress(OSError):
            self._say_farewell()
        self.plain.close()


def connect(port, context=ANY_VERSION, host="127.0.0.1"):
    return TlsSocket(socket.create_connection((host, port), LONG), context)


def fingerprint(der):
    """As the program shows it."""
    digits = hashlib.sha256(der).hexdigest().upper()
    return ":".join(digits[at:at + 2] for at in range(0, len(digits), 2)).encode()


def make_identity(folder, name="leaf", issuer=None, algorithm=("EC", "ec_paramgen_curve:P-256")):
    """The paths of a certificate and its key; signed by an issuer of the same kind, or by itself."""
    key, certificate = os.path.join(folder, name + ".key"), os.path.join(folder, name + ".crt")
    openssl("genpkey", "-algorithm", algorithm[0], "-pkeyopt", algorithm[1], "-out", key)
    by = ["-CA", issuer[0], "-CAkey", issuer[1]] if issuer else []
    openssl("req", "-x509", "-new", "-key", key, "-subj", f"/CN={name}", "-days", "2", "-out", certificate, *by,
            "-addext", "subjectAltName=DNS:localhost,IP:127.0.0.1",
            "-addext", "keyUsage=critical,digitalSignature,keyCertSign")  # RFC 5280 wants it of an issuer
    return certificate, key


def join(path, *parts, mode=0o600):
    """One file of several, that nobody else may read."""
    with open(path, "wb", opener=lambda name, flags: os.open(name, flags, mode)) as whole:
        for part in parts:
            with open(part, "rb") as file:
                whole.write(file.read())
    os.chmod(path, mode)
    return path
