"""Trace files, written by real processes."""

import datetime
import os
import random
import re
import shlex
import socket
import subprocess
import tempfile
import threading
import time
import zoneinfo

import pytest

from conftest import (AS_NOBODY, Agents, Conversation, ECHOED_BANNER, ECHOED_STOP, LONG, START_BANNER, TIME_STAMP,
                      as_root, eventually, for_everybody, without_trace)

FULL = 50_000_000

MARKER = rb"LOG1067 (\d{4,}) (\d{4,}) " + TIME_STAMP + rb" FFFFFFFF File opened\r\n"
BANNER = rb"LOG1067 (\d{4,}) (\d{4,}) " + TIME_STAMP + rb" 00000006 " + START_BANNER + rb"\r\n"
STOP = rb"LOG1067 0000 0000  00000000 \r\n"
LINE = re.compile(rb"LOG1067 (\d{4,}) \d{4,} (?:" + TIME_STAMP + rb")? [0-9A-F]{8} ([^\r\n]*)")

linux_files = pytest.mark.skipif("config.getoption('--trace-agent').endswith('.exe')",
                                 reason="the file system's own rules are others there")
FLOOD_LINE = re.compile(rb"LOG1067 \d{4,} \d{4,} " + TIME_STAMP +
                        rb" (?:00000006 ([AB]):(\d+):x+|FFFFFFFF File opened)\r\n")


def live_path(program):
    return os.path.join(program.data, "TRACELOGS", "LOG1067.ltt")


def live(program):
    with open(live_path(program), "rb") as file:
        return file.read()


def texts(content):
    """The texts of a trace file's lines; every line must be whole."""
    assert content == b"" or content.endswith(b"\r\n"), content[-200:]
    found = []
    for line in content.split(b"\r\n")[:-1]:
        match = LINE.fullmatch(line)
        assert match, line[:300]
        found.append(match[2])
    return found


class TraceAgent(Conversation):
    """A process that traces what it is told to."""

    def __init__(self, program, command, *words, **options):
        super().__init__([*command, *words], env=program.env, **options)

    def write(self, line):
        self.tell(line)
        assert self.answer() == "done"

    def close(self):
        if self.process.poll() is None:
            self.process.kill()
        self.process.wait()
        self.process.stdin.close()
        self.process.stdout.close()


@pytest.fixture
def trace_agent(request, keltop):
    """Starts trace agents that share keltop's folders."""
    started = []
    command = shlex.split(request.config.getoption("--trace-agent"))

    def start(*words, prefix=(), everybody=False, **options):
        reached = for_everybody(command, keltop.folder) if everybody else command
        started.append(TraceAgent(keltop, [*prefix, *reached], *words, **options))
        return started[-1]

    yield start
    for agent in started:
        agent.close()


# What every run leaves


@pytest.mark.parametrize("switches", [("-h",), ("-?", "-p", "80"), ("-raw",), ("-p", "0"), ("-p", "x", "-raw"),
                                      ("-rsi", "json"), ("-isi", "xml", "-url", "http://[::1/")])
def test_a_run_that_ends_leaves_a_complete_file(keltop, switches):
    done = keltop.run(*switches)
    content = live(keltop)
    match = re.fullmatch(MARKER + BANNER + STOP, content)
    assert match, content
    marker_process, marker_thread, process, thread = match.groups()
    assert marker_process == process
    assert marker_thread != thread  # the writer's own
    if not keltop.windows:
        assert process == thread  # the main thread
    assert len(ECHOED_BANNER.findall(done.stdout)) == 1
    assert len(ECHOED_STOP.findall(done.stdout)) == 1


def test_the_echo_carries_the_time_stamp_of_the_file(keltop):
    done = keltop.run("-h")
    stamp = re.search(TIME_STAMP, ECHOED_BANNER.search(done.stdout)[0])[0]
    assert re.search(rb" " + stamp + rb" 00000006 KELTOP", live(keltop))


