"""Measures keltop against named peers, side by side in one run, and prints one table.

Each ratio is the median of pairs taken one right after the other, so that what else the machine does hits both alike.
"""

import argparse
import concurrent.futures
import contextlib
import datetime
import json
import os
import platform
import re
import resource
import signal
import socket
import statistics
import subprocess
import sys
import tempfile
import time

from handshakes import handshakes

HERE = os.path.dirname(os.path.abspath(__file__))

WORKERS = 16  # requests at a time, where what a crowd leaves behind is measured
CROWD = 1000  # peers at once
TRACE_WAIT = 10  # milliseconds that the end of every run waits for the trace, which is a requirement
TAKEN = b"taken"  # what the web server answers a post


def free_port():
    with socket.socket() as probe:
        probe.bind(("0.0.0.0", 0))
        return probe.getsockname()[1]


def listens(port):
    """Whether somebody does, looked up without connecting."""
    with open("/proc/net/tcp", encoding="ascii") as table:
        entries = [line.split() for line in list(table)[1:]]
    return any(entry[1].endswith(f":{port:04X}") and entry[3] == "0A" for entry in entries)


def answers(port):
    """One HTTP request; whether it was answered."""
    try:
        with socket.create_connection(("127.0.0.1", port), timeout=5) as peer:
            peer.sendall(b"GET / HTTP/1.1\r\nHost: x\r\nConnection: close\r\n\r\n")
            return peer.recv(12) == b"HTTP/1.1 200"
    except OSError:
        return False


def until(condition, what, limit=20, pause=0.005):
    deadline = time.monotonic() + limit
    while not condition():
        if time.monotonic() > deadline:
            sys.exit(f"{what}: not within {limit} s")
        time.sleep(pause)


def to_and_fro(rounds, own, other):
    """Pairs of figures. Who is first changes, so that a machine that gets slower or faster favours nobody."""
    pairs = []
    for number in range(rounds):
        if number % 2:
            pairs.append((own(), other()))
        else:
            figure = other()
            pairs.append((own(), figure))
    return pairs


