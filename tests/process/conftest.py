"""Runs the built program against real peers.

--keltop names the command that starts it, so that the same tests run any build of it.
"""

import contextlib
import fcntl
import glob
import io
import os
import pathlib
import pty
import re
import resource
import select
import shlex
import shutil
import signal
import socket
import struct
import subprocess
import tempfile
import termios
import threading
import time
import tty

import pytest

import wine

# Seconds that a thing may take on a busy machine before it counts as not happening.
LONG = float(os.environ.get("KELTOP_TEST_PATIENCE", "20"))
SLOWNESS = LONG / 20  # how much longer than usually what is meant to be prompt may take

WORKERS = 16  # connections at the same time, where a crowd is not what is tested

AS_NOBODY = {"user": 65534, "group": 65534, "extra_groups": []}

as_root = pytest.mark.skipif(os.geteuid() != 0, reason="only root can start a process as another account")

# What every run shows first. The program's own "\r\n" come as they are, its line ends as "\n".
HEAD = b"""\
KELTOP.EXE - 8.0.26.0 Built: Jan 15 2024\r
Vantrel Corporation\r
Copyright (c) 2024 Vantrel Corporation. All rights reserved.\r
\r
Web services test application.
\r
Options: 
-h or -?  Expanded help.
-p        Port number to use.
-raw      Read raw TCP traffic. No response will be sent.
-isi      Perform a test inventory post. Run with -h for options.
-rsi      Perform a test room status post. Run with -h for options.

"""


for number in (signal.SIGHUP, signal.SIGQUIT):  # a shell's job in the background ignores some, and so would its children
    signal.signal(number, signal.SIG_DFL)


def listening_on(port):
    """What a listener shows next; the number as it was asked for."""
    return b"Press Ctrl-C to stop.\nListening on: %d\r\n\n" % port


def port_in_use(keltop, port):
    """The library's texts for it; Windows may give either reason for a port that somebody has to himself."""
    texts = [b"Error: Net Exception: Address already in use: 0.0.0.0:%d\n" % port]
    if keltop.windows:
        texts.append(b"Error: I/O error: Permission denied\n")
    return [listening_on(port) + text for text in texts]


def windows_cannot(reason):
    """Marks a test that tells of something that is not so on Windows."""
    return pytest.mark.skipif("config.getoption('--keltop').endswith('.exe')", reason=reason)


def wine_cannot(reason, *versions):
    """Marks a test of something that these versions of Wine do otherwise than Windows does. Under others it is run."""
    own = f"__import__('wine').version() in {versions!r}"
    return pytest.mark.skipif(f"config.getoption('--keltop').endswith('.exe') and {own}",
                              reason=f"Wine {' and '.join(versions)} {reason}")


def pytest_addoption(parser):
    parser.addoption("--keltop", default="build/release/keltop", help="the command that starts the program")
    parser.addoption("--agent", default="build/release/keltop_object_agent",
                     help="the command that starts a process that uses machine-wide objects")
    parser.addoption("--reference", default="build/release/keltop",
                     help="the Linux build, for comparing the Windows build with it")
    parser.addoption("--trace-agent", default="build/release/keltop_trace_agent",
                     help="the command that starts a process that traces; keltop_trace_order lies beside it")
    parser.addoption("--flood-seconds", type=int, default=4,
                     help="how long two processes write and rotate one trace file")
    parser.addoption("--starts", type=int, default=100, help="how often the program is started and ended")


TIME_STAMP = rb"\d{4}/\d\d/\d\d-\d\d:\d\d:\d\d:\d{3}"
START_BANNER = rb"KELTOP - Built on Jan 15 2024 Version: 8\.0\.26"
ECHOED_BANNER = re.compile(rb"LOG1067 " + TIME_STAMP + rb" " + START_BANNER + rb"\r\n")
STOP_LINE = b"LOG1067  \r\n"
ECHOED_STOP = re.compile(STOP_LINE)


def without_trace(output):
    """The output without the two trace lines that every run echoes, wherever they came between the others: the start
    banner and, when the program ended by itself, the empty line that the end of the trace leaves."""
    return ECHOED_STOP.sub(b"", ECHOED_BANNER.sub(b"", output, count=1), count=1)


def is_windows(config):
    return config.getoption("--keltop").endswith(".exe")


@pytest.fixture(scope="session", autouse=True)
def wine_prefix(request):
    """A prefix of this worker's own; programs inherit it."""
    if not is_windows(request.config):
        yield
        return
    os.environ["WINEPREFIX"] = prefix = wine.make_prefix(os.environ["WINEPREFIX"])
    try:
        yield
    finally:
        wine.remove_prefix(prefix)


@pytest.fixture(scope="session")
def build(request):
    """The folder of the build under test."""
    return pathlib.Path(request.config.getoption("--keltop")).absolute().parent