@linux_files
@pytest.mark.parametrize("zone", ["Etc/UTC", "Europe/Dublin", "Australia/Lord_Howe", "Africa/Casablanca", "Asia/Kathmandu",
                                  "America/St_Johns", "Pacific/Kiritimati", "Antarctica/Troll"])
def test_time_stamps_are_the_local_wall_clock(keltop, zone):
    place = zoneinfo.ZoneInfo(zone)
    before = datetime.datetime.now(place).replace(tzinfo=None)
    keltop.run("-h", env={**keltop.env, "TZ": zone})
    after = datetime.datetime.now(place).replace(tzinfo=None)
    stamps = re.findall(TIME_STAMP, live(keltop))
    assert len(stamps) == 2
    for stamp in stamps:
        time_of_line = datetime.datetime.strptime(stamp.decode() + "000", "%Y/%m/%d-%H:%M:%S:%f")
        assert before - datetime.timedelta(milliseconds=1) <= time_of_line <= after


@linux_files
def test_a_change_of_the_offset_is_in_the_next_line(keltop, trace_agent):
    """A process whose zone goes to summer time while it traces."""
    change = datetime.datetime.now(datetime.timezone.utc).replace(microsecond=0) + datetime.timedelta(seconds=3)
    day = (change - change.replace(month=1, day=1)).days + 1  # counted from 1 January, without a 29 February
    if change.year % 4 == 0 and change.month > 2:
        day -= 1
    keltop.env["TZ"] = f"AAA0BBB-1,J{day}/{change:%H:%M:%S},J{(day + 180) % 365 + 1}"
    agent = trace_agent("steps")
    while datetime.datetime.now(datetime.timezone.utc) < change + datetime.timedelta(seconds=1):
        agent.write("line")
    stamps = [datetime.datetime.strptime(stamp.decode() + "000", "%Y/%m/%d-%H:%M:%S:%f")
              for stamp in re.findall(TIME_STAMP, live(keltop))]
    local = change.replace(tzinfo=None)
    hour = datetime.timedelta(hours=1)
    assert any(stamp < local for stamp in stamps) and any(stamp >= local + hour for stamp in stamps)
    assert not [stamp for stamp in stamps if local <= stamp < local + hour]
    assert stamps == sorted(stamps)


def test_without_the_trace_the_output_is_the_help_alone(keltop):
    output = without_trace(keltop.run("-h").stdout)
    assert b"LOG1067" not in output
    assert output.startswith(b"KELTOP.EXE - 8.0.26.0 Built: Jan 15 2024\r\n")
    assert output.endswith(b"Example: keltop -rsi jazz -url http://127.0.0.1/rsi\n")


@pytest.mark.parametrize("switches", [(), ("-raw",)])
def test_a_listener_traces_its_start_and_its_end(keltop, switches):
    running, port = keltop.listen(*switches)
    running.wait_for(b"Version: 8.0.26\r\n")
    eventually(lambda: os.path.exists(live_path(keltop)) and live(keltop).endswith(b"8.0.26\r\n"), what="the banner")
    assert re.fullmatch(MARKER + BANNER, live(keltop))
    with socket.create_connection(("127.0.0.1", port)) as peer:  # what peers send is not traced
        peer.sendall(b"GET /shown HTTP/1.1\r\n\r\n")
        running.wait_for(b"GET /shown HTTP/1.1")
    assert running.interrupt() == 0
    assert re.fullmatch(MARKER + BANNER + STOP, live(keltop))


def test_a_listener_with_open_connections_stops_the_trace_too(keltop):
    running, port = keltop.listen("-raw")
    with socket.create_connection(("127.0.0.1", port)) as peer:
        peer.sendall(b"seen")
        running.wait_for(b"seen")
        assert running.interrupt() == 0
    assert re.fullmatch(MARKER + BANNER + STOP, live(keltop))
    assert len(ECHOED_STOP.findall(running.output)) == 1


