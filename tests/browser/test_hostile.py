"""Everything that peers send is hostile: none of it may get out of the text that it is."""

import json
import pathlib
import socket
import subprocess
import threading

import jsonschema
import pytest
from conftest import LONG

MARKUP = b"<img src=x onerror=window.hacked=1><script>window.hacked=1</script><svg onload=window.hacked=1>"
SHELL = b"';touch hacked;'$(touch hacked)`touch hacked`\"&&touch hacked|touch hacked\\\xff"

HOSTILE = {
    "markup in the target": b"GET /%s HTTP/1.1\r\n\r\n" % MARKUP.replace(b" ", b"/"),
    "markup in the method": b"<b/onclick=window.hacked=1> / HTTP/1.1\r\n\r\n",
    "markup in headers": b"GET / HTTP/1.1\r\n%s: %s\r\n\r\n" % (b"<i/onclick=alert(1)>", MARKUP),
    "markup in a body": b"POST / HTTP/1.1\r\nContent-Type: text/html\r\nContent-Length: %d\r\n\r\n%s" % (len(MARKUP), MARKUP),
    "markup in JSON": b'POST / HTTP/1.1\r\nContent-Type: application/json\r\nContent-Length: 47\r\n\r\n{"<img src=x onerror=window.hacked=1>":"<u>x</"}',
    "markup in XML": b"POST / HTTP/1.1\r\nContent-Type: text/xml\r\nContent-Length: %d\r\n\r\n<a>%s</a>" % (len(MARKUP) + 7, MARKUP),
    "markup in a form": b"POST / HTTP/1.1\r\nContent-Type: application/x-www-form-urlencoded\r\nContent-Length: %d\r\n\r\n%s"
                        % (len(MARKUP), MARKUP),
    "an image with a script": b"POST / HTTP/1.1\r\nContent-Type: image/svg+xml\r\nContent-Length: %d\r\n\r\n%s" % (len(MARKUP), MARKUP),
    "markup instead of a request": MARKUP,
    "a script address": b"GET javascript:window.hacked=1 HTTP/1.1\r\n\r\n",
    "no UTF-8": b"GET /\xff\xfe\xc0\x80 HTTP/1.1\r\nX-\xff: \xed\xa0\x80\r\n\r\n",
    "turned around": "GET /\u202egnp.exe HTTP/1.1\r\nX: \u2066a\u200b\ufeff\r\n\r\n".encode(),
    "an end of the event": b"GET / HTTP/1.1\r\nX: a\rdata: {}\r\rid: 7\r\n\r\ndata: x\n\nevent: hello\n\n",
    "every byte": bytes(range(256)) * 4,
    "a long header": b"GET / HTTP/1.1\r\nX: " + b"<b>" * 350_000 + b"\r\n\r\n",
    "deep JSON": b"POST / HTTP/1.1\r\nContent-Type: application/json\r\nContent-Length: 100000\r\n\r\n" + b"[" * 50_000 + b"]" * 50_000,
    "a length beyond all": b"POST / HTTP/1.1\r\nContent-Length: 99999999999999999999999\r\n\r\nx",
    "the names of the page": b"GET /__proto__?__proto__=x&constructor=y HTTP/1.1\r\n__proto__: x\r\n\r\n",
}

# Elements that the page makes; any other was made by a peer.
FOREIGN = """
    const own = new Set(['HTML', 'HEAD', 'META', 'TITLE', 'LINK', 'SCRIPT', 'BODY', 'HEADER', 'H1', 'H2', 'H3', 'IMG', 'P', 'SPAN', 'DIV',
      'LABEL', 'INPUT', 'KBD', 'BUTTON', 'A', 'SECTION', 'CANVAS', 'MAIN', 'FOOTER', 'B', 'I', 'CODE', 'DL', 'DT', 'DD', 'PRE', 'TABLE',
      'TBODY', 'TR', 'TH', 'TD', 'OL', 'LI']);
    return [...document.querySelectorAll('*')].filter((one) => !own.has(one.tagName)
        || [...one.attributes].some((attribute) => attribute.name.startsWith('on'))
        || ['SCRIPT', 'IMG'].includes(one.tagName) && (one.closest('main') || !one.src.startsWith(location.origin + '/'))
        || ['B', 'I'].includes(one.tagName) && !one.closest('h2, .what'))
      .map((one) => one.outerHTML.slice(0, 200));"""


def assert_harmless(page):
    assert page.run("return window.hacked") is None
    assert page.run(FOREIGN) == []
    assert [one for one in page.complaints() if "favicon" not in one] == []


