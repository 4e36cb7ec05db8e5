"""The order of each class's virtual operations, read from the object files that the program is linked of.

The order is an interface: what a class adds comes behind what its base has, and nobody may move an operation.
"""

import functools
import os
import re
import subprocess

import pytest

from conftest import windows_cannot

pytestmark = windows_cannot("the sources are the same there, and the object files others")

DESTRUCTOR = ["~", "~"]  # two slots: one that ends the object, one that also frees it
MUTEX = [*DESTRUCTOR, "Mutex::lock(unsigned int)", "Mutex::unlock()"]
ZBASE = [*DESTRUCTOR, "ZBase::releaseReceiveBuffer()", "ZBase::isOpen() const", "ZBase::setLinger(int)",
         "ZBase::setHighWaterMark(int)", "ZBase::setReceiveTimeout(int)", "ZBase::receiveParts(int)",
         "ZBase::receive(int)", "ZBase::send(void const*, unsigned int, bool)", "ZBase::send(TEXT, bool)",
         "ZBase::setSendTimeout(int)"]

EXPECTED = {
    "SEMAPHORE::EventSemaphore": DESTRUCTOR,
    "SEMAPHORE::Mutex": MUTEX,
    "SEMAPHORE::Semaphore": DESTRUCTOR,
    "SEMAPHORE::MutexAutoLock": MUTEX,
    "QXUTIL::WorkStack<keltop::ThreadLogData>": [
        "push(keltop::ThreadLogData)", "take(keltop::ThreadLogData&)", "clear()", "afterPush()",
        "removed(keltop::ThreadLogData&)", *DESTRUCTOR],
    "keltop::LogsControl": DESTRUCTOR,
    "keltop::LogFile": DESTRUCTOR,
    "QXUTIL::File": DESTRUCTOR,
    "QXUTIL::FindFiles": [*DESTRUCTOR, "FindFiles::clear()", "FindFiles::add(QXUTIL::File)"],
    "QXUTIL::ZEROMQ::ZContext": DESTRUCTOR,
    "QXUTIL::ZEROMQ::ZBase": ZBASE,
    "QXUTIL::ZEROMQ::ZPush": [*ZBASE, "ZPush::bind(TEXT)", "ZPush::connect(TEXT)", "ZPush::send(TEXT)"],
    "QXUTIL::ZEROMQ::ZPushService": [*DESTRUCTOR, "ZPushService::connect(TEXT)", "ZPushService::setLinger(TEXT, int)"],
    "QXUTIL::ZEROMQ::ZPushService::ZPushServiceSocket": [
        *ZBASE, "ZPush::bind(TEXT)", "ZPushServiceSocket::connect(TEXT)", "ZPush::send(TEXT)",
        "ZPushServiceSocket::release()"],
    "keltop::RestRequestHandler": [
        *DESTRUCTOR,
        "handleRequest(Poco::Net::HTTPServerRequest&, Poco::Net::HTTPServerResponse&)"],
    "keltop::RestRequestHandlerFactory": [
        *DESTRUCTOR, "createRequestHandler(Poco::Net::HTTPServerRequest const&)"],
    "keltop::RawPacketConnection": [*DESTRUCTOR, "run()"],
    "keltop::RawPacketConnectionFactory": [
        *DESTRUCTOR, "createConnection(Poco::Net::StreamSocket const&)"],
}


def readelf(option, library):
    done = subprocess.run(["readelf", "-W", option, library], stdout=subprocess.PIPE, check=True)
    plain = subprocess.run(["c++filt"], input=done.stdout, stdout=subprocess.PIPE, check=True).stdout.decode()
    for part in re.split(r"^File: ", plain, flags=re.MULTILINE)[1:]:
        member, _, text = part.partition("\n")
        yield member, text


def sections(library):
    """By member and number, the name of each section."""
    return {(member, int(number)): name for member, text in readelf("-S", library)
            for number, name in re.findall(r"^ *\[ *(\d+)\] (\S+)", text, re.MULTILINE)}


def tables(library):
    """By class: where its table is, as member, section, offset and length."""
    names = sections(library)
    found = {}
    entry = re.compile(r"^ *\d+: ([0-9a-f]+) +(\d+) +OBJECT +\S+ +\S+ +(\d+) vtable for (.+)$", re.MULTILINE)
    for member, text in readelf("-s", library):
        for value, size, number, name in entry.findall(text):
            found[name.strip()] = (member, names[member, int(number)], int(value, 16), int(size))
    return found


def entries(library):
    """By member and section, what each place of it points to."""
    found = {}
    for member, text in readelf("-r", library):
        section = None
        for line in text.splitlines():
            if title := re.match(r"Relocation section '\.rela?(\S+)'", line):
                section = title[1]
            elif place := re.match(r"([0-9a-f]{8,}) +\S+ +R_\S+ +[0-9a-f]+ +(.+?)(?: \+ [0-9a-f]+)?$", line):
                found.setdefault((member, section), {})[int(place[1], 16)] = place[2]
    return found


def normal(target, name):
    """An entry as it stands above."""
    text = re.sub(r"std::(?:__cxx11::)?basic_string<char, .*?> ?(?:>)? ?const&", "TEXT", target)
    text = text.replace("[abi:cxx11]", "")
    if "::~" in text:
        return "~"
    for scope in (f"{name}::", "QXUTIL::ZEROMQ::ZPushService::", "QXUTIL::ZEROMQ::", "SEMAPHORE::", "QXUTIL::"):
        if text.startswith(scope):
            text = text[len(scope):]
            break
    return text


def short(wanted, name):
    """An expected entry without the class's own name, which the entries above bear or not."""
    own = name.rsplit("::", 1)[-1] + "::"
    return wanted[len(own):] if wanted.startswith(own) else wanted


@functools.cache
def read(library):
    return tables(library), entries(library)


@pytest.mark.parametrize("name", EXPECTED)
def test_virtual_operations_stand_in_their_order(request, name):
    program = request.config.getoption("--keltop").split()[-1]
    found, pointed = read(os.path.join(os.path.dirname(program), "src", "libkeltop_core.a"))
    member, section, start, length = found[name]
    places = pointed[member, section]
    # The first two words are no operations: the offset to the object's top and its type.
    slots = [normal(places[place], name) for place in range(start + 16, start + length, 8)]
    assert [short(slot, name) for slot in slots] == [short(slot, name) for slot in EXPECTED[name]]
