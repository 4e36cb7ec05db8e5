"""What the live page shows, and how it is used."""

import struct
import zlib

import pytest
from conftest import SLOWNESS, By, Keys
from selenium.webdriver import ActionChains

JSON = b'{"room":{"number":12345678901234567890,"tags":[],"name":"\xc3\xa9t\xc3\xa9"}}'


def post(body, kind=b"application/json", target=b"/rsi/7101?who=maid%201", headers=b""):
    return (b"POST %s HTTP/1.1\r\nHost: 10.0.0.2:8080\r\n%sContent-Type: %s\r\nContent-Length: %d\r\n\r\n%s"
            % (target, headers, kind, len(body), body))


def test_an_empty_page_says_what_to_do(page, view):
    assert "Nothing has come yet." in page.text("#empty")
    assert page.text(".try code") == "curl -d 'hello' http://127.0.0.1:8080/"
    page.click(".try button")
    page.until(lambda: page.copied() == "curl -d 'hello' http://127.0.0.1:8080/")
    assert page.text("#about") == "HTTP on port 8080"


def test_a_request_is_listed_and_shown_as_it_came(page, view):
    one = view.exchange(post(JSON, headers=b"X-Folded: one\r\n\ttwo\r\nX-Word: =?UTF-8?Q?a?=\r\n"))
    page.choose(one)
    assert page.rows() == ["POST /rsi/7101?who=maid%201"]
    assert page.text("#row-1 .peer") == "10.0.0.7:40000"
    assert page.text("#row-1 .state") == "closed"
    assert page.text("h2") == "POST /rsi/7101?who=maid%201"
    assert page.table("Query") == [["who", "maid 1"]]
    assert page.table("Headers")[:3] == [["Host", "10.0.0.2:8080"], ["X-Folded", "oneCRLF\nHTtwo"], ["X-Word", "=?UTF-8?Q?a?="]]
    assert page.text(".body pre") == ('{\n  "room": {\n    "number": 12345678901234567890,\n    "tags": [],\n'
                                      '    "name": "été"\n  }\n}')
    page.click("#body-came")
    assert page.text(".body pre") == JSON.decode()
    page.tab("answer")
    assert page.table("Headers") == [["Connection", "Close"]]
    assert page.complaints() == []


def test_bodies_are_made_easy_to_read(page, view):
    xml = view.exchange(post(b"<a x='1'><b>text</b><c/><d></d></a>", b"text/xml"))
    form = view.exchange(post(b"room=7101&name=Orvin+T%2E&empty=", b"application/x-www-form-urlencoded"))
    text = view.exchange(post(b"line one\r\nline two\tend\x07", b"text/plain"))
    page.choose(xml)
    assert page.text(".body pre") == "<a x='1'>\n  <b>text</b>\n  <c/>\n  <d></d>\n</a>"
    page.choose(form)
    page.until(lambda: page.table("Form") == [["room", "7101"], ["name", "Orvin T."], ["empty", ""]])
    page.choose(text)
    page.until(lambda: page.text(".body pre") == "line one\nline two\tendBEL")


def png(red, green, blue):
    def chunk(name, data):
        return struct.pack(">I", len(data)) + name + data + struct.pack(">I", zlib.crc32(name + data))
    return (b"\x89PNG\r\n\x1a\n" + chunk(b"IHDR", struct.pack(">IIBBBBB", 1, 1, 8, 2, 0, 0, 0))
            + chunk(b"IDAT", zlib.compress(bytes([0, red, green, blue]))) + chunk(b"IEND", b""))


def test_an_image_is_shown_as_an_image(page, view):
    page.choose(view.exchange(post(png(200, 30, 10), b"image/png")))
    page.until(lambda: page.all(".picture canvas"))
    assert page.run("return [...document.querySelector('.picture canvas').getContext('2d').getImageData(0, 0, 1, 1).data]"
                    ) == [200, 30, 10, 255]
    page.choose(view.exchange(post(b"not at all", b"image/png")))
    page.until(lambda: "no image" in page.text(".picture"))


def test_a_chunked_body_is_shown_as_it_is_meant_and_as_it_came(page, view):
    page.choose(view.exchange(b"POST / HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n5\r\nhello\r\n6\r\n world\r\n0\r\n\r\n"))
    assert page.text(".body pre") == "hello world"
    assert "11 bytes in chunks" in page.text(".body-head")
    page.tab("wire")
    assert "5CRLF\nhelloCRLF\n6CRLF\n worldCRLF\n0CRLF\nCRLF\n" in page.text(".transcript li pre")


