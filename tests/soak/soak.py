"""Load and faults at once, for a time: nothing may be lost and nothing may grow.

Two listeners are never killed and are measured; two more are killed and started again every few seconds, and so is one of
three processes that write the trace file. What a kill excuses is what was under way in that very moment and nothing else.
Each kind of thing that the run is made of must have happened, as far as there was time.
"""

import argparse
import collections
import contextlib
import os
import random
import shlex
import signal
import statistics
import sys
import tempfile
import threading
import time
import traceback

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.join(HERE, "..", "process"))

# pylint: disable=wrong-import-position
from alphabet import SENDERS
from clients import ANOTHER, Count, Malformed, RawPeer, Resetting, Silent, Slow, WellBehaved
from conftest import LONG, WORKERS, Keltop, eventually, port_in_use, without_trace
from listeners import Listener, port_beside_the_clients
from posts import Posts
from test_http import connect, read_to_end
from test_traces import Copies, TraceAgent, live, stop
from traces import Lines, flood_words, left_objects

OBJECTS = 2  # files of machine-wide objects: the shutdown event and the turn to rotate, whoever made them last
WARM = 0.25  # part of the time after which memory has to stay
ENOUGH = 30  # seconds in which every kind of client and of kill has its turn
LONG_ENOUGH = 180  # seconds in which the trace file fills up and is rotated, on a slow machine too
GROWTH = 2048  # kB that memory may have more at the end than after warming up: the allocator's own coming and going


class Measured:
    """What a process uses, looked at again and again."""

    def __init__(self, life):
        self.pid = life.pid
        self.at_start = self.look()
        self.samples = []

    def look(self):
        with open(f"/proc/{self.pid}/status", encoding="ascii") as file:
            status = dict(line.split(":", 1) for line in file)
        return {"memory": int(status["VmRSS"].split()[0]), "threads": int(status["Threads"]),
                "descriptors": len(os.listdir(f"/proc/{self.pid}/fd"))}

    def sample(self):
        self.samples.append(self.look())

    def typical(self, name, start, end):
        """The median of a part of the samples."""
        count = len(self.samples)
        return statistics.median(sample[name] for sample in self.samples[int(start * count):int(end * count) or None])

    def most(self, name):
        return max(sample[name] for sample in self.samples)


