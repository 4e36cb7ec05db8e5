"""Both listeners behind TLS: they show what plain listeners show, and what goes wrong beneath harms nobody."""

import contextlib
import json
import os
import random
import re
import select
import socket
import ssl
import statistics
import subprocess
import threading
import time

import pytest

import test_http
import test_raw
from conftest import (HEAD, LONG, SLOWNESS, eventually, free_port, port_in_use, raise_descriptor_limit, windows_cannot,
                      wine_cannot, without_trace)
from peers import JSON_BODY, exchange_of, masked, reset
from secure import (ANY_VERSION, FINGERPRINT_LINE, TlsSocket, believing, connect, fingerprint, join, make_identity)
# The same tests as without TLS, with the fixtures of this page.
from test_http import (  # pylint: disable=unused-import
    test_a_body_is_shown_whole, test_a_body_that_ends_early_is_shown_as_far_as_it_came,
    test_a_chunked_body_is_not_shown, test_a_client_beside_others_that_stall_is_served,
    test_a_client_that_waits_for_leave_to_send_its_body_gets_it, test_a_long_chunked_body_is_left_unread_and_answered,
    test_a_malformed_request_gets_the_librarys_answer_and_is_not_shown,
    test_a_query_that_cannot_be_decoded_is_found_while_printing, test_a_request_may_end_with_the_stream,
    test_a_request_that_comes_byte_by_byte_is_shown_alike, test_a_reset_before_the_end_of_the_headers_is_not_shown,
    test_a_reset_in_the_body_ends_the_body, test_clients_that_never_read_hold_up_nobody,
    test_clients_that_reset_do_no_harm, test_clients_that_stall_hold_up_nobody_and_may_go_on,
    test_ctrl_c_ends_it_at_once_whoever_is_connected, test_eight_clients_at_once_are_all_answered,
    test_eight_clients_stopped_together_are_handled_together, test_every_byte_of_a_body_is_shown,
    test_every_method_is_handled_alike, test_every_target_is_shown_decoded_and_as_a_request_line,
    test_headers_are_shown_in_their_order, test_random_bytes_do_no_harm,
    test_requests_are_shown_one_after_the_other, test_the_addresses_are_those_of_the_connection,
    test_the_answer_has_the_version_of_the_request, test_the_first_of_pipelined_requests_is_answered,
    test_the_request_is_shown_before_its_body_has_come)
from test_raw import (  # pylint: disable=unused-import
    test_a_peer_that_half_closes_is_disconnected, test_a_peer_that_sends_and_closes,
    test_a_peer_that_sends_nothing_and_closes, test_a_reset_in_the_midst_of_a_burst,
    test_a_reset_shows_two_lines_and_harms_no_other_peer,
    test_a_silent_peer_stays_open_and_prints_nothing, test_bursts_of_any_length_are_complete,
    test_bytes_appear_promptly_through_a_pipe, test_bytes_appear_while_a_burst_goes_on,
    test_every_byte_but_zero_is_shown_unchanged, test_nothing_is_ever_sent_to_the_peer, test_peers_one_after_another,
    test_several_peers_at_once_are_all_shown, test_slow_peers_are_shown_across_the_poll_and_the_receive_time_out,
    test_the_peers_own_address_is_shown, test_what_came_before_a_reset_is_shown, test_zero_bytes_are_not_shown)

TOO_SLOW = b"SSL Exception: no TLS handshake within 10 seconds"
GREETING = re.compile(re.escape(HEAD) + rb"Press Ctrl-C to stop\.\nListening on: (\d+)\r\n\n" + FINGERPRINT_LINE.pattern)
VERSIONS = {"TLSv1.2": ssl.TLSVersion.TLSv1_2, "TLSv1.3": ssl.TLSVersion.TLSv1_3}


class TlsServer(test_http.Server):
    """An HTTP listener behind TLS; what it says of its certificate has been looked at."""

    def __init__(self, keltop, *switches, context=ANY_VERSION):
        self.context = context
        super().__init__(*keltop.listen("-tls", *switches))
        eventually(lambda: FINGERPRINT_LINE.match(self.console), what="the certificate's line")
        said = FINGERPRINT_LINE.match(self.console)
        self.fingerprint = said[1]
        self.expect(said[0])

    def plain(self, host="127.0.0.1", **options):
        """A connection without TLS."""
        return test_http.connect(self.port, host, **options)

    def connect(self, host="127.0.0.1", **options):
        return TlsSocket(self.plain(host, **options), self.context)


