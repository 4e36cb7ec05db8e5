"""The command line: banner, help, which mode runs, and the exit codes."""

import contextlib
import fcntl
import glob
import os
import resource
import signal
import socket
import subprocess

import pytest

from conftest import (AS_NOBODY, HEAD, LONG, STOP_LINE, all_stopped, as_root, eventually, for_everybody, free_port,
                      is_listening, listening_on, port_in_use, windows_cannot, without_trace)

HELP = b"""\
\r
Inventory / Room Status testing.
  Options:
  -isi <protocol> Perform a inventory test post using the specified protocol
  -rsi <protocol> Perform a room status test post using the specified protocol
  -url URL to send post.
\r
  Protocol options.
          jazz - Post special XML packet for Jazz.
          json - Post json packet.
          form - Post as a form post.
          xml - Post XML packet.
\r
  Optional arguments:
  -description Item or status description.
  -room   Room number to use.
  -id     User id.
  -fname  First name of user.
  -lname  Last name of user.
  -count  Quanity of items for inventory post.
  -code   Status code for room status post.
  -item   Item ID for inventory post.
  -category Category ID for inventory post.
\r
  Example: keltop -rsi jazz -url http://127.0.0.1/rsi
"""
PRESS_ANY_KEY = b"\r\npress any key"
NO_PORT = b"No port number specified.\n"
INVALID_PORT = b"Invalid port number specified.\n"
NOT_RUNNING = b"Server not running, shutting down.\n"
NO_URL = b"Post(985) Error: No URL given\n"

OBSERVED = 0.3  # seconds for which something is watched not to happen

linux_terminal = windows_cannot("a key press is read from the Windows console there")
linux_folder = windows_cannot("the kernel's own objects are in no folder there")
linux_sockets = windows_cannot("the sockets belong to the Wine server there")


def shown(done):
    """What a run showed after banner and short list, and its exit code."""
    output = without_trace(done.stdout)
    assert output.startswith(HEAD)
    assert done.stderr == b""
    return output[len(HEAD):], done.returncode


def listens(keltop, port, *switches):
    """Whether the program listens on the port when started with the switches; gives all it showed."""
    running = keltop.start(*switches)
    running.wait_for(b"Listening on: ")
    eventually(lambda: is_listening(port), what=f"listening on {port}")
    return keltop.end(running)


# Help


def test_without_arguments_everything_is_shown_and_a_key_awaited(keltop):
    assert shown(keltop.run()) == (HELP + PRESS_ANY_KEY, 0)


@pytest.mark.parametrize("arguments", [["foo"], ["80", "raw"], ["", "p"], ["rsi", "json"]])
def test_arguments_without_a_switch_count_as_none(keltop, arguments):
    assert shown(keltop.run(*arguments)) == (HELP + PRESS_ANY_KEY, 0)


@pytest.mark.parametrize("switch", ["-h", "-H", "-?", "/h", "/?", "~h", "~?", "h-", "~H"])
def test_help_is_shown_without_a_key(keltop, switch):
    assert shown(keltop.run(switch)) == (HELP, 0)


@pytest.mark.parametrize("arguments", [["-h", "value"], ["-raw", "-h"], ["-p", "abc", "-?"], ["-h", "-p"],
                                       ["~h", "-p", "-raw"], ["stray", "-raw", "/?"]])
def test_help_wins_over_other_switches(keltop, arguments):
    assert shown(keltop.run(*arguments)) == (HELP, 0)


@pytest.mark.parametrize("switch", ["-h", "-?", "/h", "~h"])
@pytest.mark.parametrize("mode", [[], ["-raw"]], ids=["http", "raw"])
def test_help_starts_no_server(keltop, switch, mode):
    port = free_port()
    assert shown(keltop.run("-p", str(port), switch, *mode)) == (HELP, 0)
    assert not is_listening(port)


@pytest.mark.parametrize("post", ["-rsi", "-isi"])
def test_help_runs_no_post(keltop, post):
    with socket.create_server(("127.0.0.1", 0)) as target:
        url = f"http://127.0.0.1:{target.getsockname()[1]}/"
        assert shown(keltop.run(post, "json", "-url", url, "-h")) == (HELP, 0)
        target.settimeout(0)
        with pytest.raises(BlockingIOError):
            target.accept()


@pytest.mark.parametrize("switch", ["-help", "-hh", "--h", "-", "--?"])
def test_only_the_exact_names_are_help(keltop, switch):
    assert shown(keltop.run(switch)) == (NO_PORT, 1)


# The order of the start and the end