def test_a_killed_listener_leaves_whole_lines(keltop):
    running, _ = keltop.listen()
    eventually(lambda: os.path.exists(live_path(keltop)) and live(keltop).endswith(b"8.0.26\r\n"), what="the banner")
    running.process.kill()
    running.wait()
    assert re.fullmatch(MARKER + BANNER, live(keltop))


def test_later_runs_continue_the_file(keltop):
    keltop.run("-h")
    keltop.run("-h")
    assert re.fullmatch((MARKER + BANNER + STOP) * 2, live(keltop))


def test_many_starts_and_exits(keltop, request):
    starts = request.config.getoption("--starts")
    for _ in range(starts):
        assert keltop.run("-h").returncode == 0
    found = texts(live(keltop))
    assert found.count(b"File opened") == starts
    assert sum(bool(re.fullmatch(START_BANNER, text)) for text in found) == starts


def test_a_full_live_file_is_rotated_by_a_listener(keltop):
    with open(live_path(keltop), "wb") as file:
        file.truncate(FULL)
    running, _ = keltop.listen()
    copies = eventually(lambda: [name for name in os.listdir(os.path.dirname(live_path(keltop))) if "-" in name],
                        what="the rotation")
    eventually(lambda: live(keltop).startswith(b"LOG1067"), what="the emptied file")
    assert running.interrupt() == 0
    assert re.fullmatch(MARKER + STOP, live(keltop))
    assert re.fullmatch(rb"LOG1067-\d{17}\.ltt", os.fsencode(copies[0]))
    with open(os.path.join(os.path.dirname(live_path(keltop)), copies[0]), "rb") as file:
        file.seek(FULL)
        assert re.fullmatch(MARKER + BANNER, file.read())


def wait_for_an_idle_writer(keltop, running):
    """Waits for the banner and then until the writer thread is not run for half a second."""
    eventually(lambda: os.path.exists(live_path(keltop)) and live(keltop).endswith(b"8.0.26\r\n"), what="the banner")
    writer = int(re.match(MARKER, live(keltop))[2])

    def switches():
        with open(f"/proc/{running.process.pid}/task/{writer}/status", encoding="ascii") as file:
            return [line for line in file if "ctxt_switches" in line]

    def settled():
        before = switches()
        time.sleep(0.5)  # the time that is measured
        return switches() == before

    eventually(settled, what="half a second without the writer")


@linux_files
def test_an_idle_listener_does_not_wake_its_writer_and_has_no_message_threads(keltop):
    running, _ = keltop.listen()
    wait_for_an_idle_writer(keltop, running)
    tasks = f"/proc/{running.process.pid}/task"
    names = []
    for task in os.listdir(tasks):
        with open(f"{tasks}/{task}/comm", encoding="ascii") as file:
            names.append(file.read())
    assert not [name for name in names if name.startswith("ZMQ")]


# Where nothing can be written


def test_without_the_trace_folder_nothing_is_written_or_said(keltop):
    os.rmdir(os.path.dirname(live_path(keltop)))
    done = keltop.run("-h")
    assert done.returncode == 0
    assert done.stderr == b""
    assert ECHOED_BANNER.search(done.stdout)
    assert os.listdir(keltop.data) == []


@pytest.mark.parametrize("place", [pytest.param("folder"), pytest.param("dangling link", marks=linux_files)])
def test_something_else_in_the_files_place_is_silent(keltop, place):
    if place == "folder":
        os.mkdir(live_path(keltop))
    else:
        os.symlink(os.path.join(keltop.data, "missing", "file"), live_path(keltop))
    done = keltop.run("-h")
    assert done.returncode == 0
    assert done.stderr == b""
    assert len(os.listdir(os.path.dirname(live_path(keltop)))) == 1