class Bench:
    def __init__(self, build, windows, folder):
        self.build = build
        self.windows = windows
        self.folder = folder
        self.env = {**os.environ, "KELTOP_OBJECT_DIR": folder, "KELTOP_DATA_LOCATION": folder}
        os.makedirs(os.path.join(folder, "TRACELOGS"), exist_ok=True)
        self.rows = []
        self.missed = []

    def keltop(self, *switches):
        return [os.path.join(self.build, "keltop"), *switches]

    def start(self, command, output=None):
        """Starts a peer whose output goes to a file."""
        with open(output or os.path.join(self.folder, "output"), "wb") as file:
            return subprocess.Popen(command, stdin=subprocess.PIPE, stdout=file, stderr=subprocess.DEVNULL, env=self.env)

    @staticmethod
    def stop(process):
        process.send_signal(signal.SIGINT)
        try:
            process.wait(5)
        except subprocess.TimeoutExpired:
            process.kill()
            process.wait()
        process.stdin.close()

    def row(self, what, value, reference="", limit="", met=None):
        self.rows.append((what, value, reference, limit, {None: "", True: "met", False: "MISSED"}[met]))
        print(f"  {what}: {value}", file=sys.stderr)
        if met is False:
            self.missed.append(what)

    def ratio(self, what, pairs, reference, limit=None, unit="", at_most=False):
        """A row for pairs of (keltop, peer) figures."""
        ratio = statistics.median(own / other for own, other in pairs)
        figures = [statistics.median(column) for column in zip(*pairs)]
        met = None if limit is None else ratio <= limit if at_most else ratio >= limit
        sign = "<=" if at_most else ">="
        self.row(what, f"{ratio:.2f}", f"{reference} ({figures[0]:.4g} to {figures[1]:.4g} {unit})",
                 "" if limit is None else f"{sign} {limit}", met)

    # HTTP

    def requests_per_second(self, port, connections, seconds, may_lose=0):
        done = subprocess.run(["wrk", f"-t{min(2, connections)}", f"-c{connections}", f"-d{seconds}s",
                               f"http://127.0.0.1:{port}/rsi?x=1"], stdout=subprocess.PIPE, check=True)
        self.check_wrk(done.stdout, may_lose)
        return float(re.search(rb"Requests/sec:\s+([\d.]+)", done.stdout)[1])

    @staticmethod
    def check_wrk(report, part):
        """Ends the run when more than a part of the requests was not answered, beyond what was under way at its end. An
        answer that ends with its connection counts as answered and as an error of reading, and wrk connects twice after
        it; so errors of reading are none or as many as requests."""
        requests = int(re.search(rb"(\d+) requests in", report)[1])
        errors = re.search(rb"Socket errors: connect (\d+), read (\d+), write (\d+), timeout (\d+)", report)
        connect, read, write, late = map(int, errors.groups()) if errors else (0, 0, 0, 0)
        lost = min(read, abs(read - requests))
        under_way = int(re.search(rb"(\d+) connections", report)[1])
        if not requests or lost > under_way + part * requests or connect or write or late or b"Non-2xx" in report:
            sys.exit(f"requests were lost, refused or late:\n{report.decode()}")

    def http(self, rounds, seconds):
        own, floor, node, bare = free_port(), free_port(), free_port(), free_port()
        servers = [self.start(self.keltop("-p", str(own)), os.path.join(self.folder, "keltop.out")),
                   self.start([os.path.join(self.build, "FloorServer"), str(floor)]),
                   self.start(["node", os.path.join(HERE, "node-server.js"), str(node)],
                              os.path.join(self.folder, "node.out")),
                   self.start([os.path.join(self.build, "BareServer"), str(bare)],
                              os.path.join(self.folder, "bare.out"))]
        try:
            for port in (own, floor, node, bare):
                until(lambda: answers(port), "a peer's start")
            for connections, above_floor, above_node in ((1, 1.2, 1.1), (8, 1.2, 1.2), (64, 1.1, 1.2)):
                with_floor, with_node, with_bare = [], [], []
                for number in range(rounds):
                    # To and fro, so that a machine that gets slower or faster favours nobody.
                    order = (own, floor, node, bare) if number % 2 else (bare, node, floor, own)
                    # The library's queue drops what is beyond 64: wrk's surplus connections.
                    figures = {port: self.requests_per_second(port, connections, seconds, 0.05 if port == floor else 0)
                               for port in order}
                    with_floor.append((figures[own], figures[floor]))
                    with_node.append((figures[own], figures[node]))
                    with_bare.append((figures[own], figures[bare]))
                what = f"HTTP requests, {connections} connection{'s' if connections > 1 else ''}"
                self.ratio(what, with_bare, "the limit: system calls alone", None, "1/s")
                self.ratio(what, with_floor, "same library with its own sockets, prints nothing", above_floor, "1/s")
                self.ratio(what, with_node, "Node script that prints", above_node, "1/s")
        finally:
            for server in servers:
                self.stop(server)

    # Raw TCP

    def raw_seconds(self, command, port, size, output, peers=1):
        """The time from the first connection until the peer has shown as many bytes as were sent in all."""
        process = self.start(command, output)
        connections = []
        try:
            until(lambda: listens(port), f"{command[0]}'s start")
            before = os.path.getsize(output)
            begin = time.perf_counter()
            for _ in range(peers):
                connections.append(socket.create_connection(("127.0.0.1", port)))
            with concurrent.futures.ThreadPoolExecutor(peers) as pool:
                for sent in [pool.submit(self.send_and_close, connection, size // peers) for connection in connections]:
                    sent.result()
            until(lambda: os.path.getsize(output) >= before + size, "the whole burst", 120, pause=0.0002)
            return time.perf_counter() - begin
        finally:
            self.stop(process)

    @staticmethod
    def send_and_close(connection, size):
        with connection:
            connection.sendall(b"x" * size)

    def raw(self, rounds, megabytes):
        output = os.path.join(self.folder, "raw.out")

        def speed(command, size, peers=1):
            port = free_port()
            return size / self.raw_seconds(command(port), port, size * 1_000_000, output, peers)

        def own(port):
            return self.keltop("-raw", "-p", str(port))

        peers = [("bare loop of one-byte receives", lambda port: [os.path.join(self.build, "OneByteLoop"), str(port)], 3,
                  min(20, megabytes)),
                 ("nc -l", lambda port: ["nc", "-l", str(port)], 0.95, megabytes),
                 ("socat", lambda port: ["socat", "-u", f"TCP-LISTEN:{port},reuseaddr", "STDOUT"], 1, megabytes)]
        for name, command, limit, size in peers:
            pairs = to_and_fro(rounds, lambda: speed(own, size), lambda: speed(command, size))
            self.ratio(f"raw bytes in a burst of {size} MB", pairs, name, limit, "MB/s")
        pairs = to_and_fro(rounds, lambda: speed(own, 256, 64), lambda: speed(own, 256))
        self.ratio("raw bytes of 64 peers at once, 4 MB each", pairs, "one peer with as many", 0.8, "MB/s")

    # A crowd

    def crowd(self, rounds):
        """As many raw peers at once: how long until every line is shown, what they cost, how long the end takes."""
        resource.setrlimit(resource.RLIMIT_NOFILE, (resource.getrlimit(resource.RLIMIT_NOFILE)[1],) * 2)
        shown, memory, ends = [], [], []
        for _ in range(rounds):
            port, output = free_port(), os.path.join(self.folder, "crowd.out")
            process = self.start(self.keltop("-raw", "-p", str(port)), output)
            with contextlib.ExitStack() as stack:
                stack.callback(self.stop, process)
                until(lambda: listens(port), "keltop's start")
                begin = time.perf_counter()
                for number in range(CROWD):
                    peer = stack.enter_context(socket.create_connection(("127.0.0.1", port)))
                    peer.sendall(b"<%d>\n" % number)

                def lines():
                    with open(output, "rb") as file:
                        return file.read().count(b">\n")
                until(lambda: lines() == CROWD, "every peer's line", 60)
                shown.append(time.perf_counter() - begin)
                memory.append(self.resident(process) / 1024)
                begin = time.perf_counter()
                process.send_signal(signal.SIGINT)
                process.wait(20)
                ends.append(time.perf_counter() - begin)
        for what, figures, unit, limit in ((f"{CROWD} raw peers at once, until every line is shown", shown, "s", 2),
                                           (f"{CROWD} raw peers at once, memory", memory, "MiB", 48),
                                           (f"{CROWD} raw peers at once, the end", ends, "s", 1)):
            middle = statistics.median(figures)
            self.row(what, f"{middle:.2f} {unit}", f"worst of {rounds}: {max(figures):.2f} {unit}", f"<= {limit} {unit}",
                     middle <= limit)

    # Idle

    def idle(self, seconds):
        """The processor time of a listener that has nothing to do."""
        for what, switches, peers in (("HTTP listener, nobody connected", (), 0),
                                      ("raw listener, 100 silent peers", ("-raw",), 100)):
            port = free_port()
            process = self.start(self.keltop(*switches, "-p", str(port)))
            with contextlib.ExitStack() as stack:
                stack.callback(self.stop, process)
                until(lambda: listens(port), "keltop's start")
                for _ in range(peers):
                    stack.enter_context(socket.create_connection(("127.0.0.1", port)))
                time.sleep(1)
                before = self.processor_seconds(process)
                time.sleep(seconds)
                spent = self.processor_seconds(process) - before
            self.row(f"idle: {what}", f"{1000 * spent:.0f} ms", f"of processor time in {seconds} s")

    @staticmethod
    def processor_seconds(process):
        """As the scheduler counts it: the ticks of the process are too coarse."""
        spent = 0
        for thread in os.listdir(f"/proc/{process.pid}/task"):
            with open(f"/proc/{process.pid}/task/{thread}/schedstat", encoding="ascii") as file:
                spent += int(file.read().split()[0])
        return spent / 1e9

    # Start-up

    def milliseconds(self, command, wanted=b""):
        """From start to exit. What has to stand in the output is looked for when the time has been taken."""
        with (tempfile.TemporaryFile(dir=self.folder) if wanted else open(os.devnull, "wb")) as output:
            begin = time.perf_counter()
            subprocess.run(command, stdin=subprocess.DEVNULL, stdout=output, env=self.env, check=True)
            spent = time.perf_counter() - begin
            if wanted:
                output.seek(0)
                shown = output.read()
                if wanted not in shown:
                    sys.exit(f"no {wanted!r} from {command[0]}: {shown[-500:]!r}")
        return 1000 * spent

    def start_up(self, rounds):
        for name, command in (("curl --version", ["curl", "--version"]), ("node -e 0", ["node", "-e", "0"])):
            pairs = to_and_fro(rounds, lambda: self.milliseconds(self.keltop("-h")) - TRACE_WAIT,
                               lambda: self.milliseconds(command))
            self.ratio(f"start to exit, -h, less {TRACE_WAIT} ms for the trace", pairs, name, None, "ms", at_most=True)
        times = []
        for _ in range(rounds):
            port = free_port()
            begin = time.perf_counter()
            process = self.start(self.keltop("-p", str(port)))
            try:
                while not answers(port):
                    if time.perf_counter() - begin > 20:
                        sys.exit("keltop did not start")
                times.append(1000 * (time.perf_counter() - begin))
            finally:
                self.stop(process)
        middle = statistics.median(times)
        self.row("start to first answered request", f"{middle:.1f} ms", f"worst of {rounds}: {max(times):.1f} ms",
                 "<= 100 ms", middle <= 100)

    # Posts

    def nginx(self, plain, secure):
        """A web server that answers every post, on two ports."""
        def path(name):
            return os.path.join(self.folder, name)
        subprocess.run(["openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-days", "1", "-subj",
                        "/CN=localhost", "-keyout", path("key.pem"), "-out", path("certificate.pem")],
                       stderr=subprocess.DEVNULL, check=True)
        with open(path("nginx.conf"), "w", encoding="ascii") as file:
            file.write(f"""daemon off; pid {path('nginx.pid')}; error_log {path('nginx.log')}; worker_processes 1;
events {{}}
http {{
  access_log off;
  client_body_temp_path {path('b')}; proxy_temp_path {path('p')}; fastcgi_temp_path {path('f')};
  uwsgi_temp_path {path('u')}; scgi_temp_path {path('s')};
  server {{
    listen 127.0.0.1:{plain};
    listen 127.0.0.1:{secure} ssl;
    ssl_certificate {path('certificate.pem')};
    ssl_certificate_key {path('key.pem')};
    location / {{ return 200 "{TAKEN.decode()}"; }}
  }}
}}
""")
        return self.start(["nginx", "-p", self.folder, "-c", path("nginx.conf"), "-e", path("nginx.log")])

    def posts(self, rounds):
        plain, secure = free_port(), free_port()
        server = self.nginx(plain, secure)
        body = os.path.join(self.folder, "body.json")
        try:
            until(lambda: answers(plain), "nginx's start")
            shown = subprocess.run(self.keltop("-rsi", "json", "-url", f"http://127.0.0.1:{plain}/rsi"), env=self.env,
                                   stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, check=True).stdout
            with open(body, "wb") as file:
                file.write(re.search(rb"\r\n\r\n(\{.*?\n\})", shown, re.S)[1])
            for name, url in (("HTTP", f"http://127.0.0.1:{plain}/rsi/"),
                              ("HTTPS", f"https://127.0.0.1:{secure}/rsi/")):
                curl = ["curl", "-s", "-k", "-H", "Content-Type: application/json", "--data-binary", f"@{body}", url]
                post = self.keltop("-rsi", "json", "-url", url)  # it ends with 0 whatever came of it
                pairs = to_and_fro(rounds, lambda: self.milliseconds(post, TAKEN) - TRACE_WAIT,
                                   lambda: self.milliseconds(curl, TAKEN))
                self.ratio(f"one JSON post by {name}, whole process, less {TRACE_WAIT} ms for the trace", pairs,
                           "curl, same bytes", None, "ms", at_most=True)
        finally:
            self.stop(server)

    # Micro-benchmarks

    def figures(self, program, figure, rounds):
        """What a micro-benchmark measured, by the names of its runs."""
        done = subprocess.run([os.path.join(self.build, program), f"--benchmark_repetitions={rounds}",
                               "--benchmark_enable_random_interleaving=true", "--benchmark_format=json"],
                              stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, env=self.env, check=True)
        found = {}
        for run in json.loads(done.stdout)["benchmarks"]:
            if run["run_type"] == "iteration":
                found.setdefault(run["run_name"], []).append(run[figure])
        return found

    def trace(self, rounds):
        costs = self.figures("TraceCallBench", "cpu_time", rounds)
        for threads in (1, 8):
            own, other = (costs[f"{call}/real_time/threads:{threads}"] for call in ("traceCall", "spdlogCall"))
            self.ratio(f"a trace call's cost, {threads} thread{'s' if threads > 1 else ''}", list(zip(own, other)),
                       "spdlog, asynchronous, set alike", None, "ns", at_most=True)
        lines = self.figures("TraceCallBench", "items_per_second", rounds)
        self.ratio("trace lines to the file", list(zip(lines["traceToFile/real_time"], lines["spdlogToFile/real_time"])),
                   "spdlog, flushes without fsync", None, "1/s")

    def xml(self, rounds):
        speeds = self.figures("XmlElementBench", "items_per_second", rounds)
        for what, own, tiny in (("XML elements written", "writeOwnTree", "writeTinyTree"),
                                ("XML elements built and written", "buildAndWriteOwnTree", "buildAndWriteTinyTree")):
            self.ratio(what, list(zip(speeds[own], speeds[tiny])), "TinyXML2", None, "1/s")

    # The Windows build, under Wine

    def under_wine(self, rounds, seconds):
        if not self.windows:
            self.row("Windows build", "not built", "scripts/build-windows.sh")
            return
        foreign = ["wine", self.windows]
        self.milliseconds([*foreign, "-h"])  # Wine itself has started
        pairs = to_and_fro(rounds, lambda: self.milliseconds([*foreign, "-h"]),
                           lambda: self.milliseconds(self.keltop("-h")))
        self.ratio("Windows build: start to exit, -h", pairs, "Linux build", None, "ms", at_most=True)
        ports = free_port(), free_port()
        servers = [self.start([*command, "-p", str(port)], os.path.join(self.folder, f"{port}.out"))
                   for command, port in zip((foreign, self.keltop()), ports)]
        try:
            for port in ports:
                until(lambda: answers(port), "a listener's start")
            for connections in (1, 8, 64):
                pairs = to_and_fro(max(3, rounds // 6), *(
                    lambda p=port: self.requests_per_second(p, connections, seconds) for port in ports))
                what = f"Windows build: HTTP requests, {connections} connection{'s' if connections > 1 else ''}"
                self.ratio(what, pairs, "Linux build", None, "1/s")
        finally:
            for server in servers:
                self.stop(server)

    # What must not grow

    @staticmethod
    def resident(process):
        with open(f"/proc/{process.pid}/status", encoding="ascii") as file:
            return int(re.search(r"VmRSS:\s+(\d+)", file.read())[1])

    @staticmethod
    def descriptors(process):
        return len(os.listdir(f"/proc/{process.pid}/fd"))

    def settled_descriptors(self, process, expected=None):
        """Their number, once it is the expected one, or else has not changed for half a second."""
        number, since = self.descriptors(process), time.monotonic()
        deadline = time.monotonic() + 5
        while number != expected and time.monotonic() < (deadline if expected else min(deadline, since + 0.5)):
            time.sleep(0.01)
            if (now := self.descriptors(process)) != number:
                number, since = now, time.monotonic()
        return number

    @staticmethod
    def requests(port, count, at_once=8):
        def work(_):
            return sum(answers(port) for _ in range(count // at_once))
        with concurrent.futures.ThreadPoolExecutor(at_once) as pool:
            answered = sum(pool.map(work, range(at_once)))
        if answered != count:
            sys.exit(f"{count - answered} of {count} requests were not answered")

    @staticmethod
    def use_every_worker(port, output):
        """As many requests at a time as there are workers: none ends before each has begun."""
        with contextlib.ExitStack() as stack:
            peers = [stack.enter_context(socket.create_connection(("127.0.0.1", port), 20)) for _ in range(WORKERS)]
            for peer in peers:
                peer.sendall(b"POST / HTTP/1.1\r\nContent-Length: 1\r\n\r\n")

            def begun():
                with open(output, "rb") as file:
                    return file.read().count(b"\nContent-Length: 1\n")
            until(lambda: begun() == WORKERS, "every worker's request")
            for peer in peers:
                peer.sendall(b"x")
            if not all(peer.recv(12) == b"HTTP/1.1 200" for peer in peers):
                sys.exit("a request was not answered")

    def growth(self):
        port = free_port()
        output = os.path.join(self.folder, "growth.out")
        process = self.start(self.keltop("-p", str(port)), output)
        try:
            until(lambda: listens(port), "keltop's start")
            open_at_start = self.settled_descriptors(process)
            self.use_every_worker(port, output)
            self.requests(port, 10_000)
            open_after = self.settled_descriptors(process, open_at_start)
            early = self.resident(process)
            self.requests(port, 90_000)
            late = self.resident(process)
        finally:
            self.stop(process)
        self.row("memory after 100,000 requests", f"{late / early:.3f}", f"after 10,000 ({late} to {early} KiB)",
                 "<= 1.05", late <= early * 1.05)
        self.row("open descriptors after 10,000 connections", str(open_after), f"at start: {open_at_start}", "equal",
                 open_after == open_at_start)

    def table(self):
        heads = ("what", "keltop", "compared with", "wanted", "")
        widths = [max(len(row[i]) for row in [heads, *self.rows]) for i in range(5)]
        lines = ["  ".join(cell.ljust(width) for cell, width in zip(row, widths)).rstrip()
                 for row in [heads, tuple("-" * width for width in widths[:4]) + ("",), *self.rows]]
        return "\n".join(lines)

    def page(self, command):
        """The table as a page of its own, with what it was measured on."""
        with open("/proc/cpuinfo", encoding="utf-8") as processors:
            model = re.search(r"^model name\s*: (.*)$", processors.read(), re.MULTILINE)
        memory = os.sysconf("SC_PHYS_PAGES") * os.sysconf("SC_PAGE_SIZE") / 2 ** 30
        cells = [("what", "keltop", "compared with", "wanted", ""), ("---",) * 5, *self.rows]
        return "\n".join([
            "# What it costs", "",
            "Every figure is a ratio measured side by side with a peer, in one run. The benchmark writes this page.", "",
            "| | |", "| --- | --- |", f"| command | `{command}` |", f"| date | {datetime.date.today()} |",
            f"| machine | {os.cpu_count()} cores of {model[1].strip() if model else platform.machine()}, {memory:.0f} GiB, "
            f"{platform.system()} {platform.release().split('-')[0]} |", "",
            *("| " + " | ".join(row) + " |" for row in cells)]) + "\n"


def main():
    options = argparse.ArgumentParser(description=__doc__)
    options.add_argument("--build", required=True, help="the folder of the built programs")
    options.add_argument("--windows", help="the program for Windows, where it has been built")
    options.add_argument("--quick", action="store_true", help="shorter rounds, for trying the benchmark itself")
    options.add_argument("--page", help="the file to write the table to, as a page")
    options.add_argument("only", nargs="*", help="http, raw, crowd, tls, idle, start, posts, trace, xml, windows or growth; all without")
    given = options.parse_args()
    with tempfile.TemporaryDirectory(prefix="keltop-bench-") as folder:
        bench = Bench(given.build, given.windows, folder)
        parts = {"http": lambda: bench.http(3 if given.quick else 15, 1 if given.quick else 2),
                 "raw": lambda: bench.raw(1 if given.quick else 15, 200),
                 "crowd": lambda: bench.crowd(1 if given.quick else 15),
                 "tls": lambda: handshakes(bench, 2 if given.quick else 15, 2, free_port, until, listens),
                 "idle": lambda: bench.idle(5 if given.quick else 60),
                 "start": lambda: bench.start_up(5 if given.quick else 31),
                 "posts": lambda: bench.posts(5 if given.quick else 31),
                 "trace": lambda: bench.trace(3 if given.quick else 5),
                 "xml": lambda: bench.xml(3 if given.quick else 11),
                 "windows": lambda: bench.under_wine(5 if given.quick else 31, 1 if given.quick else 4),
                 "growth": bench.growth}
        if unknown := [name for name in given.only if name not in parts]:
            options.error(f"no part is named {', '.join(unknown)}")
        for name, part in parts.items():
            if not given.only or name in given.only:
                part()
        print(bench.table())
        if given.page:
            with open(given.page, "w", encoding="utf-8") as page:
                page.write(bench.page(" ".join(["scripts/bench.sh", *(["--quick"] if given.quick else []), *given.only])))
        return 1 if bench.missed else 0


if __name__ == "__main__":
    sys.exit(main())