@linux_terminal
def test_the_trace_begins_before_the_banner_and_ends_after_everything(keltop):
    """Into a pipe that has room for the trace's echo and not for the banner, the main thread waits before the banner."""
    unread, output = os.pipe()
    with open(unread, "rb", buffering=0) as reader:
        size = fcntl.fcntl(output, fcntl.F_SETPIPE_SZ, 4096)
        filler = os.write(output, b"." * (size - 120))
        running = keltop.start("-h", stdout=output)
        os.close(output)
        trace = os.path.join(keltop.data, "TRACELOGS", "LOG1067.ltt")
        eventually(lambda: os.path.exists(trace) and b"KELTOP - Built on" in open(trace, "rb").read(), what="the trace")
        assert reader.read(filler) == b"." * filler
        shown_text = b"".join(iter(lambda: reader.read(4096), b""))
    assert running.wait() == 0
    assert shown_text.startswith(b"LOG1067 ")
    assert shown_text.endswith(b"Example: keltop -rsi jazz -url http://127.0.0.1/rsi\n" + STOP_LINE)


# The key


@linux_terminal
def test_a_closed_standard_input_counts_as_a_key(keltop):
    closed = subprocess.run(["sh", "-c", '"$@" <&-', "sh", *keltop.command], env=keltop.env, timeout=LONG,
                            stdout=subprocess.PIPE, stderr=subprocess.PIPE)
    assert shown(closed) == (HELP + PRESS_ANY_KEY, 0)


@linux_terminal
def test_a_key_is_awaited_from_a_pipe_too(keltop):
    running = keltop.start(stdin=subprocess.PIPE)
    with running.process.stdin as keys:
        running.wait_for(PRESS_ANY_KEY)
        with pytest.raises(subprocess.TimeoutExpired):
            running.process.wait(OBSERVED)
        keys.write(b"k")
        keys.flush()
        assert running.wait() == 0
    assert without_trace(running.output) == HEAD + HELP + PRESS_ANY_KEY


KEYS = {"letter": b"k", "enter": b"\r", "space": b" ", "escape": b"\x1b", "Ctrl-C": b"\x03", "Ctrl-D": b"\x04",
        "Ctrl-Z": b"\x1a", "Ctrl-backslash": b"\x1c", "Ctrl-S": b"\x13", "eighth bit": b"\xe4"}


@linux_terminal
@pytest.mark.parametrize("key", KEYS.values(), ids=KEYS.keys())
def test_one_key_on_a_terminal_is_enough_and_not_echoed(keltop, terminal, key):
    before = terminal.settings
    running = terminal.start(keltop)
    terminal.screen.wait_for(b"press any key")
    eventually(lambda: not terminal.echoes, what="the end of the echo")
    with pytest.raises(subprocess.TimeoutExpired):
        running.process.wait(OBSERVED)
    terminal.type(key)
    assert running.wait() == 0
    assert terminal.settings == before
    terminal.hang_up()
    as_shown = (HEAD + HELP + PRESS_ANY_KEY).replace(b"\n", b"\r\n")
    shown_lines = without_trace(terminal.screen.output.replace(b"\r\r\n", b"\r\n")).rstrip(b"\r\n")
    assert shown_lines == as_shown.replace(b"\r\r\n", b"\r\n")


@linux_terminal
def test_a_key_typed_ahead_counts(keltop, terminal):
    terminal.type(b"k")
    assert terminal.start(keltop).wait() == 0


@linux_terminal
def test_an_input_that_does_not_wait_is_no_key(keltop):
    """Whoever had the pipe before made it non-blocking: it has nothing yet, which is no key."""
    keys, typed = os.pipe()
    os.set_blocking(keys, False)
    running = keltop.start(stdin=keys)
    os.close(keys)
    with open(typed, "wb", buffering=0) as typed_keys:
        running.wait_for(PRESS_ANY_KEY)
        before = processor_ticks(running)
        with pytest.raises(subprocess.TimeoutExpired):
            running.process.wait(OBSERVED)
        assert processor_ticks(running) - before <= 2
        typed_keys.write(b"k")
        assert running.wait() == 0


@linux_terminal
def test_a_terminal_that_does_not_wait_gives_a_key_when_one_is_typed(keltop, terminal):
    os.set_blocking(terminal.side, False)
    running = terminal.start(keltop)
    terminal.screen.wait_for(b"press any key")
    with pytest.raises(subprocess.TimeoutExpired):
        running.process.wait(OBSERVED)
    terminal.type(b"k")
    assert running.wait() == 0


def processor_ticks(running):
    """Processor time of a process so far, in hundredths of a second."""
    with open(f"/proc/{running.process.pid}/stat", encoding="ascii") as file:
        fields = file.read().rsplit(")", 1)[1].split()
    return int(fields[11]) + int(fields[12])