class Soak:
    def __init__(self, program, agent_command, seconds):
        self.program = program
        self.seconds = seconds
        self.stop = threading.Event()
        self.dice = random.Random(1067)
        self.findings = []
        self.counts = {name: Count() for name in ("http", "http killed", "raw", "raw killed", "posts")}
        self.listeners = {}
        self.kinds = {name: collections.Counter() for name in self.counts}  # how many clients of each kind
        self.refused = 0
        self.writers_killed = 0
        self._agent_command = shlex.split(agent_command)
        self._agents = contextlib.ExitStack()

    def check(self, holds, text):
        if not holds:
            self.findings.append(text)

    # The parts

    def start_listeners(self):
        for name in ("http", "http killed", "raw", "raw killed"):
            port = port_beside_the_clients()
            self.listeners[name] = Listener(self.program, port, "raw" in name)
            self.listeners[name].start()

    def clients(self):
        def make(kind, name, number, **options):
            self.kinds[name][kind.__name__] += 1
            return kind(number, self.listeners[name], self.counts[name], self.stop, **options)

        for name, good, each in (("http", 6, 2), ("http killed", 5, 1)):
            for sender in range(good):
                yield make(WellBehaved, name, sender, sender=sender)
            for number in range(each):
                yield make(Slow, name, SENDERS + number, sender=good + number)
                yield make(Malformed, name, 20 + number)
                yield make(Silent, name, 30 + number)
                yield make(Resetting, name, 40 + number)
        for name, good in (("raw", 6), ("raw killed", 4)):
            for sender in range(good):
                yield make(RawPeer, name, sender, sender=sender)
            for number in range(2):
                yield make(Silent, name, 30 + number)
                yield make(Resetting, name, 40 + number)
        self.kinds["posts"][Posts.__name__] += 1
        yield Posts(0, self.program, self.counts["posts"], self.stop)

    def agent(self, tag):
        agent = TraceAgent(self.program, self._agent_command, *flood_words(tag))
        self._agents.callback(agent.close)
        assert agent.answer() == "ready"
        agent.tell()
        return agent

    def kill_listeners(self):
        """Every few seconds, in turn, at a random moment."""
        while not self.stop.is_set():
            for name in ("http killed", "raw killed"):
                self.stop.wait(self.dice.uniform(1, 4))
                self.listeners[name].kill()
                self.listeners[name].start()

    def kill_writers(self):
        dice = random.Random(1068)
        while not self.stop.is_set():
            agent = self.agent(f"C{self.writers_killed}")
            self.stop.wait(dice.uniform(0.2, 3))
            agent.close()
            self.writers_killed += 1

    def start_seconds(self):
        """A second listener on a port in use is refused and hurts nobody."""
        while not self.stop.is_set():
            for name in ("http", "raw"):
                port = self.listeners[name].port
                done = self.program.run("-p", str(port), *(["-raw"] if name == "raw" else []))
                self.refused += 1
                shown = without_trace(done.stdout)
                self.check(done.returncode == 1 and shown.endswith(tuple(port_in_use(self.program, port))),
                           f"second listener: {done.returncode} {done.stdout[-300:]!r}")
                self.stop.wait(2)

    # The whole

    def run(self):
        lines = Lines()
        with Copies(self.program, lines.add) as copies, self._agents:
            self.start_listeners()
            measured = {name: Measured(self.listeners[name].life) for name in ("http", "raw")}
            writers = {tag: self.agent(tag) for tag in "AB"}
            threads = list(self.clients())
            threads += [threading.Thread(target=self._guarded, args=(part,), daemon=True)
                        for part in (self.kill_listeners, self.kill_writers, self.start_seconds)]
            for thread in threads:
                thread.start()
            try:
                self._watch(measured)
            finally:
                self.stop.set()
                for thread in threads:
                    thread.join(4 * LONG)
                    self.check(not thread.is_alive(), f"{thread.name} does not end")
            written = dict(zip((tag.encode() for tag in writers), stop(writers.values())))
            self._settle(measured)
            self._end_listeners()
            self._start_again()
        lines.add(live(self.program))
        lines.finish()
        self._judge(measured, lines, written, copies.taken)
        self._print(measured, lines, written, copies.taken)

    def _guarded(self, part):
        try:
            part()
        except BaseException as failure:  # told at the end, by another thread
            self.findings.append(f"{part.__name__}: {failure!r}")

    def _watch(self, measured):
        deadline = time.monotonic() + self.seconds
        while time.monotonic() < deadline and all(self.listeners[name].life.running.process.poll() is None
                                                  for name in measured):
            self.stop.wait(1)
            for process in measured.values():
                process.sample()

    def _settle(self, measured):
        """With everybody gone, each descriptor has to be given back, and each raw peer's end to be shown."""
        for name, process in measured.items():
            with contextlib.suppress(AssertionError):
                eventually(lambda p=process: p.look()["descriptors"] <= p.at_start["descriptors"], what="descriptors")
            process.at_end = process.look()
            life = self.listeners[name].life
            if name == "raw":
                self.check(life.wait_until(lambda one=life: one.connects == one.ends),
                           f"raw: {life.connects} connections and {life.ends} ends shown")

    def _end_listeners(self):
        """One Ctrl-C ends them all."""
        self.listeners["http"].life.running.send_signal(signal.SIGINT)
        for name, listener in self.listeners.items():
            code = listener.life.wait() if listener.life else "nobody there"
            self.check(code == 0, f"{name}: ended with {code}")

    def _start_again(self):
        """What all of them left behind does not hinder the next one."""
        listener = self.listeners["http"]
        listener.start()
        with connect(listener.port) as client:
            client.sendall(b"GET /again HTTP/1.1\r\n\r\n")
            self.check(read_to_end(client).startswith(b"HTTP/1.1 200 OK\r\n"), "no answer after the end of all")
        listener.life.running.send_signal(signal.SIGINT)
        code = listener.life.wait()
        self.check(code == 0, f"started again: ended with {code}")

    @property
    def kills(self):
        return sum(listener.kills for listener in self.listeners.values())

    def _judge(self, measured, lines, written, rotations):
        for name, count in self.counts.items():
            self._judge_count(name, count)
        self._judge_happened(rotations)
        for name, listener in self.listeners.items():
            self._judge_console(name, listener)
        for name, process in measured.items():
            self._judge_growth(name, process)
        for tag, count in written.items():
            self.check(lines.next.get(tag) == count, f"{lines.next.get(tag)} of {count} lines of {tag.decode()}")
        self.findings += lines.complaints[:5]
        deaths = self.writers_killed + self.kills
        self.check(lines.torn <= deaths and lines.left_by_the_dead <= deaths, "more torn than killed")
        starts = sum(len(listener.lives) for listener in self.listeners.values()) + self.refused
        starts += self.counts["posts"]["begun"]
        self.check(lines.banners == starts, f"{lines.banners} of {starts} starts traced")
        left = left_objects(self.program)
        self.check(len(left) <= OBJECTS, f"in the objects' folder: {left}")

    def _judge_count(self, name, count):
        """What was begun has come to one end, and only a kill excuses: each client at most once."""
        self.check(count["lost"] == 0, f"{name}: {count['lost']} lost")
        ended = sum(count[end] for end in ("answered", "excused", "lost", ANOTHER))
        self.check(ended == count["begun"], f"{name}: {ended} of {count['begun']} accounted for")
        kills = self.listeners[name].kills if name in self.listeners else 0
        most = kills * self.kinds[name].total()
        self.check(count["excused"] <= most, f"{name}: {count['excused']} excused by {kills} kills")
        self.findings += [f"{name}: {text}" for text in count.complaints[:5]]

    def _judge_happened(self, rotations):
        self.check(self.refused > 0, "no second listener was refused")
        self.check(rotations > 0 or self.seconds < LONG_ENOUGH, "no rotation")
        if self.seconds < ENOUGH:
            return
        self.check(self.writers_killed > 0, "no writer was killed")
        for name, kinds in self.kinds.items():
            for kind in kinds:
                self.check(self.counts[name][kind] > 0, f"{name}: nothing of {kind}")
            self.check(self.counts[name]["answered"] > 0, f"{name}: nothing answered")
        for name, listener in self.listeners.items():
            self.check((listener.kills > 0) == ("killed" in name), f"{name}: {listener.kills} kills")

    def _judge_console(self, name, listener):
        for life in listener.lives:
            unseen = life.answered - life.shown
            self.check(not unseen, f"{name}: {len(unseen)} answered and not shown")
            self.check(not life.shown_twice and not life.tally.disordered, f"{name}: shown twice or in another order")
            for sender, (sent, shown) in enumerate(zip(life.sent, life.tally.shown)):
                excused = life.under_way[sender] if life.killed_at else 0
                self.check(0 <= sent - shown <= excused,
                           f"{name}: of sender {sender} {shown} of {sent} bytes shown, {excused} excused")
            self.check(not life.complaint, f"{name}: on standard error {life.complaint[:200]!r}")

    def _judge_growth(self, name, process):
        extra = process.at_end["descriptors"] - process.at_start["descriptors"]
        self.check(extra <= 0, f"{name}: {extra} descriptors more than at the start")
        most = process.at_start["threads"] + WORKERS
        self.check(process.most("threads") <= most, f"{name}: {process.most('threads')} threads")
        grown = process.typical("memory", 0.75, 1) - process.typical("memory", WARM, 0.5)
        self.check(grown <= GROWTH, f"{name}: memory grew by {grown:.0f} kB")

    def _print(self, measured, lines, written, rotations):
        print(f"{'':14}{'begun':>10}{'answered':>10}{'excused':>9}{'another':>9}{'lost':>6}{'undeserving':>13}"
              f"{'bytes sent':>15}{'shown':>15}{'lives':>7}")
        for name, count in self.counts.items():
            lives = self.listeners[name].lives if name in self.listeners else []
            sent, shown = (sum(map(sum, numbers)) for numbers in ([life.sent for life in lives],
                                                                  [life.tally.shown for life in lives]))
            print(f"{name:14}{count['begun']:10}{count['answered']:10}{count['excused']:9}{count[ANOTHER]:9}"
                  f"{count['lost']:6}{count['undeserving']:13}"
                  f"{sent:15}{shown:15}{len(lives) or '-':>7}")
        print(f"\n{'':14}{'memory kB: warm':>17}{'at the end':>12}{'descriptors':>13}{'at the end':>12}{'most':>6}"
              f"{'threads':>9}{'at the end':>12}{'most':>6}")
        for name, process in measured.items():
            start, end = process.at_start, process.at_end
            print(f"{name:14}{process.typical('memory', WARM, 0.5):17.0f}{process.typical('memory', 0.75, 1):12.0f}"
                  f"{start['descriptors']:13}{end['descriptors']:12}{process.most('descriptors'):6}"
                  f"{start['threads']:9}{end['threads']:12}{process.most('threads'):6}")
        print(f"\ntrace: {sum(written.values())} lines of the two writers that lived, {lines.lines} in all whole, "
              f"{lines.disordered} out of order, {rotations} rotations;\n"
              f"       {self.writers_killed} writers killed, {lines.torn} torn lines and {lines.left_by_the_dead} "
              "unfinished copies of theirs")
        print(f"{self.kills} listeners killed, {self.refused} second listeners refused, in {self.seconds} s")


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("minutes", type=float, nargs="?", default=20)
    parser.add_argument("--keltop", required=True)
    parser.add_argument("--trace-agent", required=True)
    words = parser.parse_args()
    signal.signal(signal.SIGTERM, lambda *_: sys.exit("ended"))
    shared = "/dev/shm" if os.access("/dev/shm", os.W_OK) else None  # the disk is not what is tested
    with tempfile.TemporaryDirectory(prefix="keltop-soak-", dir=shared) as folder:
        with contextlib.closing(Keltop(words.keltop, folder)) as program:
            soak = Soak(program, words.trace_agent, int(words.minutes * 60))
            try:
                soak.run()
            except BaseException as failure:  # what was found until then is told in any case
                traceback.print_exc()
                soak.findings.append(f"cut short: {failure!r}")
    for finding in soak.findings:
        print("FOUND:", finding[:500])
    print("nothing lost, nothing grown" if not soak.findings else f"{len(soak.findings)} findings")
    return 1 if soak.findings else 0


if __name__ == "__main__":
    sys.exit(main())
