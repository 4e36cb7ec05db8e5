"""What only the Windows build has: the program file, the console system's events, the system's own shutdown event."""

import contextlib
import os
import re
import socket
import subprocess
import threading
import time

import pytest

import wine
from conftest import LONG, eventually, free_port, is_listening
from peers import Peer, read_request

pytestmark = pytest.mark.skipif("not config.getoption('--keltop').endswith('.exe')",
                                reason="about the program for Windows")

CTRL_C, CTRL_BREAK, CLOSED, LOG_OFF, SYSTEM_SHUTDOWN = 0, 1, 2, 5, 6

# What every Windows 10 has in its system folder.
SYSTEM_LIBRARIES = {"advapi32.dll", "bcrypt.dll", "crypt32.dll", "gdi32.dll", "iphlpapi.dll", "kernel32.dll",
                    "msvcrt.dll", "ole32.dll", "shell32.dll", "user32.dll", "ws2_32.dll"}


def headers(keltop):
    return subprocess.run(["x86_64-w64-mingw32-objdump", "-p", keltop.command[-1]], stdout=subprocess.PIPE,
                          check=True).stdout.decode()


# The program file


def test_it_needs_nothing_that_windows_does_not_have(keltop):
    imported = {name.lower() for name in re.findall(r"DLL Name: (\S+)", headers(keltop))}
    assert imported and imported <= SYSTEM_LIBRARIES


def test_it_holds_no_path_of_the_machine_that_built_it(keltop):
    with open(keltop.command[-1], "rb") as file:
        program = file.read()
    sources = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
    for folder in (os.path.expanduser("~").encode(), sources.encode(), b"/usr/share", b"keltop-windows"):
        assert folder not in program, folder


def test_the_file_tells_its_version_and_asks_for_nothing(keltop):
    with open(keltop.command[-1], "rb") as file:
        program = file.read()
    for text in ("FileVersion\0\0008.0.26.0", "ProductVersion\0008.0.26", "Vantrel Corporation"):
        assert text.encode("utf-16-le") in program, text
    assert b'level="asInvoker"' in program
    assert b"activeCodePage" not in program


def test_the_system_shows_no_boxes(keltop):
    agent = [*keltop.command[:-1], os.path.join(os.path.dirname(keltop.command[-1]), "keltop_error_mode_agent.exe")]
    done = subprocess.run(agent, env=keltop.env, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                          stderr=subprocess.PIPE, timeout=LONG)
    assert (done.stderr.split(), done.returncode) == ([b"before", b"0", b"after", b"3"], 0)


def test_it_is_hardened(keltop):
    told = headers(keltop)
    characteristics = told[told.index("DllCharacteristics"):].split("SizeOfStackReserve")[0].split()
    assert {"HIGH_ENTROPY_VA", "DYNAMIC_BASE", "NX_COMPAT"} <= set(characteristics)
    # It can be put anywhere: it has the list of what changes then, and may be above 4 GB.
    assert int(re.search(r"([0-9a-f]+) Base Relocation Directory", told)[1], 16) > 0
    assert int(re.search(r"^ImageBase\s+([0-9a-f]+)", told, re.MULTILINE)[1], 16) >= 1 << 32
    # Guarded returns: what the guard says is in the program only where something calls it.
    with open(keltop.command[-1], "rb") as file:
        assert b"*** stack smashing detected ***" in file.read()


# Ending


class Hosted:
    """The program, run by the console host, which tells it of console events and ends it as the console system does."""

    def __init__(self, keltop, *switches):
        self.port = free_port()
        host = [*keltop.command[:-1], os.path.join(os.path.dirname(keltop.command[-1]), "keltop_console_host.exe")]
        words = [wine.windows_path(keltop.command[-1]), *(switches or ["-p", str(self.port)])]
        self.process = subprocess.Popen([*host, " ".join(words)], env=keltop.env, stdin=subprocess.PIPE,
                                        stdout=subprocess.DEVNULL, stderr=subprocess.PIPE)
        if not switches:
            eventually(lambda: is_listening(self.port), what="listening")

    def tell(self, control):
        self.process.stdin.write(b"%d\n" % control)
        self.process.stdin.flush()

    def code(self):
        _, error = self.process.communicate(timeout=LONG)
        return int(re.search(rb"ended (\d+)", error)[1])