def test_what_went_wrong_is_named(page, view):
    short = view.exchange(b"POST /s HTTP/1.1\r\nContent-Length: 400\r\n\r\nhello", b"", "peer")
    broken = view.exchange(b"POST /b HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\nzz\r\n")
    tls = view.exchange(b"\x16\x03\x01\x02\x00\x01\x00\x01\xfc\x03\x03", b"HTTP/1.1 400 Bad Request\r\n\r\n")
    refused = view.exchange(b"hello\r\n\r\n", b"HTTP/1.1 400 Bad Request\r\n\r\n")
    silent = view.exchange(b"", b"", "peer")
    reset = view.exchange(b"GET /r HTTP/1.1\r\n\r\n", b"", "reset")
    after = view.exchange(b"GET /a HTTP/1.1\r\n\r\nEXTRA")
    waiting = view.open()

    def notice(connection):
        page.choose(connection)
        page.until(lambda: page.text("#detail .facts") and page.run(
            "return document.querySelector('#row-' + arguments[0])?.getAttribute('aria-selected')", connection) == "true")
        return connection

    for connection, row, state, said in (
            (short, "POST /s", "cut short", "shorter than announced: 5 of 400 bytes"),
            (broken, "POST /b", "bad chunks", "its chunks are none"),
            (tls, "TLS hello on a plain port", "refused", "speaks TLS"),
            (refused, "helloCRLFCRLF", "refused", "no request that an HTTP server takes. It was answered 400 Bad Request."),
            (silent, "nothing came", "closed", "left without a word"),
            (reset, "GET /r", "reset", ""),
            (after, "GET /a", "closed", "5 bytes came after the end of the request."),
            (waiting, "nothing yet", "open", "says nothing")):
        notice(connection)
        page.until(lambda said=said: said in "".join(page.texts(".notice")), said)
        assert page.text(f"#row-{connection} .what") == row
        assert page.text(f"#row-{connection} .state") == state
    assert page.complaints() == []


def test_a_raw_transcript_has_each_piece_and_names_for_control_bytes(page, raw_view):
    one = raw_view.open(peer="10.0.0.5:50001")
    other = raw_view.open(peer="10.0.0.6:50002")
    raw_view.received(one, b"\x02ROOM 71")
    raw_view.received(other, b"STATUS ")
    raw_view.received(one, b"01 CLEAN\r\n\x03\xff\x00")
    raw_view.received(other, b"1 OK")
    page.choose(one)
    page.until(lambda: page.texts(".transcript pre") == ["STXROOM 71", "01 CLEANCRLF\nETXFFNUL"])
    page.choose(other)
    page.until(lambda: page.texts(".transcript pre") == ["STATUS ", "1 OK"])
    raw_view.received(other, b"more")
    page.until(lambda: page.texts(".transcript pre") == ["STATUS ", "1 OK", "more"])
    page.choose(one)
    page.until(lambda: page.text("#detail .facts").count("10.0.0.5:50001"))
    page.tab("hex")
    page.until(lambda: page.texts(".hex pre") == ["00000000\n00000008\n00000010", "02 52 4f 4f 4d 20 37 31\n30 31 20 43 4c 45 41 4e\n0d 0a 03 ff 00",
                                                  "·ROOM 71\n01 CLEAN\n·····"])
    assert not page.seen("#har")


def test_the_filter_finds_text_in_all_that_went_over_the_wire(page, view):
    view.exchange(b"GET /alpha HTTP/1.1\r\nX-One: needle-in-header\r\n\r\n")
    view.exchange(post(b"x" * 5000 + b"Needle-In-Body"))
    view.exchange(b"GET /beta HTTP/1.1\r\n\r\n", peer="10.9.8.7:1234")
    page.until(lambda: len(page.rows()) == 3)
    page.press("/")
    for text, rows in (("ALPHA", 1), ("needle-in-header", 1), ("needle-in-body", 1), ("NEEDLE-", 2), ("10.9.8.7", 1), ("none of it", 0)):
        page.press(Keys.ESCAPE, "/")
        page.press(text)
        page.until(lambda rows=rows: page.text("#counts").startswith(f"{rows} of 3 shown") and len(page.rows()) == rows, text)
    assert "Nothing that came matches" in page.text("#empty")
    page.press(Keys.ESCAPE, "/", )
    page.press("late-one")
    view.exchange(b"GET / HTTP/1.1\r\nX: late-one\r\n\r\n")
    page.until(lambda: page.text("#counts").startswith("1 of 4 shown"))
    page.press(Keys.ESCAPE)
    page.until(lambda: len(page.rows()) == 4)