@linux_terminal
@pytest.mark.parametrize("number", [signal.SIGTERM, signal.SIGINT, signal.SIGHUP, signal.SIGQUIT],
                         ids=lambda number: number.name)
def test_a_signal_that_ends_the_wait_leaves_the_terminal_as_it_was(keltop, terminal, number):
    before = terminal.settings
    running = terminal.start(keltop)
    terminal.screen.wait_for(b"press any key")
    eventually(lambda: not terminal.echoes, what="the end of the echo")
    running.send_signal(number)
    assert running.wait() == -number
    assert terminal.settings == before


@linux_terminal
def test_a_signal_that_was_ignored_at_the_start_does_not_end_the_wait(keltop, terminal):
    keltop.command = ["env", "--ignore-signal=TERM", *keltop.command]
    running = terminal.start(keltop)
    terminal.screen.wait_for(b"press any key")
    eventually(lambda: not terminal.echoes, what="the end of the echo")
    running.send_signal(signal.SIGTERM)
    with pytest.raises(subprocess.TimeoutExpired):
        running.process.wait(OBSERVED)
    terminal.type(b"k")
    assert running.wait() == 0


@linux_terminal
def test_help_by_switch_leaves_what_is_typed_to_the_next_program(keltop, terminal):
    terminal.type(b"next\n")
    assert terminal.start(keltop, "-h").wait() == 0
    assert os.read(terminal.side, 100) == b"next\n"


def test_an_argument_with_a_wildcard_is_no_list_of_files(keltop, tmp_path):
    (tmp_path / "-h").touch()
    keltop.command = [os.path.abspath(word) if os.path.exists(word) else word for word in keltop.command]
    assert shown(keltop.run("*h", cwd=tmp_path)) == (HELP + PRESS_ANY_KEY, 0)


# Ports


@pytest.mark.parametrize("arguments", [
    ["-raw"], ["-url", "http://127.0.0.1/rsi"], ["x-y"], ["-"], ["--p", "8080"], ["-port", "8080"], ["-\u00e4"],
    ["~raw", "-p", "8080"], ["-raw", "~p", "8080"], ["-q", "p", "8080"],
], ids=" ".join)
def test_without_a_port_switch_there_is_no_port(keltop, arguments):
    assert shown(keltop.run(*arguments)) == (NO_PORT, 1)


@pytest.mark.parametrize("arguments", [
    ["-p"], ["-p", ""], ["-p", "0"], ["-p", "000"], ["-p", "abc"], ["-p", "x80"], ["-p", "-5"], ["~p", "-5"],
    ["~p", "-0"], ["-p", " "], ["-p", "+"], ["~p", "-"], ["-p", "+ 80"], ["-p", "+-80"], ["-p", ".5"],
    ["-p", "0x1F90"], ["-p", "-raw"], ["-p", "/raw"], ["~p", "-raw"], ["-p", "\u0661\u0662\u0663"],
    ["-p", "0", "-p", "8080"], ["~p", "-2147483648"], ["~p", "-4294967216"], ["~p", "-99999999999999999999999"],
    ["p-", "abc"],
], ids=" ".join)
@pytest.mark.parametrize("mode", [[], ["-raw"]], ids=["http", "raw"])
def test_a_port_below_1_is_invalid(keltop, arguments, mode):
    assert shown(keltop.run(*arguments, *mode)) == (INVALID_PORT, 1)


@pytest.mark.parametrize("form", ["{}", "{}x", "{}.9", " {}", "\t\n\v\f\r {}", "+{}", "000{}", "{} 1", "{}-raw"])
def test_a_port_is_the_digits_up_to_the_first_other_character(keltop, form):
    port = free_port()
    assert listens(keltop, port, "-p", form.format(port)) == HEAD + listening_on(port)


@pytest.mark.parametrize("form", ["-p {}", "-P {}", "/p {}", "~p {}", "p- {}", "foo -p {} bar", "-p {} -p 1",
                                  "-p {} -p", "-raw -p {}", "-p {} /RAW", "-p {} ~Raw", "-x ~y -p {}"])
def test_a_port_switch_in_any_form(keltop, form):
    port = free_port()
    assert listens(keltop, port, *form.format(port).split()) == HEAD + listening_on(port)


@pytest.mark.parametrize("high", [0x10000, 0x30000, 0x7FFF0000])
@pytest.mark.parametrize("mode", [[], ["-raw"]], ids=["http", "raw"])
def test_the_port_is_the_low_16_bits_and_shown_in_full(keltop, mode, high):
    port = free_port()
    assert listens(keltop, port, "-p", str(high + port), *mode) == HEAD + listening_on(high + port)