class TlsListener(test_raw.Listener):
    """A raw listener behind TLS."""

    def __init__(self, keltop, *switches, **options):
        self.context = ANY_VERSION
        self.keltop = keltop
        self.running, self.port = keltop.listen("-raw", "-tls", *switches, **options)
        self._peers = contextlib.ExitStack()
        eventually(lambda: GREETING.match(without_trace(self.running.output)), what="the certificate's line")

    def plain(self, source=test_raw.ANY):
        return self._peers.enter_context(socket.create_connection(("127.0.0.1", self.port), LONG, source))

    def connect(self, source=test_raw.ANY):
        return self._peers.enter_context(TlsSocket(self.plain(source), self.context))

    @property
    def shown(self):
        output = without_trace(self.running.output)
        return output[GREETING.match(output).end():]


@pytest.fixture(name="server", params=VERSIONS)
def fixture_server(keltop, request):
    version = VERSIONS[request.param]
    return TlsServer(keltop, context=believing(version, version))


@pytest.fixture(name="raw", params=VERSIONS)
def fixture_raw(keltop, request):
    version = VERSIONS[request.param]
    with contextlib.closing(TlsListener(keltop)) as listener:
        listener.context = believing(version, version)
        yield listener


# The certificate


def test_the_certificate_is_announced_and_is_the_one_that_is_used(keltop):
    served = []
    for switches in (["-tls"], ["-raw", "-tls"]):
        running, port = keltop.listen(*switches)
        eventually(lambda: GREETING.match(without_trace(running.output)), what="the certificate's line")
        with connect(port) as client:
            served.append(client.tls.getpeercert(True))
        said = GREETING.match(without_trace(running.output))
        assert (int(said[1]), said[2]) == (port, fingerprint(served[-1]))
        keltop.end(running)
    assert served[0] != served[1]


def test_a_client_that_believes_the_certificate_believes_the_server(keltop):
    server = TlsServer(keltop)
    with server.connect() as client:
        certificate = client.tls.getpeercert(True)
    context = ssl.create_default_context(cadata=ssl.DER_cert_to_PEM_cert(certificate))
    for name in ("localhost", "127.0.0.1", socket.gethostname()):
        with context.wrap_socket(server.plain(), server_hostname=name):
            pass
    with pytest.raises(ssl.SSLCertVerificationError):
        context.wrap_socket(server.plain(), server_hostname="elsewhere.example")


def test_certificate_chain_and_key_from_a_file(keltop):
    root = make_identity(keltop.folder, "root")
    leaf = make_identity(keltop.folder, "leaf", root)
    server = TlsServer(keltop, path_for(keltop, join(os.path.join(keltop.folder, "all.pem"), leaf[0], root[0], leaf[1])))
    with open(leaf[0], encoding="ascii") as file:
        assert server.fingerprint == fingerprint(ssl.PEM_cert_to_DER_cert(file.read()))
    with ssl.create_default_context(cafile=root[0]).wrap_socket(server.plain(), server_hostname="localhost"):
        pass
    shown = subprocess.run(["openssl", "s_client", "-connect", f"127.0.0.1:{server.port}", "-showcerts"],
                           stdin=subprocess.DEVNULL, capture_output=True, timeout=LONG, check=False).stdout
    # Newer versions of OpenSSL write names without the blanks.
    assert [re.findall(rb"(?m)^ \d s:CN ?= ?(\w+)", shown)] == [[b"leaf", b"root"]]
    server.still_serves()


def test_a_key_of_another_kind(keltop):
    identity = make_identity(keltop.folder, "rsa", algorithm=("RSA", "rsa_keygen_bits:2048"))
    join(os.path.join(keltop.folder, "rsa.pem"), *identity)
    for version in VERSIONS.values():
        TlsServer(keltop, path_for(keltop, os.path.join(keltop.folder, "rsa.pem")),
                  context=believing(version, version)).still_serves()


def path_for(keltop, path):
    """An absolute path begins like a switch on Linux: tests give it as a relative one."""
    return "Z:" + path.replace("/", "\\") if keltop.windows else os.path.relpath(path)