@pytest.fixture(scope="session")
def released(build):
    """Lets a test run with the build that is released only: what it tells of is in no other, or the same."""
    settings = (build / "CMakeCache.txt").read_text(encoding="utf-8")
    if not re.search(r"^CMAKE_BUILD_TYPE:\w+=Release$", settings, re.MULTILINE) or not re.search(
            r"^KELTOP_SANITIZE:\w+=$", settings, re.MULTILINE):
        pytest.skip("about the build that is released")


def soft_descriptor_limit(wanted):
    """For a process that is about to start: the limit that it finds, which it may raise."""
    _, hard = resource.getrlimit(resource.RLIMIT_NOFILE)
    resource.setrlimit(resource.RLIMIT_NOFILE, (min(wanted, hard), hard))


def raise_descriptor_limit():
    """Lets the tests open as many sockets as the system allows."""
    soft_descriptor_limit(1 << 20)


def free_port():
    """A TCP port that nobody listens on, on any local address."""
    with socket.socket() as probe:
        probe.bind(("0.0.0.0", 0))
        return probe.getsockname()[1]


def eventually(condition, timeout=LONG, what="condition"):
    """Waits until condition() is true and gives its value."""
    deadline = time.monotonic() + timeout
    while True:
        value = condition()
        if value:
            return value
        if time.monotonic() > deadline:
            raise AssertionError(f"{what} did not come true within {timeout} s")
        time.sleep(0.002)


def all_stopped(started):
    """Whether a stop has reached every thread of the process."""
    states = set()
    for path in glob.glob(f"/proc/{started.process.pid}/task/*/stat"):
        with open(path, encoding="ascii") as file:
            states.add(file.read().rsplit(")", 1)[1].split()[0])
    return states == {"T"}


def unread_bytes(pipe):
    """How many bytes wait in a pipe."""
    return struct.unpack("i", fcntl.ioctl(pipe, termios.FIONREAD, bytes(4)))[0]


def unsent_bytes(connection):
    """How many sent bytes the other end's system has not taken yet."""
    return struct.unpack("i", fcntl.ioctl(connection, termios.TIOCOUTQ, bytes(4)))[0]


class Output:
    """What is written to the other end of a file descriptor, collected as it comes."""

    def __init__(self, descriptor, text_mode):
        self._descriptor = descriptor
        self._text_mode = text_mode
        self._bytes = bytearray()
        self._changed = threading.Condition()
        self._stopped = False
        self._reader = threading.Thread(target=self._read, daemon=True)
        self._reader.start()

    def _read(self):
        with contextlib.suppress(OSError):  # how a terminal ends
            while not self._stopped and (chunk := os.read(self._descriptor, 1 << 16)):
                with self._changed:
                    self._bytes += chunk
                    self._changed.notify_all()

    @property
    def size(self):
        """How many bytes have come, as they came."""
        return len(self._bytes)

    def tail(self, count):
        """The last bytes, as they came."""
        return bytes(self._bytes[-count:])

    @property
    def output(self):
        with self._changed:
            return self._text_mode(bytes(self._bytes))

    def wait_for(self, text, timeout=LONG, start=0):
        """Waits until the output holds text from position start on; gives the output."""
        deadline = time.monotonic() + timeout
        with self._changed:
            while text not in self._text_mode(bytes(self._bytes))[start:]:
                if not self._changed.wait(deadline - time.monotonic()):
                    raise AssertionError(f"no {text!r} within {timeout} s in {bytes(self._bytes)[-2000:]!r}")
            return self._text_mode(bytes(self._bytes))

    def wait_for_size(self, size, timeout=LONG):
        with self._changed:
            assert self._changed.wait_for(lambda: len(self._bytes) >= size, timeout), f"{len(self._bytes)} of {size}"

    def wait_for_end(self, timeout=LONG):
        self._reader.join(timeout)

    def stop(self, wake):
        """Collects no more; wake() makes some more output come."""
        self._stopped = True
        wake()
        self.wait_for_end()


