"""What the posts' payloads hold, and that docs/payloads.md tells the same."""

import datetime
import json
import pathlib
import re
import shlex
import xml.etree.ElementTree
import zoneinfo

import pytest

from conftest import windows_cannot
from peers import Peer, answering, exchange_of

PROLOG = b'<?xml version="1.0" encoding="ISO-8859-1"?>\r\n'
ANSWER = b"HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n"
PAGE = pathlib.Path(__file__).parents[2] / "docs" / "payloads.md"


def payload(keltop, *switches, **options):
    """What a peer receives as the body."""
    with Peer(answering(ANSWER)) as peer:
        exchange_of(keltop.run(*switches, "-url", f"http://127.0.0.1:{peer.port}/", **options))
    return peer.request.split(b"\r\n\r\n", 1)[1]


def at_page_time(body):
    """Puts the page's example of a date and a time in."""
    body = re.sub(rb'(date="|"date": ")\d{8}"', rb'\g<1>20240115"', body)
    return re.sub(rb'(time="|"time": ")\d\d:\d\d:\d\d"', rb'\g<1>14:05:09"', body)


def flat(value, path=""):
    """Each value of a JSON or XML document by its path."""
    if isinstance(value, dict):
        return {key: text for name, inner in value.items() for key, text in flat(inner, f"{path}/{name}").items()}
    if isinstance(value, xml.etree.ElementTree.Element):
        found = {f"{path}/@{name}": text for name, text in value.attrib.items()}
        for child in value:
            found |= flat(child, f"{path}/{child.tag}")
        return found if found else {path: value.text}
    return {path: value}


def document(body):
    """A payload as its values by path."""
    if body.startswith(b"{"):
        return flat(json.loads(body))
    assert body.startswith(PROLOG)
    root = xml.etree.ElementTree.fromstring(body.removesuffix(b"\r\n").removesuffix(b"</xml>"))
    return flat(root, f"/{root.tag}")


@pytest.mark.parametrize("word", ["json", "JSON", "Json"])
def test_words_for_json(keltop, word):
    body = payload(keltop, "-rsi", word)
    assert body.startswith(b'{\n  "room_status": {\n') and body.endswith(b"\n}")


@pytest.mark.parametrize("post", ["-rsi", "-isi"])
@pytest.mark.parametrize("word", ["xml", "XML", "Xml"])
def test_words_for_xml(keltop, post, word):
    body = payload(keltop, post, word)
    assert body.startswith(PROLOG) and body.endswith((b"</room_status>\n\r\n", b"</inventory>\n\r\n"))


@pytest.mark.parametrize("post", ["-rsi", "-isi"])
@pytest.mark.parametrize("word", ["jazz", "form", "FORM", "foo", "json2", " xml", ""])
def test_every_other_word_is_jazz(keltop, post, word):
    body = payload(keltop, post, word)
    assert body.startswith(PROLOG) and body.endswith((b"</room_status>\n</xml>\r\n", b"</inventory>\n</xml>\r\n"))


def test_rsi_comes_before_isi(keltop):
    assert b"<room_status>" in payload(keltop, "-isi", "json", "-rsi", "xml")


@pytest.mark.parametrize("word", ["json", "xml"])
@pytest.mark.parametrize("post", ["-rsi", "-isi"])
def test_empty_values_keep_the_defaults(keltop, post, word):
    empty = [text for name in ("room", "fname", "lname", "id", "code", "item", "count", "category")
             for text in (f"-{name}", "")]
    defaults = at_page_time(payload(keltop, post, word))
    assert at_page_time(payload(keltop, post, word, *empty)) == defaults