def refused(keltop, *switches):
    """What a start shows that does not come to listen, after banner and short list."""
    port = free_port()
    done = keltop.run("-p", str(port), *switches, timeout=LONG)
    assert done.returncode == 1
    assert done.stderr == b""
    output = without_trace(done.stdout)
    assert output.startswith(HEAD)
    return output[len(HEAD):]


@pytest.fixture(scope="module")
def parts(tmp_path_factory):
    folder = str(tmp_path_factory.mktemp("parts"))
    own, other = make_identity(folder, "own"), make_identity(folder, "other")
    encrypted = os.path.join(folder, "encrypted.key")
    subprocess.run(["openssl", "pkey", "-in", own[1], "-aes128", "-passout", "pass:coffee", "-out", encrypted],
                   check=True, timeout=LONG)
    return {"certificate": own[0], "key": own[1], "other key": other[1], "encrypted key": encrypted}


USELESS = {
    "empty": ([], b"holds no certificate"),
    "key alone": (["key"], b"holds no certificate"),
    "certificate alone": (["certificate"], b"holds no private key"),
    "another's key": (["certificate", "other key"], b"the private key does not fit the first certificate"),
    "encrypted key": (["certificate", "encrypted key"], b"the private key is encrypted"),
}


@pytest.mark.parametrize("raw_switch", [[], ["-raw"]], ids=["http", "raw"])
@pytest.mark.parametrize("which, reason", USELESS.values(), ids=USELESS.keys())
def test_a_useless_file_is_named_with_the_reason_before_anything_listens(keltop, parts, which, reason, raw_switch):
    path = path_for(keltop, join(os.path.join(keltop.folder, "x.pem"), *[parts[part] for part in which]))
    assert refused(keltop, *raw_switch, "-tls", path) == b"Error: TLS file: %b: %b\n" % (path.encode(), reason)


def test_a_missing_file_is_named(keltop):
    assert refused(keltop, "-tls", "no-such.pem") == b"Error: TLS file: no-such.pem: no such file\n"


@windows_cannot("its files have other rights")
def test_a_file_that_cannot_be_read_is_named(keltop):
    path = path_for(keltop, keltop.folder)
    assert refused(keltop, "-tls", path) == b"Error: TLS file: %b: cannot be read, Is a directory\n" % path.encode()


def test_a_path_that_begins_like_a_switch_needs_the_other_switch(keltop, parts):
    path = join(os.path.join(keltop.folder, "x.pem"), parts["certificate"], parts["key"])
    assert refused(keltop, "-tls", path) == (
        b'Error: Invalid argument: a file whose name begins with "/" or "-" has to follow ~tls, not -tls\n')
    running, port = keltop.listen("~tls", path if not keltop.windows else path_for(keltop, path))
    with connect(port) as client, open(parts["certificate"], encoding="ascii") as file:
        assert client.tls.getpeercert(True) == ssl.PEM_cert_to_DER_cert(file.read())
    keltop.end(running)


@pytest.mark.parametrize("mode, said", [(0o600, False), (0o640, True), (0o604, True)], ids=oct)
def test_a_key_that_others_may_read_is_used_and_said_so_once(keltop, parts, mode, said):
    if keltop.windows and mode == 0o640:
        pytest.skip("the file's group is no account of many there")
    path = path_for(keltop, join(os.path.join(keltop.folder, "x.pem"), parts["certificate"], parts["key"], mode=mode))
    server = TlsServer(keltop, path)
    if said:
        server.expect(b"Other accounts may read the private key in %b\r\n\n" % path.encode())
    server.still_serves()
    server.still_serves()


def test_no_key_is_shown_or_traced(keltop, parts):
    path = path_for(keltop, join(os.path.join(keltop.folder, "x.pem"), parts["certificate"], parts["key"], mode=0o644))
    server = TlsServer(keltop, path)
    with contextlib.suppress(OSError, ssl.SSLError), server.plain() as client:
        client.sendall(b"GET / HTTP/1.0\r\n\r\n")
        client.recv(1)
    server.ask(b"GET / HTTP/1.1\r\n\r\n")
    keltop.end(server.running)
    written = server.running.output
    for folder, _, files in os.walk(keltop.data):
        for name in files:
            with open(os.path.join(folder, name), "rb") as file:
                written += file.read()
    assert b"LOG1067" in written and b"GET / HTTP/1.1" in written
    with open(parts["key"], "rb") as file:
        secret = [line for line in file.read().split(b"\n") if line and b"--" not in line]
    for line in [*secret, b"PRIVATE KEY"]:
        assert line not in written