@linux_files
def test_a_folder_that_appears_takes_the_next_line(keltop, trace_agent):
    folder = os.path.dirname(live_path(keltop))
    os.rmdir(folder)
    agent = trace_agent("steps")
    agent.write("lost")
    os.mkdir(folder)
    agent.write("kept")
    assert texts(live(keltop)) == [b"File opened", b"kept"]


@linux_files
def test_a_deleted_file_is_made_anew(keltop, trace_agent):
    agent = trace_agent("steps")
    agent.write("one")
    os.remove(live_path(keltop))
    agent.write("lost")
    agent.write("two")
    assert texts(live(keltop)) == [b"File opened", b"two"]


@linux_files
@as_root
def test_a_read_only_folder_is_waited_out(keltop, trace_agent):
    folder = os.path.dirname(live_path(keltop))
    os.chmod(keltop.objects, 0o777)
    agent = trace_agent("steps", everybody=True, **AS_NOBODY)
    agent.write("lost")
    assert os.listdir(folder) == []
    os.chmod(folder, 0o777)
    agent.write("kept")
    assert texts(live(keltop)) == [b"File opened", b"kept"]


def can_mount():
    if os.geteuid() != 0:
        return False
    return subprocess.run(["unshare", "-m", "sh", "-c", "mount -t tmpfs tmpfs /mnt"], check=False,
                          stderr=subprocess.DEVNULL).returncode == 0


@linux_files
@pytest.mark.skipif(not can_mount(), reason="needs root and a mount namespace for a small disk")
def test_a_full_disk_is_waited_out_and_leaves_no_torn_line(keltop, trace_agent):
    folder = os.path.dirname(live_path(keltop))
    mount = f'mount -t tmpfs -o size=256k tmpfs "{folder}" && exec "$@"'
    agent = trace_agent("steps", prefix=["unshare", "-m", "sh", "-c", mount, "sh"])
    agent.write("one")
    inside = f"/proc/{agent.process.pid}/root{folder}"

    def written():
        with open(f"{inside}/LOG1067.ltt", "rb") as file:
            return texts(file.read())

    assert written() == [b"File opened", b"one"]
    with open(f"{inside}/filler", "wb", buffering=0) as filler, pytest.raises(OSError):
        while True:
            filler.write(b"x" * 1024)
    long = "x" * 3000  # reaches beyond the block that the file already has
    for _ in range(10):
        agent.write(long)
    before = written()
    assert before[:2] == [b"File opened", b"one"]
    assert before.count(long.encode()) < 10  # some were lost
    os.remove(f"{inside}/filler")
    agent.write("two")
    after = written()
    assert after[:len(before)] == before
    assert after[-2:] == [b"File opened", b"two"]


@linux_files
@pytest.mark.skipif(not can_mount(), reason="needs root and a mount namespace for a small disk")
def test_a_rotation_without_room_for_the_copy_changes_nothing_and_waits_for_room(keltop, trace_agent):
    folder = os.path.dirname(live_path(keltop))
    mount = f'mount -t tmpfs -o size=64m tmpfs "{folder}" && exec "$@"'
    agent = trace_agent("steps", prefix=["unshare", "-m", "sh", "-c", mount, "sh"])
    agent.write("one")
    inside = f"/proc/{agent.process.pid}/root{folder}"
    older = [f"LOG1067-{number}.ltt" for number in range(1, 7)]
    for name in older:
        with open(f"{inside}/{name}", "wb") as file:
            file.write(b"older")
    with open(f"{inside}/filler", "wb") as file:
        file.write(bytes(32 << 20))  # leaves less room than the copy takes
    os.truncate(f"{inside}/LOG1067.ltt", FULL)  # most of it a hole, which takes no room
    for text in ("two", "three"):
        agent.write(text)
    assert sorted(os.listdir(inside)) == sorted([*older, "LOG1067.ltt", "filler"])
    with open(f"{inside}/LOG1067.ltt", "rb") as file:
        assert texts(file.read(300).split(b"\0")[0]) == [b"File opened", b"one"]
        file.seek(FULL)
        assert texts(file.read()) == [b"two", b"three"]
    os.remove(f"{inside}/filler")

    def rotated():
        agent.write("again")
        return os.path.getsize(f"{inside}/LOG1067.ltt") < FULL

    eventually(rotated, what="the rotation")
    left = os.listdir(inside)
    assert len(left) == 4 and len(set(left) - set(older)) == 2, left