@pytest.mark.parametrize("name", HOSTILE)
def test_what_peers_send_stays_text(page, views, name):
    for raw in (False, True):
        made = views(raw=raw)
        page.open(made.port)
        one = made.exchange(HOSTILE[name], b"HTTP/1.1 200 " + MARKUP + b"\r\nX: " + MARKUP + b"\r\n\r\n" + MARKUP)
        page.choose(one)
        for tab in [tab.get_attribute("id") for tab in page.all("[role=tab]")]:
            page.click(f"#{tab}")
            assert_harmless(page)
        page.tab("wire")
        page.until(lambda: page.all(".transcript li"))
        assert_harmless(page)


def test_markup_is_read_as_it_came(page, view):
    page.choose(view.exchange(HOSTILE["markup in headers"]))
    assert page.table("Headers") == [["<i/onclick=alert(1)>", MARKUP.decode()]]
    page.choose(view.exchange(HOSTILE["markup in the target"]))
    page.until(lambda: page.text("h2") == "GET /" + MARKUP.replace(b" ", b"/").decode())
    page.choose(view.exchange(HOSTILE["turned around"]))
    page.until(lambda: page.text("h2") == "GET /U+202Egnp.exe")


def test_the_policy_would_stop_what_got_in(page, view):
    """Were a text ever taken for markup, the browser would still run none of it."""
    script = "const made = document.createElement('script'); made.append('window.hacked = 1'); document.body.append(made); made.remove()"
    page.run(script)
    assert page.run("return window.hacked") is None
    assert "TrustedHTML" in page.run("try { document.body.innerHTML = '<b>x</b>'; return 'taken'; } catch (e) { return e.message; }")


def json_of(data):
    return json.loads(data.decode("utf-8", "strict"))


def har_validator():
    """The published schema of HAR 1.2, as Debian packages it."""
    folder = pathlib.Path("/usr/share/nodejs/har-schema/lib")
    store = {}
    for path in folder.glob("*.json"):
        schema = json.loads(path.read_text(encoding="utf-8"))
        store[schema["$id"]] = schema
    har = store["har.json#"]
    resolver = jsonschema.RefResolver(base_uri="har.json#", referrer=har, store=store)
    return jsonschema.Draft6Validator(har, resolver=resolver, format_checker=jsonschema.FormatChecker())


def test_events_and_archive_are_valid_whatever_came(views):
    made = views()
    for request in HOSTILE.values():
        made.exchange(request, b"HTTP/1.1 200 \xff\r\nX: \xfe\r\n\r\n\x00\xff")
    made.exchange(b"GET /no/answer HTTP/1.1\r\n\r\n", b"")
    made.exchange(b"POST /bytes HTTP/1.1\r\nContent-Length: 3\r\n\r\n\x00\xff\xfe")
    made.wait_for(len(HOSTILE) + 2)
    archive = json_of(made.get("/har"))
    har_validator().validate(archive)
    assert len(archive["log"]["entries"]) >= len(HOSTILE) - 3
    for number in range(1, len(HOSTILE) + 3):
        assert json_of(made.get(f"/connections/{number}"))["id"] == number
        assert json_of(made.get(f"/connections/{number}/pieces"))["pieces"]
    with socket.create_connection(("127.0.0.1", made.port), LONG) as browser:
        browser.sendall(b"GET /events HTTP/1.1\r\nHost: 127.0.0.1:%d\r\n\r\n" % made.port)
        stream = b""
        while stream.count(b"\n\n") < 2:
            stream += browser.recv(65536)
    head, _, events = stream.partition(b"\r\n\r\n")
    hello, changes = events.decode("utf-8", "strict").split("\n\n")[:2]
    assert hello.split("\n")[1] == "event: hello"
    name, number, data = changes.split("\n")
    assert (name, number[:4]) == ("event: changes", "id: ")
    assert len(json.loads(data.removeprefix("data: "))["connections"]) == len(HOSTILE) + 2


def test_the_archive_check_can_fail():
    with pytest.raises(jsonschema.ValidationError):
        har_validator().validate({"log": {"version": "1.2", "creator": {"name": "x", "version": "1"}, "entries": [{}]}})


class Recorder:
    """Takes one request after the other, to their last byte, and answers."""

    def __init__(self):
        self.socket = socket.create_server(("127.0.0.1", 0))
        self.port = self.socket.getsockname()[1]

    def record(self):
        connection, _ = self.socket.accept()
        connection.settimeout(LONG)
        with connection:
            data = b""
            while b"\r\n\r\n" not in data:
                data += connection.recv(65536)
            head, _, body = data.partition(b"\r\n\r\n")
            length = next((int(line.split(b":")[1]) for line in head.split(b"\r\n") if line.lower().startswith(b"content-length")), 0)
            while len(body) < length:
                body += connection.recv(65536)
            connection.sendall(b"HTTP/1.1 200 OK\r\nContent-Length: 0\r\nConnection: close\r\n\r\n")
            return head, body