def test_a_port_in_use_is_reported_after_the_certificate(keltop):
    server = TlsServer(keltop)
    done = keltop.run("-p", str(server.port), "-tls")
    assert done.returncode == 1
    assert FINGERPRINT_LINE.sub(b"", without_trace(done.stdout))[len(HEAD):] in port_in_use(keltop, server.port)


# Clients as they are used


@pytest.mark.parametrize("version", ["1.2", "1.3"])
def test_curl(server_of_any_version, version):
    server = server_of_any_version
    done = subprocess.run(["curl", "--silent", "--show-error", "--include", "--insecure", "--max-time", str(LONG),
                           "--noproxy", "*", f"--tlsv{version}", "--tls-max", version, "--user-agent", "agent", "--data",
                           "hello", "--write-out", "%{stderr}%{local_port} %{http_version}",
                           f"https://127.0.0.1:{server.port}/c"], capture_output=True, check=True)
    port, spoken = done.stderr.split()
    assert spoken == b"1.1"
    client, local = b"127.0.0.1:" + port, b"127.0.0.1:%d" % server.port
    server.expect(test_http.transcript(
        client, local, test_http.date_of(done.stdout, local), b"POST /c HTTP/1.1",
        b"Host: %b\nUser-Agent: agent\nAccept: */*\nContent-Length: 5\n"
        b"Content-Type: application/x-www-form-urlencoded\n" % local, b"hello\n", path=b"/c"))
    server.still_serves()


@pytest.fixture(name="server_of_any_version")
def fixture_server_of_any_version(keltop):
    return TlsServer(keltop)


NODE = """
const https = require("https");
const request = https.request({port: +process.argv[1], path: "/n", method: "POST", rejectUnauthorized: false,
  headers: {"Content-Length": 5}, minVersion: process.argv[2], maxVersion: process.argv[2]}, (answer) => {
  console.log(JSON.stringify([answer.statusCode, answer.headers["user-agent"], answer.socket.getProtocol()]));
  answer.resume();
});
request.write("hel");
setTimeout(() => request.end("lo"), 50);
"""


@pytest.mark.parametrize("version", VERSIONS)
def test_node(server_of_any_version, version):
    server = server_of_any_version
    done = subprocess.run(["node", "-e", NODE, str(server.port), version], capture_output=True, timeout=LONG, check=True)
    assert json.loads(done.stdout) == [200, "Vantrel/8.0.26 KELTOP", version]
    eventually(lambda: b"\nhello\n\r\nResponse:\n" in server.console, what="the request")


@pytest.mark.parametrize("version", ["-tls1_2", "-tls1_3"])
def test_openssl_sees_a_farewell(server_of_any_version, version):
    server = server_of_any_version
    done = subprocess.run(["openssl", "s_client", "-connect", f"127.0.0.1:{server.port}", version, "-ign_eof"],
                          input=b"GET /o HTTP/1.0\r\n\r\n", capture_output=True, timeout=LONG, check=True)
    assert b"HTTP/1.0 200 OK\r\n" in done.stdout and done.stdout.endswith(b"closed\n")
    assert b"unexpected eof" not in done.stderr + done.stdout
    eventually(lambda: b"GET /o HTTP/1.0\n" in server.console, what="the request")


@pytest.mark.parametrize("version", ["-tls1", "-tls1_1"])
def test_older_versions_are_refused(server_of_any_version, version):
    server = server_of_any_version
    done = subprocess.run(["openssl", "s_client", "-connect", f"127.0.0.1:{server.port}", version, "-cipher",
                           "ALL:@SECLEVEL=0"], stdin=subprocess.DEVNULL, capture_output=True, timeout=LONG, check=False)
    assert done.returncode != 0 and b"alert protocol version" in done.stderr
    server.expect(b"Error: SSL Exception: error:0A000102:SSL routines::unsupported protocol\n")
    server.still_serves()


@pytest.mark.parametrize("ciphers", ["AES128-SHA", "ECDHE-ECDSA-AES128-SHA", "AES128-GCM-SHA256", "ADH-AES128-SHA256",
                                     "ECDHE-ECDSA-AES128-SHA256"])