@pytest.mark.parametrize("control", [CTRL_C, CLOSED])
def test_ctrl_c_and_a_closed_console_end_every_listener_in_good_order(keltop, control):
    told = Hosted(keltop)
    other, _ = keltop.listen("-raw")
    told.tell(control)
    assert told.code() == 0
    assert other.wait() == 0


def test_a_console_closed_during_a_post_does_not_wait_for_the_post(keltop):
    """It ends every listener, and the process as soon as that is done: the system would kill it after five seconds."""
    other, _ = keltop.listen("-raw")
    asked = threading.Event()

    def serve(peer, connection):
        peer.request = read_request(connection)
        asked.set()
        with contextlib.suppress(ConnectionError):
            connection.recv(1)

    with Peer(serve) as peer:
        told = Hosted(keltop, "-rsi", "json", "-url", f"http://127.0.0.1:{peer.port}/")
        assert asked.wait(LONG)
        begin = time.monotonic()
        told.tell(CLOSED)
        told.code()
        assert time.monotonic() - begin < 4
    assert other.wait() == 0


@pytest.mark.parametrize("control", [CTRL_BREAK, LOG_OFF, SYSTEM_SHUTDOWN])
def test_other_console_events_end_only_the_process_they_are_told_to(keltop, agents, control):
    told = Hosted(keltop)
    other, port = keltop.listen()
    event, _ = agents.start().obtain("open-event", "KELTOP_SHUTDOWN")
    assert event != "0"
    told.tell(control)
    told.code()
    assert other.process.poll() is None and is_listening(port)
    assert agents._started[0].wait(event, 0) == 258  # not set


def test_any_process_can_end_every_listener_by_the_event(keltop, agents):
    listeners = [keltop.listen()[0], keltop.listen("-raw")[0]]
    setter = agents.start()
    event, _ = setter.obtain("open-event", "KELTOP_SHUTDOWN")
    assert setter.ask("set", event) == "0"
    assert [listener.wait() for listener in listeners] == [0, 0]


def test_a_listener_started_while_the_event_is_set_stops_at_once(keltop, agents):
    setter = agents.start()
    event, _ = setter.obtain("create-event", "KELTOP_SHUTDOWN")
    assert setter.ask("set", event) == "0"
    assert keltop.run("-p", str(free_port()), timeout=LONG).returncode == 0


def test_a_blocked_output_does_not_keep_it(keltop, agents):
    unread, output = os.pipe()
    try:
        running, port = keltop.listen("-raw", stdout=output)
        setter = agents.start()
        event, _ = setter.obtain("open-event", "KELTOP_SHUTDOWN")
        with socket.create_connection(("127.0.0.1", port), LONG) as peer:
            peer.settimeout(1)
            with pytest.raises(TimeoutError):  # nobody reads the output, so in the end nobody reads the peer
                while True:
                    peer.sendall(b"x" * 65536)
            assert setter.ask("set", event) == "0"
            assert running.wait() == 0
    finally:
        os.close(output)
        os.close(unread)


# Where the traces go


def test_the_registry_moves_the_traces(keltop):
    assert keltop.run("-h").returncode == 0
    assert os.listdir(os.path.join(keltop.data, "TRACELOGS")) == ["LOG1067.ltt"]


def test_without_a_value_in_the_32_bit_view_they_go_to_drive_c(keltop, tmp_path):
    wine.clear_data_location()
    wine.set_data_location(tmp_path, view=64)
    (tmp_path / "TRACELOGS").mkdir()
    folder = os.path.join(os.environ["WINEPREFIX"], "drive_c", "vs", "TRACELOGS")
    os.makedirs(folder)
    assert keltop.run("-h").returncode == 0
    assert os.listdir(folder) == ["LOG1067.ltt"]
    assert os.listdir(tmp_path / "TRACELOGS") == []