@linux_files
def test_a_file_that_was_moved_away_is_copied_before_it_is_emptied(keltop, trace_agent):
    folder = os.path.dirname(live_path(keltop))
    first, second = trace_agent("steps"), trace_agent("steps")
    first.write("kept")
    os.rename(live_path(keltop), os.path.join(folder, "moved"))
    os.truncate(os.path.join(folder, "moved"), FULL)
    first.write("fills it")
    second.write("of another file")
    first.write("rotates")
    copy, = (name for name in os.listdir(folder) if "-" in name)
    with open(os.path.join(folder, copy), "rb") as file:
        content = file.read()
    assert texts(content[:300].split(b"\0")[0]) == [b"File opened", b"kept"]
    assert texts(content[FULL:]) == [b"fills it"]
    assert os.path.getsize(os.path.join(folder, "moved")) == 0
    assert texts(live(keltop)) == [b"File opened", b"of another file", b"File opened", b"rotates"]


LIMIT = 4096


def limited(keltop):
    """The program under a limit for the size of what it writes, which its trace file has reached."""
    with open(live_path(keltop), "wb") as file:
        file.write(b"x" * (LIMIT - 2) + b"\r\n")
    keltop.command = ["prlimit", f"--fsize={LIMIT}", "--", *keltop.command]


@linux_files
@pytest.mark.parametrize("switches", [("-h",), ("-rsi", "json", "-url", "http://127.0.0.1:{}/rsi")], ids=["help", "post"])
def test_a_file_size_limit_loses_lines_and_nothing_else(keltop, switches):
    with socket.create_server(("127.0.0.1", 0)) as server:
        port = server.getsockname()[1]
        whole = without_trace(keltop.run("-h").stdout)
        limited(keltop)
        sent = []

        def serve():
            peer, _ = server.accept()
            with peer:
                sent.append(peer.recv(65536))
                peer.sendall(b"HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n")

        if switches[0] == "-rsi":
            server.settimeout(LONG)
            thread = threading.Thread(target=serve)
            thread.start()
        done = keltop.run(*(word.format(port) for word in switches))
        assert (done.returncode, done.stderr) == (0, b"")
        if switches[0] == "-rsi":
            thread.join()
            assert sent[0].startswith(b"POST /rsi/ HTTP/1.1\r\n")
            assert b"HTTP/1.1 OK 200" in done.stdout
        else:
            assert without_trace(done.stdout) == whole
    assert os.path.getsize(live_path(keltop)) == LIMIT


@linux_files
@pytest.mark.parametrize("output", ["pipe", "file"])
def test_a_listener_goes_on_under_a_file_size_limit(keltop, output):
    limited(keltop)
    with open(os.path.join(keltop.folder, "console"), "wb") as console:
        running, port = keltop.listen(**({} if output == "pipe" else {"stdout": console}))
        for number in range(20):
            with socket.create_connection(("127.0.0.1", port)) as peer:
                peer.settimeout(LONG)
                peer.sendall(b"GET /%d HTTP/1.1\r\nHost: me\r\n\r\n" % number)
                assert peer.recv(12) == b"HTTP/1.1 200", number
        assert running.interrupt() == 0
    if output == "file":
        assert os.path.getsize(console.name) <= LIMIT
    else:
        assert running.output.count(b"GET /") == 20
    assert os.path.getsize(live_path(keltop)) == LIMIT