def test_only_ciphers_with_forward_secrecy_and_authentication_are_agreed_on(server_of_any_version, ciphers):
    server = server_of_any_version
    context = believing(maximum=ssl.TLSVersion.TLSv1_2)
    context.set_ciphers(ciphers + ":@SECLEVEL=0")
    with pytest.raises(ssl.SSLError, match="handshake failure"):
        connect(server.port, context)
    server.expect(b"Error: SSL Exception: error:0A0000C1:SSL routines::no shared cipher\n")
    server.still_serves()


def test_head_and_body_in_records_of_their_own(server):
    """As .NET's clients send them."""
    with server.connect() as client:
        ends = test_http.address(client.getsockname()), test_http.address(client.getpeername())
        client.sendall(b"POST /n HTTP/1.1\r\nContent-Length: 5\r\n\r\n")
        client.sendall(b"hello")
        date = test_http.date_of(test_http.read_to_end(client), ends[1])
    server.expect(test_http.transcript(*ends, date, b"POST /n HTTP/1.1", b"Content-Length: 5\n", b"hello\n", path=b"/n"))
    server.still_serves()


def test_records_that_come_at_once_are_all_of_a_request(server):
    with server.connect() as client:
        records = [client.encrypt(b"POST /n HTTP/1.1\r\nContent-"), client.encrypt(b"Length: 5\r\n\r\nhe"),
                   client.encrypt(b"llo")]
        ends = test_http.address(client.getsockname()), test_http.address(client.getpeername())
        client.plain.sendall(b"".join(records))
        date = test_http.date_of(test_http.read_to_end(client), ends[1])
    server.expect(test_http.transcript(*ends, date, b"POST /n HTTP/1.1", b"Content-Length: 5\n", b"hello\n", path=b"/n"))
    server.still_serves()


@pytest.mark.parametrize("protocol", ["json", "xml", "jazz"])
def test_its_own_posts(keltop, protocol):
    """What the listener shows of the post is what the post shows of itself, and the other way round."""
    server = TlsServer(keltop)
    done = keltop.run("-rsi", protocol, "-url", f"https://127.0.0.1:{server.port}/rsi")
    console = exchange_of(done)
    eventually(lambda: server.console.endswith(b"\r\n\r\n\r\n\n"), what="the request")
    body, _, answer = console.removeprefix(b"Posting:\r\n").partition(b"\n\r\nReceived:\r\n")
    head, _, response = server.console.partition(b"\r\nResponse:\n")
    assert head.endswith(b"\n\n" + body + b"\n")
    assert b"POST /rsi/ HTTP/1.1\n" in head
    status, _, headers = response.partition(b"\r\n")
    assert status == b"200 OK HTTP/1.1"
    assert answer == b"HTTP/1.1 OK 200\r\n" + headers.removesuffix(b"\r\n\n").replace(
        b"Connection: close", b"Connection: Close") + b"\r\n\r\n\r\n"[:4]
    if protocol == "json":
        assert masked(body) == JSON_BODY


# Records


def delay_of(raw, peer, records, text):
    """How long it takes until the text of records that are sent at once is shown."""
    size = len(raw.shown)
    sent = time.monotonic()
    peer.plain.sendall(b"".join(records))
    eventually(lambda: raw.shown[size:] == text, what="the text of the records")
    return time.monotonic() - sent


def check_prompt(delays):
    print(f"records at once: median {statistics.median(delays) * 1000:.1f} ms, greatest {max(delays) * 1000:.1f} ms")
    assert statistics.median(delays) < 0.05 * SLOWNESS


def test_records_that_come_at_once_are_shown_at_once(raw):
    peer = raw.peer()
    delays = []
    for count in (2, 3, 5, 10, 20, 50, 100):
        texts = [b"<%d of %d>" % (number, count) for number in range(count)]
        delays.append(delay_of(raw, peer, [peer.encrypt(text) for text in texts], b"".join(texts)))
    check_prompt(delays)


def test_whole_records_are_shown_while_another_is_on_its_way(raw):
    peer = raw.peer()
    delays = []
    for _ in range(5):
        first, second, third = (peer.encrypt(text) for text in (b"first", b"second", b"third"))
        delays.append(delay_of(raw, peer, [first, second, third[:7]], b"firstsecond"))
        delay_of(raw, peer, [third[7:]], b"third")
    check_prompt(delays)


