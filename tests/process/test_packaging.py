"""What an installation puts on a Linux machine, and what its manual and its completion say."""

import datetime
import os
import pathlib
import re
import shutil
import stat
import subprocess
import sys

import pytest

from conftest import LONG, windows_cannot

ROOT = pathlib.Path(__file__).parents[2]
MANUAL = ROOT / "packaging" / "linux" / "keltop.1"
COMPLETION = ROOT / "packaging" / "linux" / "keltop.bash"

pytestmark = windows_cannot("about what is installed on Linux")


@pytest.fixture(scope="module")
def installed(request, tmp_path_factory):
    """The root folder of an installation below /usr."""
    build = os.path.dirname(os.path.abspath(request.config.getoption("--keltop")))
    folder = tmp_path_factory.mktemp("installation")
    subprocess.run(["cmake", "--install", build, "--prefix", "/usr"], env={**os.environ, "DESTDIR": str(folder)},
                   stdout=subprocess.DEVNULL, check=True, umask=0o077)
    return folder


def test_an_installation_has_program_manual_completion_and_trace_folder(installed):
    found = {str(path.relative_to(installed)): stat.S_IMODE(path.stat().st_mode)
             for path in installed.rglob("*") if path.is_file() or path.name == "TRACELOGS"}
    assert found == {"usr/bin/keltop": 0o755, "usr/share/man/man1/keltop.1": 0o644,
                     "usr/share/bash-completion/completions/keltop": 0o644, "var/lib/vs/TRACELOGS": 0o1777}


def test_the_installed_program_runs(keltop, installed):
    keltop.command = [str(installed / "usr" / "bin" / "keltop")]
    assert keltop.run("-h").returncode == 0


def switches_of_the_help(keltop):
    shown = keltop.run("-h").stdout.decode()
    return set(re.findall(r"^ *(-\w+)", shown, re.MULTILINE)) | {"-?"}


def test_the_manual_tells_of_every_switch(keltop):
    text = MANUAL.read_text(encoding="ascii").replace(r"\-", "-")
    switches = switches_of_the_help(keltop)
    assert len(switches) == 16
    assert {switch for switch in switches if not re.search(re.escape(switch) + r"(?!\w)", text)} == set()


def test_the_manual_is_one_that_man_shows_without_a_complaint():
    if not shutil.which("man") or not shutil.which("groff"):
        pytest.skip("no man here")
    done = subprocess.run(["man", "--warnings", "-E", "UTF-8", "-l", "-Tutf8", "-Z", str(MANUAL)],
                          env={**os.environ, "LC_ALL": "C.UTF-8", "MANROFFSEQ": "", "MANWIDTH": "80"},
                          stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, timeout=LONG, check=True)
    assert done.stderr == b""


def completed(*words):
    """What the completion offers for the last of the words."""
    script = ('source "$1"; shift; COMP_WORDS=("$@"); COMP_CWORD=$(($# - 1)); compopt() { :; }; _keltop; '
              'echo "${COMPREPLY[*]}"')
    return subprocess.run(["bash", "-c", script, "bash", str(COMPLETION), *words], stdout=subprocess.PIPE, check=True,
                          timeout=LONG).stdout.decode().split()


def test_the_completion_offers_every_switch_and_the_protocols(keltop):
    assert set(completed("keltop", "-")) == switches_of_the_help(keltop) - {"-?"}
    assert completed("keltop", "-c") == ["-count", "-code", "-category"]
    for post in ("-rsi", "-ISI"):
        assert completed("keltop", post, "") == ["jazz", "json", "form", "xml"]
    assert completed("keltop", "-url", "") == ["http://", "https://"]
    assert completed("keltop", "-room", "") == []


def test_every_place_names_the_same_release():
    def found(place, pattern):
        return re.search(pattern, (ROOT / place).read_text(encoding="utf-8"), re.MULTILINE)[1]

    version = found("CMakeLists.txt", r"^project\(keltop VERSION ([\d.]+)")
    assert found("src/product/Version.h", r'kTraceVersion = "(.*)"') == version
    assert found("src/product/Version.h", r'kFileVersion = "(.*)"') == version + ".0"
    assert found(MANUAL, r'^\.TH .* "keltop (.*?)"') == version
    assert found("CHANGELOG.md", r"^## (.*)") == version
    seconds = int(found("scripts/package.sh", r"SOURCE_DATE_EPOCH=(\d+)"))
    date = datetime.datetime.fromtimestamp(seconds, datetime.timezone.utc)
    assert found("src/product/Version.h", r'kBuildDate = "(.*)"') == f"{date:%b %d %Y}"
    assert found(MANUAL, r"^\.TH KELTOP 1 (\S+)") == f"{date:%Y-%m-%d}"


def test_an_archive_holds_the_same_bytes_whenever_it_is_made(tmp_path):
    content = tmp_path / "content"
    content.mkdir()
    (content / "a.txt").write_bytes(b"text\r\n")
    (content / "b.bin").write_bytes(bytes(range(256)))
    archives = []
    for number, (moment, zone) in enumerate(((1, "UTC"), (2_000_000_000, "JST-9"))):
        for path in content.iterdir():
            os.utime(path, (moment, moment))
        archives.append(tmp_path / f"{number}.zip")
        subprocess.run([sys.executable, str(ROOT / "packaging" / "write_zip.py"), str(archives[-1]), str(content)],
                       env={**os.environ, "SOURCE_DATE_EPOCH": "1705276800", "TZ": zone}, check=True, timeout=LONG)
    assert archives[0].read_bytes() == archives[1].read_bytes()
    unpacked = tmp_path / "unpacked"
    shutil.unpack_archive(archives[0], unpacked)
    assert {path.name: path.read_bytes() for path in unpacked.iterdir()} == {
        "a.txt": b"text\r\n", "b.bin": bytes(range(256))}