@linux_files
@pytest.mark.skipif(not can_mount(), reason="needs root and a mount namespace for a machine's settings")
@pytest.mark.parametrize("settings, place", [("DataLocation=/mnt\n", "mnt"), ("DataLocation=\n", "lib"), (None, "lib")],
                         ids=["set", "empty", "missing"])
def test_the_machines_settings_name_the_folder(keltop, settings, place):
    """The settings file and both folders as the program finds them on a machine, in a view of the disk of its own."""
    folders = {name: os.path.join(keltop.folder, name) for name in ("etc", "mnt", "lib")}
    for folder in folders.values():
        os.makedirs(folder)
    os.makedirs(os.path.join(folders["mnt"], "TRACELOGS"))
    os.makedirs(os.path.join(folders["lib"], "vs", "TRACELOGS"))
    if settings is not None:
        with open(os.path.join(folders["etc"], "tarvik.conf"), "w", encoding="ascii") as file:
            file.write(settings)
    mount = (f'mount --bind "{folders["mnt"]}" /mnt && mount --bind "{folders["lib"]}" /var/lib && '
             f'mount --bind "{folders["etc"]}" /etc && exec "$@"')
    keltop.command = ["unshare", "-m", "sh", "-c", mount, "sh", *map(os.path.abspath, keltop.command)]
    env = {name: value for name, value in keltop.env.items() if name != "KELTOP_DATA_LOCATION"}
    assert keltop.run("-h", env=env).returncode == 0
    written = {at for name in ("mnt", "lib") for at, _, files in os.walk(folders[name]) if files}
    expected = {"mnt": ("mnt", "TRACELOGS"), "lib": ("lib", "vs", "TRACELOGS")}[place]
    assert written == {os.path.join(keltop.folder, *expected)}


# Several processes


class Copies:
    """Takes every rotated copy away as soon as it appears, so that none is deleted, and reads it when it is surely
    complete; at the end of a block that went well, all of them."""

    BEHIND = 3  # one may be in the making, and one that a dead process left unfinished may be found together with it

    def __init__(self, program, check):
        self.folder = os.path.dirname(live_path(program))
        self.taken = 0
        self._away = os.path.join(program.folder, "away")
        self._read = 0
        self._check = check
        self._errors = []
        self._ending = threading.Event()
        os.mkdir(self._away)
        self._threads = [threading.Thread(target=self._repeat, args=(action,), daemon=True)
                         for action in (self._take, lambda: self._read_up_to(self.taken - self.BEHIND))]

    def __enter__(self):
        for thread in self._threads:
            thread.start()
        return self

    def __exit__(self, kind, *_):
        self._ending.set()
        for thread in self._threads:
            thread.join()
        if kind is None:
            assert not self._errors, self._errors
            self._take()
            self._read_up_to(self.taken)

    def _repeat(self, action):
        try:
            while not self._ending.is_set():
                action()
                time.sleep(0.001)
        except BaseException as error:  # shown by the test, which is another thread
            self._errors.append(error)

    def _take(self):
        for name in sorted(os.listdir(self.folder)):
            if "-" in name:
                os.rename(os.path.join(self.folder, name), os.path.join(self._away, str(self.taken)))
                self.taken += 1

    def _read_up_to(self, end):
        while self._read < end:
            path = os.path.join(self._away, str(self._read))
            with open(path, "rb") as file:
                self._check(file.read())
            os.remove(path)
            self._read += 1


def start(agents):
    for agent in agents:
        assert agent.answer() == "ready"
    for agent in agents:
        agent.tell()


def stop(agents):
    """Gives how many lines each has written."""
    for agent in agents:
        agent.tell()
    return [int(agent.answer()) for agent in agents]