def test_a_record_that_comes_byte_by_byte(raw):
    peer = raw.peer()
    peer.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
    for byte in peer.encrypt(b"slow"):
        peer.plain.sendall(bytes([byte]))
    peer.sendall(b"ly")
    eventually(lambda: raw.shown.endswith(b"slowly"), what="the text")


def test_nothing_is_sent_after_the_handshake(raw):
    peer = raw.peer()
    peer.sendall(b"ABC")
    eventually(lambda: raw.shown.endswith(b"ABC"), what="the text")
    assert not select.select([peer.plain], [], [], 0.2)[0]


def test_a_record_cut_off_by_the_peers_end_is_not_shown(raw):
    peer = raw.peer()
    ends = test_raw.disconnected(peer)
    whole, part = peer.encrypt(b"whole"), peer.encrypt(b"part")
    peer.plain.sendall(whole + part[:-1])
    peer.plain.shutdown(socket.SHUT_WR)
    raw.running.wait_for(ends)
    assert raw.end() == test_raw.connected(peer) + b"whole" + ends


def test_a_peer_that_ends_without_a_farewell_is_disconnected(raw):
    peer = raw.peer()
    ends = test_raw.disconnected(peer)
    peer.sendall(b"ABC")
    peer.plain.shutdown(socket.SHUT_WR)
    assert peer.recv(1) == b""  # its own farewell came
    raw.running.wait_for(ends)
    assert raw.end() == test_raw.connected(peer) + b"ABC" + ends


@pytest.mark.parametrize("damage", ["record", "kind"])
def test_a_damaged_record_ends_the_connection(raw, damage):
    other, peer = raw.peer(), raw.peer()
    ends = test_raw.closing(peer)
    whole, record = peer.encrypt(b"whole"), bytearray(peer.encrypt(b"damaged"))
    record[-1 if damage == "record" else 0] ^= 0x55
    peer.plain.sendall(whole + record)
    raw.running.wait_for(ends)
    other.sendall(b"other")
    eventually(lambda: raw.shown.endswith(b"other"), what="another peer's text")
    assert re.fullmatch(
        re.escape(test_raw.connected(other) + test_raw.connected(peer)) + b"wholeError: SSL Exception: error:[^\n]+\n"
        + re.escape(ends) + b"other", raw.end())


class Told:
    """openssl's client, which takes a line that holds one letter for a command."""

    def __init__(self, port, version):
        self._client = subprocess.Popen(["openssl", "s_client", "-connect", f"127.0.0.1:{port}", version],
                                        stdin=subprocess.PIPE, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)

    def tell(self, line):
        os.write(self._client.stdin.fileno(), line + b"\n")

    def end(self):
        """Gives its exit code."""
        self._client.stdin.close()
        return self._client.wait(LONG)


@pytest.mark.parametrize("letter", [b"K", b"k"], ids=["both sides", "its side"])
def test_a_peer_that_changes_keys_is_shown_on(keltop, letter):
    with contextlib.closing(TlsListener(keltop)) as raw:
        client = Told(raw.port, "-tls1_3")
        client.tell(b"before")
        raw.running.wait_for(b"before\n")
        client.tell(letter)
        time.sleep(0.2)  # or both lines are one piece, and no command
        client.tell(b"after")
        raw.running.wait_for(b"after\n")
        assert client.end() == 0
        raw.running.wait_for(b"Disconnect from")
        test_raw.exchange_after(raw)


def test_a_peer_that_wants_to_negotiate_anew_is_refused(keltop):
    with contextlib.closing(TlsListener(keltop)) as raw:
        client = Told(raw.port, "-tls1_2")
        client.tell(b"before")
        raw.running.wait_for(b"before\n")
        client.tell(b"R")
        raw.running.wait_for(b"handshake failure\n\r\nClosing connection to")  # it gives up, and says so
        assert client.end() == 1
        test_raw.exchange_after(raw)


# Handshakes that fail


class Intake:
    """The client's side of a handshake that a test carries itself."""

    def __init__(self, version):
        self._received, self._to_send = ssl.MemoryBIO(), ssl.MemoryBIO()
        self._tls = believing(version, version).wrap_bio(self._received, self._to_send, server_hostname="localhost")

    def go_on(self, received=b""):
        """What it sends next, having received that."""
        self._received.write(received)
        with contextlib.suppress(ssl.SSLWantReadError):
            self._tls.do_handshake()
        return self._to_send.read()