def test_everything_is_done_by_the_keyboard(page, view):
    for number in range(40):
        view.exchange(b"GET /%d HTTP/1.1\r\n\r\n" % number)
    page.until(lambda: page.text("#counts").startswith("40 seen"))
    chosen = lambda: page.text("[aria-selected=true] .what")
    page.click("#rows")  # a row, which has the focus go to the list
    for keys, row in ((Keys.END, "GET /39"), (Keys.ARROW_UP, "GET /38"), (Keys.HOME, "GET /0"), (Keys.ARROW_DOWN, "GET /1"),
                      (Keys.ARROW_DOWN, "GET /2")):
        page.press(keys)
        page.until(lambda row=row: chosen() == row, row)
        page.until(lambda row=row: page.text("h2") == row, row)
        active = page.run("return document.activeElement.getAttribute('aria-activedescendant')")
        assert page.text(f"#{active} .what") == row
    page.press(Keys.ENTER)
    assert page.run("return document.activeElement.id") == "tab-message"
    page.press(Keys.ARROW_RIGHT)
    assert page.run("return document.activeElement.id") == "tab-answer"
    page.press(Keys.ESCAPE)
    page.until(lambda: not chosen())
    assert page.run("return document.activeElement.id") == "rows"
    page.press(" ")
    assert page.text("#live-text") == "Paused"
    page.press(" ")
    assert page.text("#live-text") == "Live"


def test_what_is_chosen_stays_chosen_while_the_list_grows(page, view):
    one = view.exchange(b"GET /first HTTP/1.1\r\n\r\n")
    page.choose(one)
    for number in range(300):
        view.exchange(b"GET /%d HTTP/1.1\r\n\r\n" % number)
    page.until(lambda: page.text("#counts").startswith("301 seen"))
    assert page.text("h2") == "GET /first"
    page.click("#rows")
    page.press(Keys.HOME)
    page.until(lambda: page.text("[aria-selected=true] .what") == "GET /first")
    top = page.run("return document.getElementById('rows').scrollTop")
    view.exchange(b"GET /newest HTTP/1.1\r\n\r\n")
    page.until(lambda: page.text("#counts").startswith("302 seen"))
    assert page.run("return document.getElementById('rows').scrollTop") == top
    page.click("#newest")
    page.until(lambda: "GET /newest" in page.rows())


def test_a_paused_list_stands_still_and_counts_what_comes(page, view):
    view.exchange(b"GET /before HTTP/1.1\r\n\r\n")
    page.until(lambda: page.rows() == ["GET /before"])
    page.click("#pause")
    view.exchange(b"GET /meanwhile HTTP/1.1\r\n\r\n")
    page.until(lambda: page.text("#pause") == "Resume, 1 new")
    assert page.rows() == ["GET /before"]
    page.click("#pause")
    page.until(lambda: page.rows() == ["GET /before", "GET /meanwhile"])


def test_clearing_is_for_this_browser_alone(page, view):
    view.exchange(b"GET /before HTTP/1.1\r\n\r\n")
    page.until(lambda: page.rows() == ["GET /before"])
    page.click("#clear")
    page.until(lambda: page.rows() == [])
    view.exchange(b"GET /after HTTP/1.1\r\n\r\n")
    page.until(lambda: page.rows() == ["GET /after"])
    assert len(view.json("/har")["log"]["entries"]) == 2
    page.open(view.port)
    page.until(lambda: page.rows() == ["GET /before", "GET /after"])


def test_a_lost_connection_is_said_and_taken_up_again(page, views, request):
    first = views()
    page.open(first.port)
    first.exchange(b"GET /first HTTP/1.1\r\n\r\n")
    page.until(lambda: page.rows() == ["GET /first"])
    first.process.kill()
    first.process.wait()
    page.until(lambda: page.text("#live-text") == "Connection lost, trying again")
    second = views(port=first.port)
    second.exchange(b"GET /second HTTP/1.1\r\n\r\n")
    page.until(lambda: page.rows() == ["GET /second"], "the new run's connections alone")
    assert page.text("#live-text") == "Live"


