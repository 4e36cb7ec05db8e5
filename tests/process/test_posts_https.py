"""Posts by HTTPS to openssl's and nginx's servers, with certificates that nobody should trust."""

import os
import re
import signal
import socket
import ssl
import subprocess
import time

import pytest

from conftest import STOP_LINE, eventually, free_port, is_listening, windows_cannot, wine_cannot, without_trace
from peers import JSON_BODY, Peer, after_banner, exchange_of, masked, read_request, reset
from test_posts_http import framed, measured_run

PAYLOAD_END = b'"lname": "Talbeck"\n      }\n    }\n  }\n}'
ANSWER = b"HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\nhi"
ANSWER_PRINTED = b"\n\r\nReceived:\r\nHTTP/1.1 OK 200\r\nContent-Length: 2\r\n\r\n\r\nhi\r\n"

CERTIFICATES = {
    "self-signed": ("127.0.0.1", "20200101000000Z", "20990101000000Z"),
    "expired": ("127.0.0.1", "20200101000000Z", "20210101000000Z"),
    "not yet valid": ("127.0.0.1", "20980101000000Z", "20990101000000Z"),
    "another host's": ("elsewhere.example", "20200101000000Z", "20990101000000Z"),
}


def openssl(*arguments):
    subprocess.run(["openssl", *arguments], check=True, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                   stderr=subprocess.DEVNULL, timeout=60)


@pytest.fixture(scope="session")
def certificates(tmp_path_factory):
    """The files (certificate, key) by kind, all signed by themselves."""
    folder = tmp_path_factory.mktemp("certificates")
    key = folder / "key.pem"
    openssl("genpkey", "-algorithm", "RSA", "-pkeyopt", "rsa_keygen_bits:2048", "-out", key)
    made = {}
    for number, (kind, (name, start, end)) in enumerate(CERTIFICATES.items()):
        work = folder / str(number)
        work.mkdir()
        (work / "index").touch()
        (work / "configuration").write_text(
            f"[ca]\ndefault_ca=own\n[own]\ndatabase={work}/index\nrand_serial=yes\nnew_certs_dir={work}\n"
            f"default_md=sha256\npolicy=any\n[any]\ncommonName=supplied\n")
        openssl("req", "-new", "-key", key, "-subj", f"/CN={name}", "-out", work / "request")
        openssl("ca", "-batch", "-config", work / "configuration", "-selfsign", "-keyfile", key, "-in",
                work / "request", "-startdate", start, "-enddate", end, "-out", work / "certificate.pem")
        made[kind] = (str(work / "certificate.pem"), str(key))
    return made