class Running:
    """A started program. Its standard output is collected unless it is led somewhere else."""

    def __init__(self, command, env, text_mode, **options):
        self._command = command
        self.process = subprocess.Popen(command, env=env, **{"stdin": subprocess.DEVNULL, "stdout": subprocess.PIPE,
                                                             "stderr": subprocess.PIPE, **options})
        piped = self.process.stdout is not None
        self._collected = Output(self.process.stdout.fileno(), text_mode) if piped else None

    @property
    def is_collected(self):
        return self._collected is not None

    @property
    def size(self):
        return self._collected.size

    def tail(self, count):
        return self._collected.tail(count)

    @property
    def output(self):
        return self._collected.output

    @property
    def resident_kib(self):
        """The memory of a Linux process that is really there."""
        with open(f"/proc/{self.process.pid}/status", encoding="ascii") as file:
            return int(re.search(r"VmRSS:\s+(\d+) kB", file.read())[1])

    def wait_for(self, text, **limits):
        try:
            return self._collected.wait_for(text, **limits)
        except AssertionError:
            wine.check_start(self._command, self.process.poll(), self.output)
            raise

    def wait_for_size(self, size, **limits):
        self._collected.wait_for_size(size, **limits)

    def send_signal(self, number):
        self.process.send_signal(number)

    def wait(self, timeout=LONG):
        """Waits for the end; gives the exit code. All output has been collected then."""
        code = self.process.wait(timeout)
        if self._collected:
            self._collected.wait_for_end(timeout)
            wine.check_start(self._command, code, self.output)
        return code

    def wait_for_end(self):
        """Waits for the end, also of whoever else writes to the output: nobody may read a descriptor that is closed."""
        self.process.wait()
        if self._collected:
            self._collected.wait_for_end()

    def interrupt(self, timeout=LONG):
        """Ctrl-C; gives the exit code."""
        self.send_signal(signal.SIGINT)
        return self.wait(timeout)


def for_everybody(command, folder):
    """The command with its program where every account can run it: the build may lie in a home folder."""
    *before, program = command
    os.makedirs(os.path.join(folder, "bin"), exist_ok=True)
    os.chmod(os.path.join(folder, "bin"), 0o755)
    copy = os.path.join(folder, "bin", os.path.basename(program))
    if not os.path.exists(copy):
        shutil.copy(program, copy)
        os.chmod(copy, 0o755)
    return [*before, copy]


def is_instrumented(program):
    """Whether a sanitizer is built in, which takes its own memory and time."""
    with open(program, "rb") as file:
        content = file.read()
    return b"__tsan_init" in content or b"__asan_init" in content


class Keltop:
    """Starts the program with a folder for the machine-wide objects and one for traces of its own."""

    def __init__(self, command, folder):
        self.command = shlex.split(command)
        self.windows = self.command[-1].endswith(".exe")
        self.plain = not self.windows and not is_instrumented(self.command[-1])
        self.folder = folder
        self.objects = os.path.join(folder, "objects")
        self.data = os.path.join(folder, "data")
        os.makedirs(self.objects)
        os.makedirs(os.path.join(self.data, "TRACELOGS"))
        self.env = {**os.environ, "KELTOP_OBJECT_DIR": self.objects, "KELTOP_DATA_LOCATION": self.data}
        if self.windows:
            wine.set_data_location(self.data)
        self._started = []

    def text_mode(self, output):
        """Undoes the line ends of the Windows run-time library's text mode."""
        return output.replace(b"\r\n", b"\n") if self.windows else output

    def open_output(self, path):
        """What a console file holds, to be read like the file."""
        with open(path, "rb") as file:
            return io.BytesIO(self.text_mode(file.read()))

    def run(self, *switches, timeout=3 * LONG, **options):
        """Runs the program to its end; standard input is empty unless given."""
        if "input" not in options:
            options.setdefault("stdin", subprocess.DEVNULL)
        env = options.pop("env", self.env)
        done = subprocess.run([*self.command, *switches], env=env, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                              timeout=timeout, **options)
        wine.check_start(self.command, done.returncode, done.stdout)
        done.stdout = self.text_mode(done.stdout)
        return done

    def start(self, *switches, **options):
        env = options.pop("env", self.env)
        running = Running([*self.command, *switches], env, self.text_mode, **options)
        self._started.append(running)
        return running

    def listen(self, *switches, **options):
        """Starts a listener on a free port and waits until it accepts; gives it and the port."""
        port = free_port()
        return self.listen_on(port, *switches, **options), port

    def listen_on(self, port, *switches, **options):
        """Starts a listener on the port and waits until it accepts."""
        running = self.start("-p", str(port), *switches, **options)
        if running.is_collected:
            running.wait_for(b"Listening on: ")
        eventually(lambda: is_listening(port) or running.process.poll() is not None, what="listening")
        return running

    def end(self, running):
        """Ends a listener whose whole output is wanted; gives the output without the trace line."""
        if self.windows:
            running.process.kill()
            running.wait()
        else:
            assert running.interrupt() == 0
        return without_trace(running.output)

    def close(self):
        for running in self._started:
            if running.process.poll() is None:
                running.process.kill()
            running.wait_for_end()
            for stream in (running.process.stdout, running.process.stderr):
                if stream:
                    stream.close()


def is_listening(port):
    """Whether some process listens on the port, looked up without connecting to it."""
    wanted = f":{port:04X}"
    with open("/proc/net/tcp", encoding="ascii") as table:
        return any(line.split()[1].endswith(wanted) and line.split()[3] == "0A" for line in list(table)[1:])