@pytest.fixture
def fast_folder(keltop):
    """Traces in memory where there is room, so that the disk is not what is tested."""
    if not os.access("/dev/shm", os.W_OK):
        yield
        return
    with tempfile.TemporaryDirectory(prefix="keltop-traces-", dir="/dev/shm") as folder:
        keltop.folder = folder
        keltop.data = os.path.join(folder, "data")
        keltop.env["KELTOP_DATA_LOCATION"] = keltop.data
        os.makedirs(os.path.join(keltop.data, "TRACELOGS"))
        yield


@linux_files
def test_two_processes_write_and_rotate_one_file_without_losing_a_line(keltop, trace_agent, fast_folder, request):
    seconds = request.config.getoption("--flood-seconds")
    seen = {b"A": set(), b"B": set()}

    def check(content):
        end = 0
        for line in FLOOD_LINE.finditer(content):
            assert line.start() == end, "a line that is not whole"
            end = line.end()
            if line[1]:
                assert line[2] not in seen[line[1]], "written twice"
                seen[line[1]].add(line[2])
        assert end == len(content), "a line that is not whole"

    with Copies(keltop, check) as copies:
        agents = [trace_agent("flood", tag, "1900") for tag in "AB"]
        start(agents)
        time.sleep(seconds)
        eventually(lambda: copies.taken >= 2, what="the second rotation")
        written = stop(agents)
    check(live(keltop))
    for tag, count in zip((b"A", b"B"), written):
        assert len(seen[tag]) == count
    print(f"{sum(written)} lines, {copies.taken} rotations in {seconds} s")


@linux_files
def test_two_processes_keep_no_more_than_four_files(keltop, trace_agent, fast_folder, request):
    seconds = request.config.getoption("--flood-seconds")
    folder = os.path.dirname(live_path(keltop))
    agents = [trace_agent("flood", tag, "1900") for tag in "AB"]
    start(agents)
    most = 0
    begin = time.monotonic()
    while time.monotonic() < begin + seconds or (most < 2 and time.monotonic() < begin + seconds + LONG):
        most = max(most, len(os.listdir(folder)))
        time.sleep(0.001)
    stop(agents)
    assert 2 <= most <= 5, "four, and the one just made; how many there are depends on the speed of the disk"
    assert len(os.listdir(folder)) <= 4


@linux_files
def test_a_killed_writer_changes_nothing_for_the_other(keltop, trace_agent, fast_folder, request):
    seconds = request.config.getoption("--flood-seconds")
    numbers = []
    dice = random.Random(1067)

    def check(content):
        # A line of the victim may be torn by its death, and then stands in front of one of the survivor's.
        numbers.extend(int(number) for number in re.findall(rb" A:(\d+):x*\r\n", content))

    with Copies(keltop, check) as copies:
        survivor = trace_agent("flood", "A", "1900")
        start([survivor])
        deaths = 0
        begin = time.monotonic()
        while (time.monotonic() < begin + seconds or deaths < 3
               or (copies.taken < 2 and time.monotonic() < begin + seconds + LONG)):
            victim = trace_agent("flood", "B", "1900")
            start([victim])
            time.sleep(dice.uniform(0, 0.1))  # the random moment
            victim.process.kill()
            victim.process.wait()
            deaths += 1
        assert copies.taken >= 2, "no rotation beside the deaths"
        written, = stop([survivor])
    check(live(keltop))
    # Who dies between the copy and the truncation leaves the lines in both files.
    missing = sorted(set(range(written)) - set(numbers))
    assert not missing, f"{len(missing)} of {written} lines, from {missing[0]} to {missing[-1]}"
    print(f"{written} lines beside {deaths} deaths and {copies.taken} rotations")


def waits(process):
    """How many machine-wide objects the process waits for: it has a notification of changes open for each."""
    descriptors = f"/proc/{process.pid}/fd"
    return [os.readlink(os.path.join(descriptors, name)) for name in os.listdir(descriptors)].count("anon_inode:inotify")