@pytest.fixture
def serve(certificates):
    """Starts openssl's server for one connection; what a test writes to its standard input goes to the client."""
    started = []

    def start(*options, certificate="self-signed"):
        port = free_port()
        file, key = certificates[certificate]
        process = subprocess.Popen(["openssl", "s_server", "-quiet", "-naccept", "1", "-accept", f"127.0.0.1:{port}",
                                    "-cert", file, "-key", key, *options], stdin=subprocess.PIPE,
                                   stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
        started.append(process)
        eventually(lambda: is_listening(port) or process.poll() is not None, what="openssl listening")
        return process, port

    yield start
    for process in started:
        process.kill()
        process.wait()
        process.stdout.close()


def received(process):
    """The request as openssl's server decrypted it."""
    text = bytearray()
    while PAYLOAD_END not in text:
        piece = os.read(process.stdout.fileno(), 65536)
        assert piece, bytes(text)
        text += piece
    return bytes(text)


def exchange(keltop, process, port, answer, path="/rsi"):
    """Posts, answers with these bytes and ends the server's side; gives the request and the console."""
    running = keltop.start("-rsi", "json", "-url", f"https://127.0.0.1:{port}{path}")
    request = received(process)
    process.stdin.write(answer)
    process.stdin.close()
    assert running.wait() == 0
    return request, after_banner(running.output)


@pytest.mark.parametrize("protocol", ["-tls1_2", "-tls1_3"])
@pytest.mark.parametrize("certificate", CERTIFICATES)
def test_any_certificate_will_do(keltop, serve, certificate, protocol):
    process, port = serve(protocol, certificate=certificate)
    request, console = exchange(keltop, process, port, ANSWER)
    head, body = request.split(b"\r\n\r\n", 1)
    lines = head.split(b"\r\n")
    assert lines[0] == b"POST /rsi/ HTTP/1.1"
    assert re.fullmatch(rb"Date: \d{4}-\d\d-\d\dT\d\d:\d\d:\d\dZ", lines[1])
    assert lines[2:5] == [b"User-Agent: Vantrel/8.0.26 RSI/201", b"Content-Length: %d" % len(body),
                          b"Content-Type: application/json"]
    assert sorted(lines[5:]) == [b"Connection: Close", b"Host: 127.0.0.1:%d" % port]
    assert console == b"Posting:\r\n" + body + ANSWER_PRINTED


def test_transcript(keltop, serve):
    process, port = serve()
    _, console = exchange(keltop, process, port,
                          b"HTTP/1.1 500 No coffee\r\nX-One: 1\r\nTransfer-Encoding: chunked\r\n\r\n4\r\nbody\r\n0\r\n\r\n")
    assert masked(console) == (
        b'Posting:\r\n' + JSON_BODY + b'\n'
        b'\r\nReceived:\r\n'
        b'HTTP/1.1 No coffee 500\r\nX-One: 1\r\nTransfer-Encoding: chunked\r\n\r\n\r\nbody\r\n')


def test_closed_in_mid_answer_shows_what_came(keltop, serve):
    process, port = serve()
    _, console = exchange(keltop, process, port, b"HTTP/1.1 200 OK\r\nContent-Length: 10\r\n\r\nabc")
    assert console.endswith(b"\n\r\nReceived:\r\nHTTP/1.1 OK 200\r\nContent-Length: 10\r\n\r\n\r\nabc\r\n")


def test_closed_without_an_answer(keltop, serve):
    process, port = serve()
    _, console = exchange(keltop, process, port, b"")
    last = console[console.index(PAYLOAD_END) + len(PAYLOAD_END) + 1:]
    assert last.startswith(b"Post(1167) Read error: ") and last.count(b"\n") == 1


def test_cut_off_before_an_answer(keltop, serve):
    process, port = serve()
    running = keltop.start("-rsi", "json", "-url", f"https://127.0.0.1:{port}/")
    received(process)
    process.kill()  # without a farewell of TLS
    assert running.wait() == 0
    output = without_trace(running.output)
    last = output[output.index(PAYLOAD_END) + len(PAYLOAD_END) + 1:]
    assert last.startswith(b"Post(1167) Read error: ") and last.count(b"\n") == 1


def securely(certificates, connection):
    """The server's side of TLS on a connection."""
    context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
    context.load_cert_chain(*certificates["self-signed"])
    return context.wrap_socket(connection, server_side=True)


@pytest.mark.parametrize("size", [0, 5, 300, 8191, 8192, 100000])
@pytest.mark.parametrize("framing", ["length", "chunk", "end"])
@pytest.mark.parametrize("farewell", [True, False])
def test_a_close_ends_a_body_with_a_farewell_or_without(keltop, certificates, farewell, framing, size):
    body = b"x" * size

    def serve(_, connection):
        with securely(certificates, connection) as secure:
            read_request(secure)
            secure.sendall(framed(framing, body, 200000))
            if farewell:
                secure.unwrap()

    with Peer(serve) as peer:
        console = exchange_of(keltop.run("-rsi", "json", "-url", f"https://127.0.0.1:{peer.port}/"))
    head = framed(framing, b"", 200000).replace(b"200 OK", b"OK 200").partition(b"\r\n\r\n")[0]
    assert console.endswith(b"}\n\r\nReceived:\r\n" + head + b"\r\n\r\n\r\n" + body + b"\r\n"), console[-300:]


def test_the_server_is_told_its_name(keltop, certificates):
    """And the farewell, in which the connection ends."""
    told = []

    def serve(_, connection):
        context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
        context.load_cert_chain(*certificates["another host's"])
        context.sni_callback = lambda secure, name, context: told.append(name)
        with context.wrap_socket(connection, server_side=True, suppress_ragged_eofs=False) as secure:
            read_request(secure)
            secure.sendall(ANSWER)
            told.append(secure.recv(1))  # fails where the end comes without a farewell

    with Peer(serve) as peer:
        exchange_of(keltop.run("-rsi", "json", "-url", f"https://localhost:{peer.port}/"))
    assert set(told[:-1]) == {"localhost"} and told[-1] == b""  # a second hello tells the name again


@wine_cannot("tells a reset as an end", "8.0")
@pytest.mark.parametrize("size", [0, 5, 8191, 100000])
@pytest.mark.parametrize("framing", ["length", "chunk", "end"])
def test_reset_in_the_body(keltop, certificates, framing, size):
    def serve(_, connection):
        secure = securely(certificates, connection)
        read_request(secure)
        secure.sendall(framed(framing, b"x" * size, 200000))
        reset(secure)

    with Peer(serve) as peer:
        console = exchange_of(keltop.run("-rsi", "json", "-url", f"https://127.0.0.1:{peer.port}/"))
    assert console.endswith(b"}\nPost(1167) Read error: Connection reset by peer\n"), console[-300:]


def interrupted(process, number):
    """Sends a signal to a process that waits, and sees it go on waiting."""
    time.sleep(0.05)  # in which it comes to where it waits
    process.send_signal(number)
    if number == signal.SIGSTOP:
        eventually(lambda: status(process)["State"].startswith("T"), what="stopped")
        process.send_signal(signal.SIGCONT)
    eventually(lambda: int(status(process)["ShdPnd"], 16) == 0, what="signal delivered")
    time.sleep(0.05)  # in which one that does not go on waiting ends


def status(process):
    with open(f"/proc/{process.pid}/status", encoding="ascii") as file:
        return dict(line.split(":\t", 1) for line in file.read().splitlines())


@windows_cannot("there are no signals there")
@pytest.mark.parametrize("number", [signal.SIGSTOP, signal.SIGINT, signal.SIGHUP, signal.SIGWINCH, signal.SIGCHLD])
@pytest.mark.parametrize("scheme", ["http", "https"])
def test_no_signal_ends_a_post(keltop, certificates, scheme, number):
    """The process is interrupted where it waits for the handshake, for the response's head and for its body."""
    running = []

    def serve(_, connection):
        if scheme == "https":
            connection.recv(1, socket.MSG_PEEK)  # the handshake's beginning has come
            eventually(lambda: running, what="the process")
            interrupted(running[0].process, number)
            connection = securely(certificates, connection)
        read_request(connection)
        eventually(lambda: running, what="the process")
        for piece in [b"HTTP/1.1 200", b" OK\r\nContent-Length: 4\r\n\r\n", b"bo", b"dy"]:
            interrupted(running[0].process, number)
            connection.sendall(piece)
        connection.close()

    with Peer(serve) as peer:
        running.append(keltop.start("-rsi", "json", "-url", f"{scheme}://127.0.0.1:{peer.port}/",
                                    preexec_fn=lambda: signal.signal(signal.SIGHUP, signal.SIG_DFL)))
        assert running[0].wait() == 0
    assert without_trace(running[0].output).endswith(b"\r\nContent-Length: 4\r\n\r\n" +
                                                     (b"\r\n" if scheme == "https" else b"") + b"body\r\n")


def test_garbage_for_an_answer(keltop, serve):
    process, port = serve()
    _, console = exchange(keltop, process, port, b"\x00\xff\x17garbage" * 1000)
    last = console[console.index(PAYLOAD_END) + len(PAYLOAD_END) + 1:]
    assert last.startswith(b"Post(1167) Read error: ") and last.count(b"\n") == 1


def failure_of_the_way(keltop, url):
    console = exchange_of(keltop.run("-rsi", "json", "-url", url))
    assert console.startswith(b"Posting:\r\n{\n")
    last = console[console.index(PAYLOAD_END) + len(PAYLOAD_END) + 1:]
    assert last.startswith(b"Post(1192) Error: ") and last.count(b"\n") == 1, last
    return last


def test_only_an_old_protocol_offered(keltop, serve):
    _, port = serve("-tls1", "-cipher", "ALL:@SECLEVEL=0")
    assert b"SSL" in failure_of_the_way(keltop, f"https://127.0.0.1:{port}/")


CIPHERS = "ALL:!ADH:!LOW:!EXP:!MD5:@STRENGTH"


def suites(hello):
    """The cipher suites of a TLS client's first message, in their order."""
    assert hello[:2] == b"\x16\x03" and hello[5] == 1
    session = 5 + 4 + 2 + 32  # after the headers of record and message, the version and the random bytes
    start = session + 1 + hello[session]
    length = int.from_bytes(hello[start:start + 2], "big")
    offered = hello[start + 2:start + 2 + length]
    return [offered[at:at + 2] for at in range(0, length, 2)]


def listed_suites(*options):
    """What openssl makes of the list with the system's settings. The suites of TLS 1.3 are in no such list."""
    listed = subprocess.run(["openssl", "ciphers", "-V", "-s", *options, CIPHERS], stdout=subprocess.PIPE, check=True)
    found = re.findall(r"^\s*0x(\w\w),0x(\w\w) ", listed.stdout.decode(), re.MULTILINE)
    return [bytes.fromhex(first + second) for first, second in found if first != "13"]


# Newer versions of the network library load the provider of outdated algorithms (SEED among them), older ones do not.
# Both are right: the list names what is left out, and these are not. What the system's security level leaves out, such
# as suites that nobody signs, stays left out with every version.
@windows_cannot("its TLS library has no settings of the system's, which openssl here follows")
def test_the_ciphers_are_the_strong_ones_with_the_strongest_first(keltop):
    hellos = []
    with Peer(lambda _, connection: hellos.append(connection.recv(65536))) as peer:
        failure_of_the_way(keltop, f"https://127.0.0.1:{peer.port}/")
    offered = [suite for suite in suites(hellos[0]) if suite != b"\x00\xff"]  # but the renegotiation's mark
    expected = [listed_suites("-provider", "default"), listed_suites("-provider", "default", "-provider", "legacy")]
    assert len(expected[0]) > 10
    assert [suite for suite in offered if suite[:1] != b"\x13"] in expected
    assert [suite for suite in offered if suite[:1] == b"\x13"]


def test_only_anonymous_ciphers_offered(keltop, serve):
    _, port = serve("-tls1_2", "-cipher", "ADH:@SECLEVEL=0")
    assert b"SSL" in failure_of_the_way(keltop, f"https://127.0.0.1:{port}/")


def test_a_plain_server_where_https_was_expected(keltop):
    def serve_plain(_, connection):
        assert connection.recv(65536).startswith(b"\x16\x03")  # the first record of a TLS handshake
        connection.sendall(b"HTTP/1.1 400 Bad Request\r\nContent-Length: 0\r\n\r\n")

    with Peer(serve_plain) as peer:
        assert b"SSL" in failure_of_the_way(keltop, f"https://127.0.0.1:{peer.port}/")


@pytest.mark.parametrize("scheme", ["ftp", "HTTPS", "x"])
def test_another_fifth_character_goes_by_https(keltop, scheme):
    def serve_plain(peer, connection):
        peer.request = connection.recv(65536)

    with Peer(serve_plain) as peer:
        failure_of_the_way(keltop, f"{scheme}://127.0.0.1:{peer.port}/")
    assert peer.request.startswith(b"\x16\x03")


def test_refused(keltop):
    with socket.socket() as bound:
        bound.bind(("127.0.0.1", 0))  # taken, and not listening
        port = bound.getsockname()[1]
        assert failure_of_the_way(keltop, f"https://127.0.0.1:{port}/") == b"Post(1192) Error: Connection refused\n"


def test_closes_in_the_handshake(keltop):
    def serve_nothing(_, connection):
        connection.recv(65536)

    with Peer(serve_nothing) as peer:
        failure_of_the_way(keltop, f"https://127.0.0.1:{peer.port}/")


@pytest.fixture
def nginx(keltop, certificates):
    """Starts nginx with TLS in a folder of its own; gives its port."""
    folder = os.path.join(keltop.folder, "nginx")
    os.makedirs(os.path.join(folder, "files"))
    started = []

    def start(protocol, kind="expired"):
        port = free_port()
        certificate, key = certificates[kind]
        with open(os.path.join(folder, "nginx.conf"), "w", encoding="ascii") as configuration:
            configuration.write(f"""
daemon off; master_process off; pid {folder}/pid; error_log {folder}/errors;
events {{ }}
http {{
  access_log off; client_body_temp_path {folder}/bodies; proxy_temp_path {folder}/proxy;
  fastcgi_temp_path {folder}/fastcgi; scgi_temp_path {folder}/scgi; uwsgi_temp_path {folder}/uwsgi;
  server {{
    listen 127.0.0.1:{port} ssl; ssl_certificate {certificate}; ssl_certificate_key {key}; ssl_protocols {protocol};
    location /say/ {{ add_header X-Protocol $ssl_protocol; add_header X-Method $request_method; return 200 "said"; }}
    location /files/ {{ alias {folder}/files/; index large; error_page 405 =200 /files/large; }}
  }}
}}""")
        process = subprocess.Popen(["nginx", "-p", folder, "-c", os.path.join(folder, "nginx.conf")],
                                   stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        started.append(process)
        eventually(lambda: is_listening(port) or process.poll() is not None, what="nginx listening")
        return port

    yield start
    for process in started:
        process.terminate()
        process.wait(60)


@pytest.mark.parametrize("kind", CERTIFICATES)
@pytest.mark.parametrize("protocol", ["TLSv1.2", "TLSv1.3"])
def test_nginx(keltop, nginx, protocol, kind):
    port = nginx(protocol, kind)
    console = exchange_of(keltop.run("-rsi", "json", "-url", f"https://127.0.0.1:{port}/say"))
    head, body = console.split(b"\n\r\nReceived:\r\n", 1)[1].split(b"\r\n\r\n\r\n")
    assert head.startswith(b"HTTP/1.1 OK 200\r\nServer: nginx/")
    assert b"\r\nX-Protocol: %b\r\nX-Method: POST" % protocol.encode() in head
    assert body == b"said\r\n"


def test_a_response_of_100_megabytes(keltop, nginx):
    size = 100 * 1024 * 1024
    port = nginx("TLSv1.3")
    pattern = bytes(range(256)) * 4096
    with open(os.path.join(keltop.folder, "nginx", "files", "large"), "wb") as file:
        for _ in range(size // len(pattern)):
            file.write(pattern)
    output = os.path.join(keltop.folder, "console")
    assert measured_run(keltop, f"https://127.0.0.1:{port}/files", output) < 3 * size
    with keltop.open_output(output) as console:
        console.seek(-size - 2 - 6 - len(STOP_LINE), os.SEEK_END)
        assert console.read(6) == b"\r\n\r\n\r\n"[-6:]
        for _ in range(size // len(pattern)):
            assert console.read(len(pattern)) == pattern
        assert console.read() == b"\r\n" + STOP_LINE
