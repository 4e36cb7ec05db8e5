"""The lines of one trace file that several processes write and rotate while some of them are killed."""

import os
import re

from conftest import START_BANNER, TIME_STAMP

LINE = re.compile(rb"LOG1067 \d{4,} \d{4,} (?:" + TIME_STAMP + rb" (?:00000006 (?:([A-Z]\d*):(\d+):x+|("
                  + START_BANNER + rb"))|FFFFFFFF File opened)| 00000000 )\r\n")
LENGTH = 1900
PAUSE = 100  # milliseconds between two hundreds of lines: about 2 MB a second from each process


class Lines:
    """Reads the copies in the order in which they were made, and the live file last."""

    def __init__(self):
        self.next = {}  # the number that each writer's next line has to have
        self.lines = 0
        self.banners = 0
        self.torn = 0
        self.disordered = 0
        self.left_by_the_dead = 0
        self.complaints = []
        self._held = b""

    def add(self, content):
        """Who is killed between the copy and the emptying leaves a part of the next copy, or all of it."""
        if content.startswith(self._held) or self._held.startswith(content):
            self.left_by_the_dead += self._held != b""
            self._held = max(content, self._held, key=len)
            return
        self._read(self._held)
        self._held = content

    def finish(self):
        self._read(self._held)
        self._held = b""

    def _read(self, content):
        end = 0
        for line in LINE.finditer(content):
            if line.start() != end:
                self._tear(content[end:line.start()])
            end = line.end()
            self._count(line)
        if end != len(content):
            self._tear(content[end:])

    def _tear(self, piece):
        self.torn += 1
        if b"\n" in piece or len(piece) > LENGTH + 100:
            self.complaints.append(f"not the beginning of a line: {piece[:200]!r}")

    def _count(self, line):
        self.lines += 1
        self.banners += line[3] is not None
        if line[1]:
            number = int(line[2])
            if number != self.next.get(line[1], 0):
                self.disordered += 1
                self.complaints.append(f"{line[1]!r}: {number} after {self.next.get(line[1], 0) - 1}")
            self.next[line[1]] = number + 1


def flood_words(tag):
    return "flood", tag, str(LENGTH), str(PAUSE)


def left_objects(program):
    return sorted(os.listdir(program.objects))
