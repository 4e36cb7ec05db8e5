"""A post of one keltop to the listener of another, seen on both consoles."""

import re

from conftest import eventually
from peers import JSON_BODY, exchange_of, masked

HEAD = b"Date: DATE-TIME\r\nUser-Agent: Vantrel/8.0.26 RSI/201\r\nContent-Length: 285\r\nContent-Type: application/json\r\n"


def test_http(keltop):
    listener, port = keltop.listen()
    console = masked(exchange_of(keltop.run("-rsi", "json", "-url", f"http://127.0.0.1:{port}/rsi?x=1")))
    request = b"Sending request\nPOST /rsi/ HTTP/1.1\r\n" + HEAD + b"\r\n" + JSON_BODY
    assert console.startswith(request + b"\r\nReceived response\nHTTP/1.1 OK 200\r\n")
    assert console.endswith(b"\r\nLocation: 127.0.0.1:%d\r\n\r\n\r\n" % port)
    listener.wait_for(b"\r\n\r\n\n")
    assert listener.interrupt() == 0
    shown = masked(listener.output)
    assert b"\n  Path: /rsi/\n  Query: \n\r\nRequest:\nPOST /rsi/ HTTP/1.1\n" in shown
    assert HEAD.replace(b"\r\n", b"\n") in shown and b"\n\n" + JSON_BODY + b"\n" in shown


def test_raw(keltop):
    listener, port = keltop.listen("-raw")
    console = exchange_of(keltop.run("-rsi", "json", "-raw", "-url", f"http://127.0.0.1:{port}/rsi"))
    request = (b"POST /rsi HTTP/1:1\r\nContent-Type: application/json\r\nAgent: Vantrel/8.0.26 RSI/201\r\n"
               b"Content-Length: 285\r\n\r\n" + JSON_BODY)
    assert masked(console) == (b"Post(1025) 127.0.0.1 %d\nPosting:\r\n" % port + request +
                               b"\nPost(1103) Timeout: Timeout\n")
    listener.wait_for(b"\r\nDisconnect from ")
    eventually(lambda: re.search(rb"Disconnect from [\d.:]+\n", listener.output), what="the whole line")
    assert listener.interrupt() == 0
    assert request in masked(listener.output)