@pytest.mark.parametrize("value, number", [
    ("abc", 0), ("12x", 12), (" 7", 7), ("+7", 7), ("0x10", 0), ("~-3", -3), ("2147483647", 2147483647),
    ("99999999999", 2147483647), ("~-99999999999", -2147483648), ("1e3", 1), ("010", 10),
])
@pytest.mark.parametrize("post, name, in_json, in_xml", [
    ("-rsi", "id", "/room_status/room/user/id", "/room_status/room/user/@id"),
    ("-rsi", "code", "/room_status/room/code", "/room_status/room/status/@code"),
    ("-isi", "count", "/inventory/room/quantity", "/inventory/room/item/@quantity"),
])
def test_numbers_are_read_as_far_as_they_go(keltop, post, name, in_json, in_xml, value, number):
    # The switch character "~" takes a value that begins as a switch does.
    switch = [f"~{name}", value[1:]] if value.startswith("~") else [f"-{name}", value]
    assert document(payload(keltop, post, "json", *switch))[in_json] == number
    assert document(payload(keltop, post, "xml", *switch))[in_xml] == str(number)


def test_the_date_and_time_are_local_and_of_one_instant(keltop):
    zone = datetime.timezone(datetime.timedelta(hours=9))
    before = datetime.datetime.now(zone).replace(microsecond=0)
    values = document(payload(keltop, "-rsi", "xml", env={**keltop.env, "TZ": "XYZ-9"}))
    after = datetime.datetime.now(zone)
    told = datetime.datetime.strptime(values["/room_status/room/@date"] + values["/room_status/room/@time"],
                                      "%Y%m%d%H:%M:%S").replace(tzinfo=zone)
    assert before <= told <= after


# Zones with a summer time of half an hour, of two hours, of less than nothing; whose standard time is the summer's; with
# odd differences.
@windows_cannot("zones have other names there")
@pytest.mark.parametrize("name", ["Europe/Dublin", "Australia/Lord_Howe", "Africa/Casablanca", "Antarctica/Troll",
                                  "Asia/Kathmandu", "America/St_Johns", "Pacific/Chatham"])
def test_the_date_and_time_are_those_of_the_zone(keltop, name):
    zone = zoneinfo.ZoneInfo(name)
    before = datetime.datetime.now(zone).replace(microsecond=0, tzinfo=None)
    values = document(payload(keltop, "-isi", "xml", env={**keltop.env, "TZ": name}))
    after = datetime.datetime.now(zone).replace(tzinfo=None)
    told = datetime.datetime.strptime(values["/inventory/room/@date"] + values["/inventory/room/@time"],
                                      "%Y%m%d%H:%M:%S")
    assert before <= told <= after


def test_the_description_is_there_once(keltop):
    assert payload(keltop, "-rsi", "json").count(b'"description"') == 1
    assert payload(keltop, "-isi", "json").count(b'"description"') == 1


@pytest.mark.parametrize("post, word, switches", [
    ("-rsi", "json", ["-description", "text"]), ("-rsi", "xml", ["-description", "text"]),
    ("-rsi", "json", ["-item", "5", "-count", "5", "-category", "5"]),
    ("-rsi", "xml", ["-item", "5", "-count", "5", "-category", "5"]),
    ("-isi", "json", ["-code", "5"]), ("-isi", "xml", ["-code", "5"]), ("-isi", "json", ["-category", "7"]),
])
def test_switches_that_change_nothing(keltop, post, word, switches):
    assert at_page_time(payload(keltop, post, word, *switches)) == at_page_time(payload(keltop, post, word))


ENTITIES = {b"&": b"&amp;", b"<": b"&lt;", b">": b"&gt;", b'"': b"&quot;", b"'": b"&apos;"}
CONTROLS = bytes(range(1, 32)) + b"\x7f"
CONTROLS_IN_JSON = (b"\\u0001\\u0002\\u0003\\u0004\\u0005\\u0006\\u0007\\b\\t\\n\\u000B\\f\\r\\u000E\\u000F\\u0010\\u0011"
                    b"\\u0012\\u0013\\u0014\\u0015\\u0016\\u0017\\u0018\\u0019\\u001A\\u001B\\u001C\\u001D\\u001E\\u001F\x7f")
