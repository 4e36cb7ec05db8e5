"""Runs the built program against real peers.

--keltop names the command that starts it, so that the same tests run any build of it.
"""

import os
import re
import shlex
import signal
import socket
import subprocess
import tempfile
import threading
import time

import pytest

LONG = 20.0  # seconds that a thing may take on a busy machine before it counts as not happening


def pytest_addoption(parser):
    parser.addoption("--keltop", default="build/release/keltop", help="the command that starts the program")
    parser.addoption("--agent", default="build/release/keltop_object_agent",
                     help="the command that starts a process that uses machine-wide objects")
    parser.addoption("--trace-agent", default="build/release/keltop_trace_agent",
                     help="the command that starts a process that traces; keltop_trace_order lies beside it")
    parser.addoption("--flood-seconds", type=int, default=4,
                     help="how long two processes write and rotate one trace file")
    parser.addoption("--starts", type=int, default=100, help="how often the program is started and ended")


TIME_STAMP = rb"\d{4}/\d\d/\d\d-\d\d:\d\d:\d\d:\d{3}"
START_BANNER = rb"KELTOP - Built on Jan 15 2024 Version: 8\.0\.26"
ECHOED_BANNER = re.compile(rb"LOG1067 " + TIME_STAMP + rb" " + START_BANNER + rb"\r\n")
ECHOED_STOP = re.compile(rb"LOG1067  \r\n")


def without_trace(output):
    """The output without the two trace lines that every run echoes, wherever they came between the others: the start
    banner and, when the program ended by itself, the empty line that the end of the trace leaves."""
    return ECHOED_STOP.sub(b"", ECHOED_BANNER.sub(b"", output, count=1), count=1)


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


class Running:
    """A started program whose standard output is collected as it comes."""

    def __init__(self, command, env, text_mode, **options):
        self._text_mode = text_mode
        self._output = bytearray()
        self._changed = threading.Condition()
        self.process = subprocess.Popen(command, env=env, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                                        stderr=subprocess.PIPE, **options)
        self._reader = threading.Thread(target=self._read, daemon=True)
        self._reader.start()

    def _read(self):
        while chunk := os.read(self.process.stdout.fileno(), 1 << 16):
            with self._changed:
                self._output += chunk
                self._changed.notify_all()

    @property
    def output(self):
        with self._changed:
            return self._text_mode(bytes(self._output))

    def wait_for(self, text, timeout=LONG, start=0):
        """Waits until the output holds text from position start on; gives the output."""
        deadline = time.monotonic() + timeout
        with self._changed:
            while text not in self._text_mode(bytes(self._output))[start:]:
                if not self._changed.wait(deadline - time.monotonic()):
                    raise AssertionError(f"no {text!r} within {timeout} s in {bytes(self._output)[-2000:]!r}")
            return self._text_mode(bytes(self._output))

    def send_signal(self, number):
        self.process.send_signal(number)

    def wait(self, timeout=LONG):
        """Waits for the end; gives the exit code. All output has been collected then."""
        code = self.process.wait(timeout)
        self._reader.join(timeout)
        return code

    def interrupt(self, timeout=LONG):
        """Ctrl-C; gives the exit code."""
        self.send_signal(signal.SIGINT)
        return self.wait(timeout)


class Keltop:
    """Starts the program with a folder for the machine-wide objects and one for traces of its own."""

    def __init__(self, command, folder):
        self.command = shlex.split(command)
        self.windows = self.command[-1].endswith(".exe")
        self.folder = folder
        self.objects = os.path.join(folder, "objects")
        self.data = os.path.join(folder, "data")
        os.makedirs(self.objects)
        os.makedirs(os.path.join(self.data, "TRACELOGS"))
        self.env = {**os.environ, "KELTOP_OBJECT_DIR": self.objects, "KELTOP_DATA_LOCATION": self.data}
        self._started = []

    def text_mode(self, output):
        """Undoes the line ends of the Windows run-time library's text mode."""
        return output.replace(b"\r\n", b"\n") if self.windows else output

    def run(self, *switches, timeout=60, **options):
        """Runs the program to its end; standard input is empty unless given."""
        if "input" not in options:
            options.setdefault("stdin", subprocess.DEVNULL)
        env = options.pop("env", self.env)
        done = subprocess.run([*self.command, *switches], env=env, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                              timeout=timeout, **options)
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
        running = self.start("-p", str(port), *switches, **options)
        running.wait_for(b"Listening on: ")
        eventually(lambda: is_listening(port) or running.process.poll() is not None, what="listening")
        return running, port

    def close(self):
        for running in self._started:
            if running.process.poll() is None:
                running.process.kill()
            running.process.wait()
            running.process.stdout.close()
            running.process.stderr.close()


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


class Agent:
    """A process that holds and uses machine-wide objects, one command a line."""

    def __init__(self, command, folder, **options):
        self.process = subprocess.Popen(command, env={**os.environ, "KELTOP_OBJECT_DIR": folder},
                                        stdin=subprocess.PIPE, stdout=subprocess.PIPE, **options)

    def tell(self, *words):
        """Sends a command without waiting for its answer."""
        self.process.stdin.write((" ".join(map(str, words)) + "\n").encode())
        self.process.stdin.flush()

    def answer(self):
        """The next answer, as text."""
        return self.process.stdout.readline().decode().strip()

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
        if self.process.poll() is None:
            self.process.kill()
        self.process.wait()
        self.process.stdin.close()
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
        made = Agents(request.config.getoption("--agent"), folder)
        try:
            yield made
        finally:
            made.close()
