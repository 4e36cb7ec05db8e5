"""Measures keltop against named peers, side by side in one run, and prints one table.

Each ratio is the median of pairs taken one right after the other, so that what else the machine does hits both alike.
"""

import argparse
import datetime
import json
import os
import platform
import re
import signal
import socket
import statistics
import subprocess
import sys
import tempfile
import threading
import time

HERE = os.path.dirname(os.path.abspath(__file__))


def free_port():
    with socket.socket() as probe:
        probe.bind(("0.0.0.0", 0))
        return probe.getsockname()[1]


def answers(port):
    """One HTTP request; whether it was answered."""
    try:
        with socket.create_connection(("127.0.0.1", port), timeout=5) as peer:
            peer.sendall(b"GET / HTTP/1.1\r\nHost: x\r\nConnection: close\r\n\r\n")
            return peer.recv(12) == b"HTTP/1.1 200"
    except OSError:
        return False


def until(condition, limit=20):
    deadline = time.monotonic() + limit
    while not condition():
        if time.monotonic() > deadline:
            sys.exit("a peer did not start")
        time.sleep(0.005)


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

    def requests_per_second(self, port, connections, seconds):
        done = subprocess.run(["wrk", f"-t{min(2, connections)}", f"-c{connections}", f"-d{seconds}s",
                               f"http://127.0.0.1:{port}/rsi?x=1"], stdout=subprocess.PIPE, check=True)
        return float(re.search(rb"Requests/sec:\s+([\d.]+)", done.stdout)[1])

    def http(self, rounds, seconds):
        own, floor, node = free_port(), free_port(), free_port()
        servers = [self.start(self.keltop("-p", str(own)), os.path.join(self.folder, "keltop.out")),
                   self.start([os.path.join(self.build, "FloorServer"), str(floor)]),
                   self.start(["node", os.path.join(HERE, "node-server.js"), str(node)],
                              os.path.join(self.folder, "node.out"))]
        try:
            for port in (own, floor, node):
                until(lambda: answers(port))
            for connections in (1, 8, 64):
                with_floor, with_node = [], []
                for number in range(rounds):
                    # To and fro, so that a machine that gets slower or faster favours nobody.
                    order = (own, floor, node) if number % 2 else (node, floor, own)
                    figures = {port: self.requests_per_second(port, connections, seconds) for port in order}
                    with_floor.append((figures[own], figures[floor]))
                    with_node.append((figures[own], figures[node]))
                what = f"HTTP requests, {connections} connection{'s' if connections > 1 else ''}"
                self.ratio(what, with_floor, "same library, prints nothing", 0.95, "1/s")
                self.ratio(what, with_node, "Node script that prints", None, "1/s")
        finally:
            for server in servers:
                self.stop(server)

    # Raw TCP

    def raw_seconds(self, command, port, size, output):
        """The time from the connection until the peer has shown as many bytes as were sent."""
        process = self.start(command, output)
        connection = None
        try:
            deadline = time.monotonic() + 20
            while connection is None:
                try:
                    connection = socket.create_connection(("127.0.0.1", port))
                except OSError:
                    if time.monotonic() > deadline:
                        sys.exit(f"{command[0]} did not start")
                    time.sleep(0.01)
            before = os.path.getsize(output)
            begin = time.perf_counter()
            connection.sendall(b"x" * size)
            connection.close()
            until(lambda: os.path.getsize(output) >= before + size, 120)
            return time.perf_counter() - begin
        finally:
            self.stop(process)

    def raw(self, rounds, megabytes):
        size = megabytes * 1_000_000
        output = os.path.join(self.folder, "raw.out")
        peers = [("bare loop of one-byte receives", lambda port: [os.path.join(self.build, "OneByteLoop"), str(port)], 3),
                 ("nc -l", lambda port: ["nc", "-l", str(port)], None),
                 ("socat", lambda port: ["socat", "-u", f"TCP-LISTEN:{port},reuseaddr", "STDOUT"], None)]
        for name, command, limit in peers:
            pairs = []
            for _ in range(rounds):
                own, other = free_port(), free_port()
                seconds = (self.raw_seconds(self.keltop("-raw", "-p", str(own)), own, size, output),
                           self.raw_seconds(command(other), other, size, output))
                pairs.append(tuple(megabytes / second for second in seconds))
            self.ratio("raw bytes in a burst", pairs, name, limit, "MB/s")

    # Start-up

    def seconds(self, command):
        begin = time.perf_counter()
        subprocess.run(command, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, env=self.env, check=True)
        return time.perf_counter() - begin

    def start_up(self, rounds):
        for name, command in (("curl --version", ["curl", "--version"]), ("node -e 0", ["node", "-e", "0"])):
            pairs = [tuple(1000 * self.seconds(c) for c in (self.keltop("-h"), command)) for _ in range(rounds)]
            self.ratio("start to exit, -h", pairs, name, None, "ms", at_most=True)
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
    location / {{ return 200 "taken"; }}
  }}
}}
""")
        return self.start(["nginx", "-p", self.folder, "-c", path("nginx.conf"), "-e", path("nginx.log")])

    def posts(self, rounds):
        plain, secure = free_port(), free_port()
        server = self.nginx(plain, secure)
        body = os.path.join(self.folder, "body.json")
        try:
            until(lambda: answers(plain))
            shown = subprocess.run(self.keltop("-rsi", "json", "-url", f"http://127.0.0.1:{plain}/rsi"), env=self.env,
                                   stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, check=True).stdout
            with open(body, "wb") as file:
                file.write(re.search(rb"\r\n\r\n(\{.*?\n\})", shown, re.S)[1])
            for name, url in (("HTTP", f"http://127.0.0.1:{plain}/rsi/"), ("HTTPS", f"https://127.0.0.1:{secure}/rsi/")):
                curl = ["curl", "-s", "-k", "-H", "Content-Type: application/json", "--data-binary", f"@{body}", url]
                pairs = [(1000 * self.seconds(self.keltop("-rsi", "json", "-url", url)), 1000 * self.seconds(curl))
                         for _ in range(rounds)]
                self.ratio(f"one JSON post by {name}, whole process", pairs, "curl, same bytes", None, "ms", at_most=True)
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
        self.seconds([*foreign, "-h"])  # Wine itself has started
        pairs = [tuple(1000 * self.seconds(c) for c in ([*foreign, "-h"], self.keltop("-h"))) for _ in range(rounds)]
        self.ratio("Windows build: start to exit, -h", pairs, "Linux build", None, "ms", at_most=True)
        ports = free_port(), free_port()
        servers = [self.start([*command, "-p", str(port)], os.path.join(self.folder, f"{port}.out"))
                   for command, port in zip((foreign, self.keltop()), ports)]
        try:
            for port in ports:
                until(lambda: answers(port))
            for connections in (1, 8, 64):
                pairs = [tuple(self.requests_per_second(port, connections, seconds) for port in ports)
                         for _ in range(max(3, rounds // 6))]
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

    def settled_descriptors(self, process, expected):
        """Their number, once the last connections have been closed."""
        deadline = time.monotonic() + 5
        while self.descriptors(process) != expected and time.monotonic() < deadline:
            time.sleep(0.01)
        return self.descriptors(process)

    @staticmethod
    def requests(port, count, at_once=8):
        def work():
            for _ in range(count // at_once):
                if not answers(port):
                    sys.exit("a request was not answered")
        threads = [threading.Thread(target=work) for _ in range(at_once)]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join()

    def growth(self):
        port = free_port()
        process = self.start(self.keltop("-p", str(port)))
        try:
            until(lambda: answers(port))
            self.requests(port, 80)  # every worker thread has run
            open_at_start = self.descriptors(process)
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
    options.add_argument("only", nargs="*", help="http, raw, start, posts, trace, xml, windows or growth; all without")
    given = options.parse_args()
    with tempfile.TemporaryDirectory(prefix="keltop-bench-") as folder:
        bench = Bench(given.build, given.windows, folder)
        parts = {"http": lambda: bench.http(3 if given.quick else 15, 1 if given.quick else 2),
                 "raw": lambda: bench.raw(1 if given.quick else 5, 20),
                 "start": lambda: bench.start_up(5 if given.quick else 31),
                 "posts": lambda: bench.posts(5 if given.quick else 31),
                 "trace": lambda: bench.trace(3 if given.quick else 5),
                 "xml": lambda: bench.xml(3 if given.quick else 11),
                 "windows": lambda: bench.under_wine(5 if given.quick else 31, 1 if given.quick else 4),
                 "growth": bench.growth}
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
