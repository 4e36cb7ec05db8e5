"""pictures.py KELTOP FOLDER: pictures of the live page from a real run, into the folder.

The traffic is a morning's work beside two servers, made shorter: posts of rooms and items, a probe, and what goes wrong
when devices are set up.
"""

import contextlib
import pathlib
import random
import re
import socket
import ssl
import sys
import tempfile
import time

from conftest import Page, chromium, process

ROOM = b"""<?xml version="1.0" encoding="ISO-8859-1"?><room_status><room number="%d" date="20261120" status="1">\
<status code="1" description="Coffee"/><user id="1000"><fname>Orvin</fname><lname>Talbeck</lname></user></room></room_status>"""
ITEM = b'{"inventory":{"room":"%d","item":{"id":100,"description":"Coffee","quantity":2},"user":{"id":1000,"lname":"Talbeck"}}}'


def send(port, data, answered=True, pause=0.0):
    with socket.create_connection(("127.0.0.1", port), process.LONG) as peer:
        head, end, body = data.partition(b"\r\n\r\n")
        peer.sendall(head + end)
        time.sleep(pause)
        peer.sendall(body)
        if answered:
            with contextlib.suppress(OSError):
                while peer.recv(4096):
                    pass


def post(port, target, kind, body, pause=0.0):
    send(port, b"POST %s HTTP/1.1\r\nHost: hotel.example:8080\r\nUser-Agent: Frontdesk/4.2\r\nTenant: 12\r\nContent-Type: %s\r\n"
         b"Content-Length: %d\r\n\r\n%s" % (target, kind, len(body), body), pause=pause)


def wrong(port, number):
    """Something of what goes wrong."""
    if number % 4 == 0:
        send(port, b"hello\r\n\r\n")
    elif number % 4 == 1:
        context = ssl.create_default_context()
        context.check_hostname, context.verify_mode = False, ssl.CERT_NONE
        with contextlib.suppress(OSError), socket.create_connection(("127.0.0.1", port), 0.5) as peer:
            context.wrap_socket(peer)
    elif number % 4 == 2:
        send(port, b"POST /isi HTTP/1.1\r\nHost: hotel.example:8080\r\nContent-Length: 320\r\n\r\n<inventory>", answered=False)
    else:
        send(port, b"", answered=False)


def work(port, count, seconds):
    dice = random.Random(7)
    for number in range(count):
        room = 7101 + dice.randrange(40)
        kind = dice.randrange(10)
        if number % 9 == 6:
            wrong(port, number // 9)
        elif kind < 5:
            post(port, b"/rsi/%d?who=maid%%20%d" % (room, dice.randrange(1, 6)), b"text/xml", ROOM % room, dice.random() * seconds)
        elif kind < 8:
            post(port, b"/isi/%d" % room, b"application/json", ITEM % room, dice.random() * seconds)
        else:
            send(port, b"GET /status?room=%d HTTP/1.1\r\nHost: hotel.example:8080\r\nUser-Agent: probe/1.0\r\n\r\n" % room)
        time.sleep(dice.random() * seconds)


def talk(port, peers):
    """Devices that speak at the same time."""
    sockets = [socket.create_connection(("127.0.0.1", port)) for _ in range(peers)]
    for step in range(10):
        for number, peer in enumerate(sockets):
            peer.sendall((b"\x02ROOM %d CLEAN\x03" % (7101 + number), b"STATUS %d OK\r\n" % step, b"\x05")[(step + number) % 3])
            time.sleep(0.03)
    for peer in sockets[::2]:
        peer.close()
    return sockets


def listening(program, *switches):
    """A listener, its port and its page's."""
    running, port = program.listen(*switches, "-view")
    running.wait_for(b"View: ")
    address = process.eventually(lambda: re.search(rb"View: http://127\.0\.0\.1:(\d+)/\r\n\n", running.output))
    return running, port, int(address[1])


def take(page, folder, name):
    time.sleep(0.4)  # what the browser draws in the next frames
    path = folder / f"{name}.png"
    page.driver.save_screenshot(str(path))
    print(path)


def choose_row(page, text):
    """One of the last rows with that text that are in sight."""
    script = """return [...document.querySelectorAll('[role=option]')].filter((row) => row.textContent.includes(arguments[0]))
        .map((row) => Number(row.dataset.id)).sort((a, b) => a - b).at(-3)"""
    page.choose(page.until(lambda: page.run(script, text), text))


def main():
    folder = pathlib.Path(sys.argv[2])
    folder.mkdir(parents=True, exist_ok=True)
    with tempfile.TemporaryDirectory(prefix="keltop-pictures-") as home, chromium() as driver:
        program = process.Keltop(sys.argv[1], home)
        page = Page(driver)
        try:
            _, port, view = listening(program)
            page.size(1280, 800)
            page.theme("light")
            page.open(view)
            take(page, folder, "view-empty")
            page.click("[data-width='30']")
            work(port, 60, 0.5)
            choose_row(page, "/rsi/")
            take(page, folder, "view-http")
            page.theme("dark")
            take(page, folder, "view-http-dark")
            page.size(360, 740)
            take(page, folder, "view-phone")
            _, port, view = listening(program, "-raw")
            page.size(1280, 800)
            page.open(view)
            page.click("[data-width='30']")
            sockets = talk(port, 12)
            choose_row(page, "STATUS")
            take(page, folder, "view-raw")
            for one in sockets:
                one.close()
            _, port, view = listening(program)
            page.theme("light")
            page.open(view)
            for _ in range(5):
                work(port, 1000, 0)
            choose_row(page, "/isi/")
            take(page, folder, "view-many")
        finally:
            program.close()


if __name__ == "__main__":
    main()