def test_the_title_counts_what_has_come(page, view):
    assert page.driver.title == "keltop 8080"
    for _ in range(3):
        view.exchange(b"GET / HTTP/1.1\r\n\r\n")
    page.until(lambda: page.driver.title == "(3) keltop 8080")


def test_a_late_browser_gets_everything(page, views):
    made = views()
    for number in range(700):
        made.exchange(b"GET /%d HTTP/1.1\r\n\r\n" % number)
    made.wait_for(700)
    page.open(made.port)
    page.until(lambda: page.text("#counts").startswith("700 seen"))
    assert page.rows()[-1] == "GET /699"


def test_ten_thousand_rows_are_in_the_list_and_few_in_the_document(page, view):
    for number in range(10_050):
        view.exchange(b"GET /%d HTTP/1.1\r\n\r\n" % number)
    page.until(lambda: page.text("#counts").startswith("10,050 seen") and page.rows()[-1] == "GET /10049")
    assert "dropped 50 connections" in page.text("#counts")
    page.until(lambda: page.all("[role=option]")[-1].get_attribute("aria-setsize") == "10000")
    assert len(page.all("[role=option]")) < 100
    page.click("#rows")
    page.press(Keys.HOME)
    page.until(lambda: page.text("[aria-selected=true] .what") == "GET /50")
    # Every frame draws all that is seen anew, and takes hardly longer than one that draws nothing: the usual frame, as the
    # machine may be busy with something else in some of them.
    script = """
        const [scrolls, done] = arguments, rows = document.getElementById('rows'), frames = [];
        let last = performance.now();
        const step = (now) => {
          frames.push(now - last);
          last = now;
          if (scrolls) { rows.scrollTop = frames.length * 4000; }
          frames.length < 60 ? requestAnimationFrame(step) : done(frames.sort((a, b) => a - b)[30]);
        };
        requestAnimationFrame(step);"""
    still = page.driver.execute_async_script(script, False)
    assert page.driver.execute_async_script(script, True) < 3 * still + 50 * SLOWNESS


def test_a_click_on_the_time_line_chooses(page, view):
    view.exchange(b"GET /only HTTP/1.1\r\n\r\n")
    page.until(lambda: page.rows() == ["GET /only"])
    page.click("[data-width='30']")
    at = page.run("""
        const canvas = document.querySelector('#strip canvas');
        const ratio = canvas.width / canvas.clientWidth;
        const data = canvas.getContext('2d').getImageData(0, 0, canvas.width, canvas.height).data;
        // From the left: the line of the present, which moves on, stands right of the bar.
        for (let x = 0; x < canvas.width; x += 1) {
          for (let y = Math.round(22 * ratio); y < canvas.height - 20 * ratio; y += 1) {
            if (data[(y * canvas.width + x) * 4 + 3] > 200) {
              return [x / ratio - canvas.clientWidth / 2, y / ratio - canvas.clientHeight / 2];
            }
          }
        }""")
    canvas = page.driver.find_element(By.CSS_SELECTOR, "#strip canvas")
    ActionChains(page.driver).move_to_element_with_offset(canvas, round(at[0]) + 1, round(at[1])).click().perform()
    page.until(lambda: page.text("h2") == "GET /only")


@pytest.mark.parametrize("width, height", [(360, 640), (768, 1024), (1280, 800), (3840, 2160)])
def test_nothing_is_cut_off_at_any_width(page, view, width, height):
    view.exchange(post(JSON, target=b"/" + b"long" * 200, headers=b"X-Long: " + b"value" * 200 + b"\r\n"))
    page.size(width, height)
    page.choose(1)
    assert page.run("return document.documentElement.scrollWidth") <= width
    assert page.run("const one = document.getElementById('detail'); return one.scrollWidth - one.clientWidth") <= 0
    outside = page.run("""
        return [...document.querySelectorAll('button, a, input, [role=tab]')].filter((one) => one.checkVisibility())
          .filter((one) => { const at = one.getBoundingClientRect(); return at.left < 0 || at.right > innerWidth; })
          .map((one) => one.outerHTML);""")
    assert outside == []