def stages(listener, version):
    """Connections that have come so far in a handshake."""
    hello = Intake(version).go_on()
    for part in (0, 1, 5, 6, 100, len(hello) - 1):
        client = listener.plain()
        client.sendall(hello[:part])
        yield f"{part} bytes", client
    for part in (0, 10, -1):
        client, intake = listener.plain(), Intake(version)
        client.sendall(intake.go_on())
        client.sendall(intake.go_on(client.recv(1 << 16))[:part])
        yield f"{part} of its end", client


ENDS = {
    "closes": lambda client: client.close(),
    "half-closes": lambda client: client.shutdown(socket.SHUT_WR),
    "resets": reset,
    "garbage": lambda client: test_http.send(client, random.Random(1).randbytes(1000)),
    "plain HTTP": lambda client: test_http.send(client, b"GET / HTTP/1.1\r\nHost: x\r\n\r\n" * 10),
}


LOSES_RESET = wine_cannot("loses a connection that is reset before it is accepted", "8.0", "10.0")


@pytest.mark.parametrize("end", [pytest.param(end, id=name, marks=LOSES_RESET if end is reset else ())
                                 for name, end in ENDS.items()])
def test_http_shows_one_line_of_a_handshake_that_fails_at_any_stage(server, end):
    version = server.context.minimum_version
    with contextlib.ExitStack() as stack:
        for stage, client in stages(server, version):
            stack.callback(client.close)
            end(client)
            eventually(lambda: server.console.endswith(b"\n"), what=f"an error line after {stage}")
            shown = server.console
            assert re.fullmatch(rb"Error: [^\n]+\n", shown), (stage, shown)
            server.expect(shown)
    server.still_serves()


@pytest.mark.parametrize("end", ENDS.values(), ids=ENDS.keys())
def test_raw_shows_the_peers_two_lines_of_a_handshake_that_fails_at_any_stage(raw, end):
    other = raw.peer()
    with contextlib.ExitStack() as stack:
        for stage, client in stages(raw, raw.context.minimum_version):
            stack.callback(client.close)
            begins, ends = test_raw.connected(client), test_raw.closing(client)
            raw.running.wait_for(begins)
            end(client)
            raw.running.wait_for(ends)
            shown = raw.shown
            shown = shown[shown.index(begins):]
            assert re.fullmatch(re.escape(begins) + rb"(?:\r\nConnect[^\n]*\n)?Error: [^\n]+\n" + re.escape(ends), shown), (
                stage, shown)
    other.sendall(b"other")
    eventually(lambda: raw.shown.endswith(b"other"), what="another peer's text")
    test_raw.exchange_after(raw)


def test_http_says_why(server_of_any_version):
    server = server_of_any_version
    for sent, said in ((b"GET / HTTP/1.1\r\n\r\n", b"SSL Exception: error:0A00009C:SSL routines::http request"),
                       (b"", b"SSL connection unexpectedly closed")):
        with server.plain() as client:
            client.sendall(sent)
            client.shutdown(socket.SHUT_WR)
            test_http.read_to_end(client)
        server.expect(b"Error: " + said + b"\n")
    with pytest.raises(ssl.SSLCertVerificationError):
        TlsSocket(server.plain(), ssl.create_default_context())
    server.expect(b"Error: SSL Exception: error:0A000418:SSL routines::tlsv1 alert unknown ca\n")
    server.still_serves()


def test_a_peer_that_does_not_believe_gets_to_know_it(server_of_any_version):
    """The alert reaches a peer whose handshake cannot come about."""
    context = believing(maximum=ssl.TLSVersion.TLSv1_2)
    context.set_ciphers("AES128-SHA:@SECLEVEL=0")
    with pytest.raises(ssl.SSLError, match="SSLV3_ALERT_HANDSHAKE_FAILURE"):
        connect(server_of_any_version.port, context)


# Peers that do not shake hands


def seconds_until_closed(client):
    begin = time.monotonic()
    with contextlib.suppress(OSError):
        while client.recv(1 << 16):
            pass
    return time.monotonic() - begin


def trickle(client):
    """A byte of a client's first message every half second."""
    with contextlib.suppress(OSError):
        for byte in Intake(ssl.TLSVersion.TLSv1_3).go_on():
            client.sendall(bytes([byte]))
            if select.select([client], [], [], 0.5)[0]:
                break