REQUESTS = {
    "plain": b"GET /rsi/7101?who=maid%201 HTTP/1.1\r\nHost: x\r\nUser-Agent: y\r\nAccept: z\r\n\r\n",
    "shell characters in the target": b"GET /" + SHELL.replace(b" ", b"/") + b" HTTP/1.1\r\nHost: x\r\n\r\n",
    "quotes in headers": b"GET / HTTP/1.1\r\nHost: x\r\nX: ';touch hacked;'$(touch hacked)`touch hacked`\"\\!\r\n\r\n",
    "shell characters in headers": b"GET / HTTP/1.1\r\nHost: x\r\nX: " + SHELL + b"\r\n\r\n",
    "shell characters in a body": b"POST / HTTP/1.1\r\nHost: x\r\nContent-Length: %d\r\n\r\n" % len(SHELL) + SHELL,
    "a body that names a file": b"POST / HTTP/1.1\r\nHost: x\r\nContent-Length: 11\r\n\r\n@/etc/hosts",
    "control bytes in a body": b"POST / HTTP/1.1\r\nHost: x\r\nContent-Length: 9\r\n\r\n\x01\x1b[0m\r\n\x7f\xe9",
    "a header that names a file": b"GET / HTTP/1.1\r\nHost: x\r\n@/etc/hosts: x\r\nX-Kept: 1\r\n\r\n",
    "a method that is a switch": b"-o/tmp/hacked / HTTP/1.1\r\nHost: x\r\n\r\n",
    "dots in the path": b"GET /a/../b/./{x,y}[1-3]#frag HTTP/1.1\r\nHost: x\r\n\r\n",
    "an empty header": b"GET / HTTP/1.1\r\nHost: x\r\nX-Empty:\r\n\r\n",
    "another host": b"GET http://other.example/x HTTP/1.1\r\nHost: other.example\r\n\r\n",
}


@pytest.mark.parametrize("name", REQUESTS)
def test_the_copied_curl_command_sends_the_request_again_and_nothing_else(page, view, tmp_path, name):
    request = REQUESTS[name]
    recorder = Recorder()
    page.choose(view.exchange(request, own=f"127.0.0.1:{recorder.port}"))
    page.click("#copy-curl")
    page.until(lambda: page.copied().startswith("curl "))
    command = page.copied()
    assert "-H @" not in command and "-H '@" not in command, "curl would read a file"
    assert command.isprintable() and command.isascii(), "one line, and nothing that a terminal takes for a key"
    got = []
    recording = threading.Thread(target=lambda: got.append(recorder.record()), daemon=True)
    recording.start()
    done = subprocess.run(["bash", "-c", command], cwd=tmp_path, capture_output=True, timeout=LONG, check=False)
    assert done.returncode == 0, (command, done.stderr)
    recording.join(LONG)
    recorder.socket.close()
    assert list(tmp_path.iterdir()) == [], "nothing was run or written"
    head, _, body = request.partition(b"\r\n\r\n")
    sent_head, sent_body = got[0]
    lines, sent_lines = head.split(b"\r\n"), sent_head.split(b"\r\n")
    assert sent_lines[0] == lines[0]
    assert sent_body == body
    wanted = sorted(line for line in lines[1:] if not line.startswith((b"@", b"Content-Length")))
    assert sorted(line for line in sent_lines[1:] if not line.startswith(b"Content-Length")) == wanted


@pytest.mark.parametrize("shell", ["sh", "bash"])
def test_no_shell_finds_an_order_in_what_is_copied(page, view, tmp_path, shell):
    """Also one that does not know the quotes of bash, such as dash: it may send other bytes, but it runs nothing."""
    for request in REQUESTS.values():
        page.choose(view.exchange(request, own="127.0.0.1:1"))
        page.until(lambda: page.all("#copy-curl"))
        page.click("#copy-curl")
        page.until(lambda: page.copied().startswith("curl "))
        subprocess.run([shell, "-c", page.copied().replace("curl", "true", 1)], cwd=tmp_path, timeout=LONG, check=True, capture_output=True)
    assert list(tmp_path.iterdir()) == []


def test_bytes_are_copied_as_text_or_in_hexadecimal(page, view):
    page.choose(view.exchange("GET /é HTTP/1.1\r\n\r\n".encode()))
    page.click("#copy-bytes")
    page.until(lambda: page.copied().replace("\r\n", "\n") == "GET /é HTTP/1.1\n\n")
    page.choose(view.exchange(b"\x00\xff<b>"))
    page.until(lambda: "5 bytes received" in page.text("h2"))
    page.click("#copy-bytes")
    page.until(lambda: page.copied() == "00 ff 3c 62 3e")