@linux_files
def test_a_rotation_waits_for_the_other_processs_turn(keltop, trace_agent, request):
    folder = os.path.dirname(live_path(keltop))
    others = Agents(request.config.getoption("--agent"), keltop.objects)
    try:
        other = others.start()
        turn, _ = other.obtain("create-mutex", "LOG1067")
        assert other.wait(turn, 0) == 0
        agent = trace_agent("steps")
        with open(live_path(keltop), "wb") as file:
            file.truncate(FULL)
        agent.write("opens the file")
        agent.tell("rotates it")
        eventually(lambda: waits(agent.process) == 1, what="the wait")
        assert os.listdir(folder) == ["LOG1067.ltt"]
        # The other process empties the file in its turn: there is nothing left to rotate then.
        os.truncate(live_path(keltop), 0)
        assert other.ask("release", turn).startswith("0")
        assert agent.answer() == "done"
    finally:
        others.close()
    assert os.listdir(folder) == ["LOG1067.ltt"]
    assert texts(live(keltop)) == [b"rotates it"]


@linux_files
def test_a_turn_that_nobody_gives_up_does_not_keep_a_listener(keltop, neighbours):
    """The writer waits for its turn to rotate without an end; the end of the program waits for it a while only."""
    other = neighbours.start()
    turn, _ = other.obtain("create-mutex", "LOG1067")
    assert other.wait(turn, 0) == 0
    with open(live_path(keltop), "wb") as file:
        file.truncate(FULL)
    running, _ = keltop.listen()
    eventually(lambda: waits(running.process) == 2, what="the main thread's wait and the writer's")
    assert running.interrupt() == 0
    assert re.fullmatch(MARKER + BANNER, live(keltop)[FULL:])


# The order of static objects


@pytest.mark.parametrize("stop", [(), ("stop",)])
def test_static_objects_may_trace_before_and_after_the_controller(keltop, request, stop):
    command = shlex.split(request.config.getoption("--trace-agent"))
    command[-1] = command[-1].replace("keltop_trace_agent", "keltop_trace_order")
    done = subprocess.run([*command, *stop], env=keltop.env, timeout=3 * LONG, capture_output=True, check=False)
    assert (done.returncode, done.stderr) == (0, b"")
    expected = [b"File opened", b"made early", b"made in main"]
    assert texts(live(keltop))[:3] == expected
    if not keltop.windows:  # there the controller is made before, and so ends after, the objects of that file
        assert b"much too late" not in live(keltop)
    assert b"after the stop" not in live(keltop)


def test_the_exit_stops_the_trace_before_static_objects_end(keltop, request):
    """Not the controller's own end, which comes after theirs: what they trace is too late."""
    command = shlex.split(request.config.getoption("--trace-agent"))
    command[-1] = command[-1].replace("keltop_trace_agent", "keltop_trace_order")
    done = subprocess.run([*command, "run", "-h"], env=keltop.env, timeout=3 * LONG, capture_output=True, check=False)
    assert (done.returncode, done.stderr) == (0, b"")
    found = texts(live(keltop))
    assert found[:2] == [b"File opened", b"made early"]
    assert re.fullmatch(START_BANNER, found[2])
    assert found[3:] == [b""]


@as_root
@linux_files
def test_every_account_writes_to_the_same_file(keltop):
    """Whoever comes first, whatever the umask; the folder is sticky, as the installation makes it."""
    folder = os.path.join(keltop.data, "TRACELOGS")
    os.chmod(folder, 0o1777)
    keltop.command = for_everybody(keltop.command, keltop.folder)
    for first, second in (({}, AS_NOBODY), (AS_NOBODY, {})):
        assert keltop.run("-h", umask=0o077, **first).returncode == 0
        assert keltop.run("-h", umask=0o077, **second).returncode == 0
        with open(os.path.join(folder, "LOG1067.ltt"), "rb") as file:
            assert file.read().count(b"KELTOP - Built on") == 2
        os.remove(os.path.join(folder, "LOG1067.ltt"))