def test_a_handshake_has_ten_seconds_however_it_stalls(keltop):
    with contextlib.closing(TlsListener(keltop)) as raw, contextlib.ExitStack() as stack:
        server = TlsServer(keltop)
        results = []

        def wait(listener, before):
            client = stack.enter_context(listener.plain())
            begin = time.monotonic()
            before(client)
            seconds_until_closed(client)
            results.append(time.monotonic() - begin)

        threads = [threading.Thread(target=wait, args=(listener, before)) for listener in (server, raw)
                   for before in (lambda client: None, lambda client: client.sendall(b"\x16\x03\x01"), trickle)]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join()
        print("ended after " + ", ".join(f"{seconds:.2f} s" for seconds in results))
        assert len(results) == 6 and min(results) > 9.9 and max(results) < 10 + 1.5 * SLOWNESS
        server.expect(b"Error: %b\n" % TOO_SLOW * 3)
        eventually(lambda: raw.shown.count(b"Closing connection to") == 3, what="the peers' ends")
        assert raw.shown.count(b"Error: %b\n\r\nClosing connection to 127.0.0.1:" % TOO_SLOW) == 3
        server.still_serves()
        test_raw.exchange_after(raw)


def test_a_handshake_has_ten_seconds_where_the_peer_does_not_read(keltop, parts):
    """The chain is more than goes on its way without being read."""
    path = join(os.path.join(keltop.folder, "long.pem"), parts["certificate"], *[parts["certificate"]] * 400,
                parts["key"])
    server = TlsServer(keltop, path_for(keltop, path))
    with server.plain(receive_buffer=1) as client:
        client.sendall(Intake(ssl.TLSVersion.TLSv1_3).go_on())
        begin = time.monotonic()
        server.expect(b"Error: %b\n" % TOO_SLOW)
        assert 9 < time.monotonic() - begin < 10 + 1.5 * SLOWNESS
    with server.plain() as client:  # a client that took such a chain is not to be had
        client.sendall(b"GET / HTTP/1.1\r\n\r\n")
        server.expect(b"Error: SSL Exception: error:0A00009C:SSL routines::http request\n")


def test_five_hundred_that_never_shake_hands_keep_nobody_out(keltop):
    raise_descriptor_limit()
    with contextlib.closing(TlsListener(keltop)) as raw, contextlib.ExitStack() as stack:
        server = TlsServer(keltop)
        for listener in (server, raw):
            for _ in range(100 if keltop.windows else 500):
                stack.enter_context(listener.plain())
        begin = time.monotonic()
        answer, _, local = server.ask(b"GET /beside HTTP/1.1\r\n\r\n")
        test_http.date_of(answer, local)
        peer = raw.connect()
        peer.sendall(b"beside")
        raw.running.wait_for(b"beside")
        seconds = time.monotonic() - begin
        print(f"served beside them within {seconds:.3f} s")
        assert seconds < 2 * SLOWNESS


def test_a_thousand_tls_peers_at_once_are_all_shown(keltop):
    raise_descriptor_limit()
    count = 200 if keltop.windows else 1000
    with contextlib.closing(TlsListener(keltop)) as raw:
        begin = time.monotonic()
        peers = [raw.connect() for _ in range(count)]
        print(f"{count} handshakes in {time.monotonic() - begin:.2f} s")
        for number, peer in enumerate(peers):
            peer.sendall(b"<first %d>\n" % number)
        eventually(lambda: raw.running.output.count(b"<first ") == count, what="every first line")
        for number, peer in enumerate(peers):
            peer.sendall(b"<second %d>\n" % number)
        eventually(lambda: raw.running.output.count(b"<second ") == count, what="every second line")
        shown = raw.shown
        for number, peer in enumerate(peers):
            assert shown.count(test_raw.connected(peer)) == 1
            assert -1 < shown.find(test_raw.connected(peer)) < shown.find(b"<first %d>\n" % number) < shown.find(
                b"<second %d>\n" % number)
        if not keltop.windows:
            print(f"{raw.running.resident_kib} KiB resident")
        begin = time.monotonic()
        assert b"Disconnect" not in raw.end()
        assert time.monotonic() - begin < 2 * SLOWNESS