@linux_sockets
def test_a_multiple_of_65536_listens_on_a_port_of_the_systems_choice(keltop):
    running = keltop.start("-p", "65536")
    (port,) = eventually(lambda: listening_ports(running), what="listening")
    assert port != 0
    assert keltop.end(running) == HEAD + listening_on(65536)


def test_a_number_beyond_32_bits_is_the_greatest_one(keltop):
    with socket.socket() as taken:  # so that it has an end
        taken.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEPORT, 1)
        with contextlib.suppress(OSError):
            taken.bind(("0.0.0.0", 0xFFFF))
            taken.listen()
        for number in (2**31, 2**32, 2**32 + free_port(), 2**64 + free_port(), 10**40):
            output, code = shown(keltop.run("-p", str(number), timeout=LONG))
            assert (output[:len(listening_on(2**31 - 1))], code) == (listening_on(2**31 - 1), 1), number


@pytest.mark.parametrize("mode", [[], ["-raw"]], ids=["http", "raw"])
@pytest.mark.parametrize("address", ["0.0.0.0", "127.0.0.1"])
def test_a_port_in_use_is_an_error(keltop, mode, address):
    with socket.create_server((address, 0)) as taken:
        port = taken.getsockname()[1]
        output, code = shown(keltop.run("-p", str(port), *mode))
    assert code == 1
    assert output in port_in_use(keltop, port)


@pytest.mark.parametrize("second", [[], ["-raw"]], ids=["then-http", "then-raw"])
@pytest.mark.parametrize("first", [[], ["-raw"]], ids=["http", "raw"])
def test_a_second_instance_on_a_port_is_an_error_and_leaves_the_first_alone(keltop, first, second):
    running, port = keltop.listen(*first)
    output, code = shown(keltop.run("-p", str(port), *second))
    assert code == 1
    assert output in port_in_use(keltop, port)
    assert is_listening(port)
    assert keltop.end(running) == HEAD + listening_on(port)


@linux_sockets
@as_root
def test_a_port_that_the_account_may_not_use_is_an_error(keltop):
    with open("/proc/sys/net/ipv4/ip_unprivileged_port_start", encoding="ascii") as file:
        if int(file.read()) < 2:
            pytest.skip("every account may use every port here")
    os.chmod(keltop.objects, 0o1777)
    output, code = shown(run_as_nobody(keltop, "-p", "1"))
    assert code == 1
    assert output.startswith(listening_on(1) + b"Error: ")
    assert output.count(b"\n") == listening_on(1).count(b"\n") + 1


@pytest.mark.parametrize("mode", [[], ["-raw"]], ids=["http", "raw"])
def test_every_ipv4_address_is_listened_on_and_no_other(keltop, mode):
    _, port = keltop.listen(*mode)
    for address in ("127.0.0.1", "127.0.0.2", "127.8.9.10"):
        socket.create_connection((address, port), timeout=LONG).close()
    with pytest.raises(OSError):
        socket.create_connection(("::1", port), timeout=LONG).close()


@linux_sockets
@pytest.mark.parametrize("mode", [[], ["-raw"]], ids=["http", "raw"])
def test_sixty_four_connections_wait_to_be_accepted(keltop, mode):
    """Linux holds one more than the number it is given."""
    running, port = keltop.listen(*mode)
    running.send_signal(signal.SIGSTOP)  # nothing is accepted
    eventually(lambda: all_stopped(running))
    with contextlib.ExitStack() as stack:
        peers = [stack.enter_context(socket.socket()) for _ in range(80)]
        for peer in peers:
            peer.setblocking(False)
            peer.connect_ex(("127.0.0.1", port))

        def waiting():
            return sum(not peer_is_missing(peer) for peer in peers)
        eventually(lambda: waiting() >= 64 + 1, what="as many as may wait")
        assert waiting() == 64 + 1
        running.send_signal(signal.SIGCONT)


def peer_is_missing(peer):
    try:
        peer.getpeername()
        return False
    except OSError:
        return True


def listening_ports(running):
    """The ports that a process listens on."""
    sockets = set()
    for name in os.listdir(f"/proc/{running.process.pid}/fd"):
        with contextlib.suppress(OSError):
            sockets.add(os.readlink(f"/proc/{running.process.pid}/fd/{name}"))
    with open("/proc/net/tcp", encoding="ascii") as table:
        entries = [line.split() for line in list(table)[1:]]
    return [int(entry[1].split(":")[1], 16) for entry in entries
            if entry[3] == "0A" and f"socket:[{entry[9]}]" in sockets]


