"""What the XML writer wrote, read back by programs that are not ours."""

import os
import random
import shlex
import subprocess
import xml.etree.ElementTree

import pytest

# Every kind of sequence that is XML: one to four bytes, and the five characters that it reserves.
ALPHABET = "&<>\"'&<>\"' abcXYZ0189_-.;:=/#?!" + "\u00e9\u07ff" + "\u20ac\uffe5" + "\U0001f600\U0010ffff"
NAMES = "abcdefghijklmnopqrstuvwxyz"


class Tree:
    """A random element: its name, attributes in order, and content (texts and elements) in order."""

    def __init__(self, random_source, depth):
        self.name = "".join(random_source.choices(NAMES, k=random_source.randint(1, 8)))
        names = {"".join(random_source.choices(NAMES, k=6)) for _ in range(random_source.randint(0, 4))}
        self.attributes = {name: some_text(random_source) for name in names}
        self.content = []
        for _ in range(random_source.randint(0, 8) if depth > 0 else random_source.randint(0, 2)):
            if depth == 0 or random_source.random() < 0.35:
                self.content.append(some_text(random_source))
            else:
                self.content.append(Tree(random_source, depth - 1))

    def size(self):
        return 1 + sum(entry.size() for entry in self.content if isinstance(entry, Tree))

    def records(self):
        yield from ("element", self.name)
        for name, value in self.attributes.items():
            yield from ("attribute", name, value)
        for entry in self.content:
            if isinstance(entry, str):
                yield from ("text", entry)
            else:
                yield from entry.records()
        yield "end"

    def same_as(self, element):
        """Compares with what a reader made of the text. Blanks about a text belong to the layout: they are undone."""
        assert element.tag == self.name
        assert dict(element.attrib) == self.attributes
        expected = [[]]
        children = []
        for entry in self.content:
            if isinstance(entry, str):
                expected[-1] += [entry.strip()] if entry.strip() else []
            else:
                children.append(entry)
                expected.append([])
        found = [element.text or ""] + [child.tail or "" for child in element]
        assert [[line.strip() for line in text.split("\n") if line.strip()] for text in found] == expected
        for child, read in zip(children, element, strict=True):
            child.same_as(read)


def some_text(random_source):
    return "".join(random_source.choices(ALPHABET, k=random_source.randint(0, 40)))


@pytest.fixture
def writer(request):
    """The test program that builds a tree from records and prints it."""
    command = shlex.split(request.config.getoption("--keltop"))
    folder, name = os.path.split(command[-1])
    command[-1] = os.path.join(folder, name.replace("keltop", "keltop_xml_tree"))
    return command


@pytest.mark.parametrize("seed", range(8))
def test_large_random_trees_read_back_as_they_were_built(writer, seed):
    random_source = random.Random(seed)
    tree = Tree(random_source, depth=8)
    while tree.size() < 1000:
        tree = Tree(random_source, depth=8)
    records = "".join(field + "\0" for field in tree.records()).encode()
    written = subprocess.run(writer, input=records, stdout=subprocess.PIPE, check=True, timeout=60).stdout
    written = written.replace(b"\r\n", b"\n")
    canonical = subprocess.run(["xmllint", "--huge", "--c14n", "-"], input=written, stdout=subprocess.PIPE, check=True,
                               timeout=60).stdout
    tree.same_as(xml.etree.ElementTree.fromstring(canonical))