@pytest.fixture
def keltop(request):
    with tempfile.TemporaryDirectory(prefix="keltop-test-") as folder:
        os.chmod(folder, 0o755)
        program = Keltop(request.config.getoption("--keltop"), folder)
        try:
            yield program
        finally:
            program.close()


class Conversation:
    """A process that takes a line at a time on its standard input, and answers so."""

    def __init__(self, command, **options):
        self._command = command
        self._answered = False
        self._told = "to start"
        self._came = b""  # what no answer has been made of yet
        self.process = subprocess.Popen(command, stdin=subprocess.PIPE, stdout=subprocess.PIPE, **options)

    def tell(self, *words):
        """Sends a line without waiting for its answer."""
        self._told = " ".join(map(str, words))
        try:
            self.process.stdin.write((self._told + "\n").encode())
            self.process.stdin.flush()
        except BrokenPipeError:
            self._check_start()
            raise

    def answer(self, timeout=2 * LONG):
        """The next answer, as text; empty when the process has ended."""
        deadline = time.monotonic() + timeout
        while b"\n" not in self._came:
            if not select.select([self.process.stdout], [], [], max(0, deadline - time.monotonic()))[0]:
                raise AssertionError(f"{self._command} told {self._told[:200]!r}: no answer within {timeout} s")
            piece = os.read(self.process.stdout.fileno(), 1 << 16)
            if not piece:
                break
            self._came += piece
        line, end, self._came = self._came.partition(b"\n")
        if not end:
            self._check_start()
        self._answered = True
        return line.decode().strip()

    def _check_start(self):
        if not self._answered:
            wine.check_start(self._command, self.process.wait(LONG), b"")


class Agent(Conversation):
    """A process that holds and uses machine-wide objects, one command a line."""

    def __init__(self, command, folder, **options):
        super().__init__(command, env={**os.environ, "KELTOP_OBJECT_DIR": folder}, **options)

    def ask(self, *words):
        self.tell(*words)
        return self.answer()

    def obtain(self, *words):
        """A command that gives a handle; gives handle and error number."""
        handle, error = self.ask(*words).split()
        return handle, int(error)

    def wait(self, handle, milliseconds):
        return int(self.ask("wait", handle, milliseconds))

    def kill(self):
        self.process.kill()
        self.process.wait()

    def close(self):
        """At the end of its input it ends by itself, unless it still waits for something."""
        with contextlib.suppress(OSError):
            self.process.stdin.close()
        try:
            self.process.wait(0.5)
        except subprocess.TimeoutExpired:
            self.process.kill()
            self.process.wait()
        self.process.stdout.close()


class Agents:
    """Starts agents that share a folder of their own for the machine-wide objects."""

    def __init__(self, command, folder):
        self.command = shlex.split(command)
        self.folder = folder
        self._started = []

    def start(self, **options):
        agent = Agent(self.command, self.folder, **options)
        self._started.append(agent)
        return agent

    def close(self):
        for agent in self._started:
            agent.close()


@pytest.fixture
def agents(request):
    with tempfile.TemporaryDirectory(prefix="keltop-objects-") as folder:
        os.chmod(folder, 0o1777)
        with contextlib.closing(Agents(request.config.getoption("--agent"), folder)) as made:
            yield made


@pytest.fixture
def neighbours(request, keltop):
    """Agents on the machine that the program runs on: they share its machine-wide objects."""
    with contextlib.closing(Agents(request.config.getoption("--agent"), keltop.objects)) as made:
        yield made


class Terminal:
    """A terminal with the program in its foreground."""

    def __init__(self):
        self.keyboard, self.side = pty.openpty()
        self.screen = Output(self.keyboard, lambda shown: shown)

    def start(self, program, *switches, **options):
        return program.start(*switches, **self._streams(**options))

    def listen(self, program, *switches, **options):
        return program.listen(*switches, **self._streams(**options))

    def _streams(self, **options):
        return {"stdin": self.side, "stdout": self.side, "start_new_session": True,
                "preexec_fn": lambda: fcntl.ioctl(0, termios.TIOCSCTTY, 0), **options}

    @property
    def settings(self):
        return termios.tcgetattr(self.side)

    @property
    def echoes(self):
        return bool(self.settings[3] & termios.ECHO)

    def type(self, keys):
        os.write(self.keyboard, keys)

    def hang_up(self):
        """Closes the window; nothing is shown from here on."""
        if self.side is not None:
            keyboard, side = self.keyboard, self.side
            self.keyboard = self.side = None
            tty.setraw(side, termios.TCSANOW)  # a screen that was stopped goes on
            self.screen.stop(lambda: os.write(side, b"\n"))
            os.close(side)
            os.close(keyboard)


@pytest.fixture
def terminal():
    made = Terminal()
    try:
        yield made
    finally:
        made.hang_up()