# The value as it is typed, as the JSON document has it, and as the XML document has it.
VALUES = {
    "ampersand": (b"7&1", b"7&1", b"7&amp;1"),
    "reserved": (b"<'\"&>", b"<'\\\"&>", b"&lt;&apos;&quot;&amp;&gt;"),
    "slashes": (b"a/b\\c", b"a/b\\\\c", b"a/b\\c"),
    "controls": (CONTROLS, CONTROLS_IN_JSON, CONTROLS),
    "UTF-8": ("caf\u00e9 \u20ac \U0001f600".encode(),) * 3,
    # Bytes that are not UTF-8 go out as they are: the JSON document is then none that every reader takes.
    "Latin-1": (b"caf\xe9",) * 3,
    "Latin-1 before a reserved character": (b"\xe9\"\"\"", b"\xe9\\\"\\\"\\\"", b"\xe9\"\"&quot;"),
    "not UTF-8": (b"\x80\xff\xc0&\xf4", b"\x80\xff\xc0&\xf4", b"\x80\xff\xc0&amp;\xf4"),
    "64 KB": (b"x" * 65536,) * 3,
    "64 KB of quotes": (b'"' * 65536, b'\\"' * 65536, b"&quot;" * 65536),
}


@pytest.mark.parametrize("name", VALUES)
@pytest.mark.parametrize("post", [b"-rsi", b"-isi"])
def test_values_of_every_kind(keltop, post, name):
    if keltop.windows and (name.startswith("64 KB") or not VALUES[name][0].isascii()):
        pytest.skip("a command line there has at most 32,767 characters, of the system's code page")
    typed, in_json, in_xml = VALUES[name]
    switches = [b"-room", typed, b"-fname", typed]
    body = payload(keltop, post, b"json", *switches)
    assert b'"room": "' + in_json + b'",\n' in body and b'"fname": "' + in_json + b'",\n' in body
    body = payload(keltop, post, b"xml", *switches)
    assert b' number="' + in_xml + b'" date="' in body and b"<fname>" + in_xml + b"</fname>\n" in body


def page_examples():
    """The page's examples: the switches of the command, and the payload below it."""
    return [(shlex.split(command), block) for command, block in
            re.findall(r"`keltop ([^`]*)`[^`]*```\w*\n(.*?)\n```", PAGE.read_text(encoding="utf-8"), re.DOTALL)]


def page_switches():
    """The rows of the page's tables: the post, the switch, and the places that it changes in each form."""
    rows = re.findall(r"^\| `-(rsi|isi)` \| `-(\w+)` \| ([^|]*) \| ([^|]*) \| [^|]* \|$", PAGE.read_text(encoding="utf-8"),
                      re.MULTILINE)
    return [(post, switch, set(re.findall(r"`([^`]+)`", in_json)), set(re.findall(r"`([^`]+)`", in_xml)))
            for post, switch, in_json, in_xml in rows]


def test_the_page_shows_both_posts_in_every_protocol():
    shown = {tuple(switches[:2]) for switches, _ in page_examples()}
    assert shown >= {(post, word) for post in ("-rsi", "-isi") for word in ("json", "xml", "jazz")}


@pytest.mark.parametrize("switches, block", page_examples(), ids=[" ".join(example[0]) for example in page_examples()])
def test_the_pages_examples_are_what_the_program_sends(keltop, switches, block):
    body = at_page_time(payload(keltop, *switches)).decode()
    # The page shows a carriage return as a symbol; it cannot show whether the last line is ended.
    assert block == body.replace("\r", "\u240d").removesuffix("\n")


def test_the_page_lists_every_switch():
    listed = {(post, switch) for post, switch, _, _ in page_switches()}
    common = {"room", "fname", "lname", "id", "code"}
    assert listed == ({("rsi", name) for name in common | {"description"}} |
                      {("isi", name) for name in common | {"item", "count", "category"}})


@pytest.mark.parametrize("post, switch, in_json, in_xml", page_switches())
def test_each_switch_changes_what_the_page_says(keltop, post, switch, in_json, in_xml):
    for word, places in (("json", in_json), ("xml", in_xml)):
        defaults = document(at_page_time(payload(keltop, f"-{post}", word)))
        changed = document(at_page_time(payload(keltop, f"-{post}", word, f"-{switch}", "4711")))
        assert set(defaults) == set(changed)
        assert {path for path in defaults if defaults[path] != changed[path]} == places
        assert all(str(changed[path]) == "4711" for path in places)
