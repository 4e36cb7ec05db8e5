"""Runs a post in a network of its own whose way to the peer gets lost, and ends as the post does.

Started by the tests in a new network namespace: lost_network.py HOW COMMAND...

HOW is "silence" (what the program sends is swallowed, and nobody says so) or a kind of route, "unreachable" or
"prohibit", that takes the place of the way to the peer once the request is out. For a route the program is held where
it is about to receive, until the system has given the connection up, as on a machine that is too busy to run it.
"""

import ctypes
import os
import platform
import socket
import struct
import subprocess
import sys
import time

PEER = "127.0.0.2"
SO_ATTACH_FILTER = 26
ESTABLISHED = "01"
TRACE_ME, TRACE_SYSTEM_CALLS, TRACE_NO_MORE = 0, 24, 17
RECEIVE = {"x86_64": "45", "aarch64": "207"}.get(platform.machine())  # the system call's number

# Takes segments of at most 100 bytes, so that a connection comes about, and swallows longer ones.
SHORT_ONLY = struct.pack("=" + "HBBI" * 4,
                         0x80, 0, 0, 0,            # load the length
                         0x25, 0, 1, 100,          # longer than 100?
                         0x06, 0, 0, 0,            # swallow
                         0x06, 0, 0, 0xFFFFFFFF)   # take


def listen():
    listening = socket.socket()
    program = ctypes.create_string_buffer(SHORT_ONLY)
    listening.setsockopt(socket.SOL_SOCKET, SO_ATTACH_FILTER, struct.pack("HL", 4, ctypes.addressof(program)))
    # A narrow peer: a long request does not fit into the buffers.
    listening.setsockopt(socket.IPPROTO_TCP, socket.TCP_MAXSEG, 1000)
    listening.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 4096)
    listening.bind((PEER, 0))
    listening.listen(1)
    return listening


def is_connected(port):
    with open("/proc/net/tcp", encoding="ascii") as table:
        fields = [line.split() for line in table]
    return any(line[2].endswith(f":{port:04X}") and line[3] == ESTABLISHED for line in fields)


LIBRARY = ctypes.CDLL(None, use_errno=True)


def trace(request, process):
    if LIBRARY.ptrace(request, process, 0, 0) != 0:
        raise OSError(ctypes.get_errno(), "ptrace")


def run_to_receive(process):
    """Lets the program, which traced itself, run until its main thread is about to receive."""
    while True:
        assert os.WIFSTOPPED(os.waitpid(process, 0)[1]), "it ended without receiving"
        with open(f"/proc/{process}/syscall", encoding="ascii") as call:
            if call.read().split()[0] == RECEIVE:
                return
        trace(TRACE_SYSTEM_CALLS, process)


def run_without_a_way_back(command, port, kind):
    process = subprocess.Popen(command, stdin=subprocess.DEVNULL, preexec_fn=lambda: trace(TRACE_ME, 0))
    run_to_receive(process.pid)
    assert is_connected(port)
    subprocess.run(["ip", "route", "add", kind, PEER, "table", "local"], check=True)
    while is_connected(port):
        time.sleep(0.01)
    trace(TRACE_NO_MORE, process.pid)
    return process.wait()


def main(how, *command):
    subprocess.run(["ip", "link", "set", "lo", "up"], check=True)
    with open("/proc/sys/net/ipv4/tcp_retries2", "w", encoding="ascii") as retries:
        retries.write("3")  # given up after some seconds instead of a quarter of an hour
    if not command:
        return os.EX_OK  # it was a trial whether all this is allowed
    with listen() as listening:
        port = listening.getsockname()[1]
        command = [*command, "-url", f"http://{PEER}:{port}/"]
        if how != "silence":
            return run_without_a_way_back(command, port, how)
        return subprocess.run(command, stdin=subprocess.DEVNULL, check=False).returncode


if __name__ == "__main__":
    sys.exit(main(*sys.argv[1:]))