# Posts


@pytest.mark.parametrize("arguments", [
    ["-rsi", "json"], ["-isi", "json"], ["-rsi", "json", "-isi", "json"], ["/RSI"], ["~isi", "-x"],
    ["-rsi", "json", "-raw"], ["-isi", "xml", "-p", "abc"], ["-rsi", "jazz", "-p"],
], ids=" ".join)
def test_a_post_comes_before_any_look_at_the_port(keltop, arguments):
    output = keltop.run(*arguments).stdout
    for text in (HELP, PRESS_ANY_KEY, NO_PORT, INVALID_PORT, b"Press Ctrl-C", b"Listening on"):
        assert text not in output


@pytest.mark.parametrize("posts", [["-rsi", "json"], ["-isi", "json"], ["-rsi", "json", "-isi", "json"]], ids=" ".join)
@pytest.mark.parametrize("mode", [[], ["-raw"]], ids=["http", "raw"])
def test_a_post_starts_no_server(keltop, posts, mode):
    with socket.create_server(("0.0.0.0", 0)) as taken:  # a server would end with an error
        output = keltop.run(*posts, "-p", str(taken.getsockname()[1]), *mode).stdout
    assert b"Listening on" not in output
    assert b"in use" not in output


@pytest.mark.parametrize("arguments", [["-rsi", "json"], ["-isi", "json"],
                                       ["-rsi", "json", "-isi", "json", "-p", "80"]], ids=" ".join)
def test_a_post_ends_with_exit_code_0(keltop, arguments):
    assert keltop.run(*arguments).returncode == 0


# The folder of the machine-wide objects


@linux_folder
@pytest.mark.parametrize("mode", [[], ["-raw"]], ids=["http", "raw"])
@pytest.mark.parametrize("folder", ["missing", "a file", "/proc"])
def test_without_the_shutdown_event_there_is_no_server(keltop, folder, mode):
    place = {"missing": os.path.join(keltop.folder, "missing"), "a file": os.path.join(keltop.folder, "file")}
    path = place.get(folder, folder)
    if folder == "a file":
        with open(path, "wb"):
            pass
    port = free_port()
    done = keltop.run("-p", str(port), *mode, env={**keltop.env, "KELTOP_OBJECT_DIR": path})
    assert shown(done) == (NOT_RUNNING, 0)
    assert not is_listening(port)
    assert folder != "missing" or not os.path.exists(path)


@linux_folder
@as_root
def test_a_folder_that_may_not_be_written_starts_no_server(keltop):
    os.chmod(keltop.objects, 0o555)
    assert shown(run_as_nobody(keltop, "-p", str(free_port()))) == (NOT_RUNNING, 0)


@linux_folder
@pytest.mark.parametrize("arguments, result", [
    (["-h"], (HELP, 0)), (["-raw"], (NO_PORT, 1)), (["-p", "abc"], (INVALID_PORT, 1)), ([], (HELP + PRESS_ANY_KEY, 0)),
    (["-rsi", "json"], (NO_URL, 0)), (["-isi", "xml"], (NO_URL, 0)),
], ids=["help", "no port", "invalid port", "nothing", "room status", "inventory"])
def test_what_needs_no_shutdown_event_runs_without(keltop, arguments, result):
    missing = os.path.join(keltop.folder, "missing")
    assert shown(keltop.run(*arguments, env={**keltop.env, "KELTOP_OBJECT_DIR": missing})) == result


# No thread to be had


@linux_folder
@pytest.mark.parametrize("switches", [["-h"], [], ["-p", "0"], ["-rsi", "json"]], ids=" ".join)
def test_without_a_thread_one_line_says_so(keltop, switches):
    """The trace's thread is the first that is asked for; root is given as many as it wants."""
    account = {}
    if os.geteuid() == 0:
        keltop.command = for_everybody(keltop.command, keltop.folder)
        account = AS_NOBODY
    # The search for leaks at the end would need a thread, too; a build without the sanitizer does not read this.
    env = keltop.env | {"ASAN_OPTIONS": "detect_leaks=0"}
    done = keltop.run(*switches, preexec_fn=lambda: resource.setrlimit(resource.RLIMIT_NPROC, (1, 1)), env=env, **account)
    assert (done.stdout, done.stderr, done.returncode) == (NO_THREAD, b"", 1)


NO_THREAD = b"Error: No thread can be started: Resource temporarily unavailable\n"


def run_as_nobody(keltop, *switches):
    keltop.command = for_everybody(keltop.command, keltop.folder)
    return keltop.run(*switches, **AS_NOBODY)
