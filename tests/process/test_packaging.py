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

from conftest import LONG, as_root, windows_cannot

ROOT = pathlib.Path(__file__).parents[2]
MANUAL = ROOT / "packaging" / "linux" / "keltop.1"
COMPLETION = ROOT / "packaging" / "linux" / "keltop.bash"
# When the release was made, in seconds since 1970: the date of everything in the packages.
RELEASED = int(re.search(r"SOURCE_DATE_EPOCH=(\d+)", (ROOT / "scripts" / "package.sh").read_text(encoding="utf-8"))[1])

pytestmark = windows_cannot("about what is installed on Linux")


@pytest.fixture(scope="module")
def installed(build, tmp_path_factory):
    """The root folder of an installation below /usr."""
    folder = tmp_path_factory.mktemp("installation")
    subprocess.run(["cmake", "--install", build, "--prefix", "/usr"], env={**os.environ, "DESTDIR": str(folder)},
                   stdout=subprocess.DEVNULL, check=True, umask=0o077)
    return folder


def test_an_installation_has_program_manual_completion_and_trace_folder(installed):
    found = {str(path.relative_to(installed)): stat.S_IMODE(path.stat().st_mode)
             for path in installed.rglob("*") if path.is_file() or path.name in ("vs", "TRACELOGS")}
    assert found == {"usr/bin/keltop": 0o755, "usr/share/man/man1/keltop.1": 0o644,
                     "usr/share/bash-completion/completions/keltop": 0o644, "var/lib/vs": 0o755,
                     "var/lib/vs/TRACELOGS": 0o1777}


def test_the_installed_program_runs(keltop, installed):
    keltop.command = [str(installed / "usr" / "bin" / "keltop")]
    assert keltop.run("-h").returncode == 0


# Switches of the listeners that came after the help, whose text stays as it is.
BEYOND_THE_HELP = {"-tls", "-view"}


def switches_of_the_help(keltop):
    shown = keltop.run("-h").stdout.decode()
    return set(re.findall(r"^ *(-\w+)", shown, re.MULTILINE)) | {"-?"}


def test_the_manual_tells_of_every_switch(keltop):
    text = MANUAL.read_text(encoding="ascii").replace(r"\-", "-")
    switches = switches_of_the_help(keltop)
    assert len(switches) == 16
    switches |= BEYOND_THE_HELP
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
    assert set(completed("keltop", "-")) == (switches_of_the_help(keltop) | BEYOND_THE_HELP) - {"-?"}
    assert completed("keltop", "-c") == ["-count", "-code", "-category"]
    for post in ("-rsi", "-ISI"):
        assert completed("keltop", post, "") == ["jazz", "json", "form", "xml"]
    assert completed("keltop", "-url", "") == ["http://", "https://"]
    assert completed("keltop", "-room", "") == []
    assert completed("keltop", "-tls", "") == completed("keltop", "~tls", "") == []  # files, by the shell's own way


def test_every_place_names_the_same_release():
    def found(place, pattern):
        return re.search(pattern, (ROOT / place).read_text(encoding="utf-8"), re.MULTILINE)[1]

    version = found("CMakeLists.txt", r"^project\(keltop VERSION ([\d.]+)")
    assert found("src/product/Version.h", r'kTraceVersion = "(.*)"') == version
    assert found("src/product/Version.h", r'kFileVersion = "(.*)"') == version + ".0"
    assert found(MANUAL, r'^\.TH .* "keltop (.*?)"') == version
    assert found("CHANGELOG.md", r"^## ([\d.]+)$") == version
    date = datetime.datetime.fromtimestamp(RELEASED, datetime.timezone.utc)
    assert found("packaging/linux/changelog.in", r"^ -- .*>  (.*)") == f"{date:%a, %d %b %Y %T %z}"
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
                       env={**os.environ, "SOURCE_DATE_EPOCH": str(RELEASED), "TZ": zone}, check=True, timeout=LONG)
    assert archives[0].read_bytes() == archives[1].read_bytes()
    unpacked = tmp_path / "unpacked"
    shutil.unpack_archive(archives[0], unpacked)
    assert {path.name: path.read_bytes() for path in unpacked.iterdir()} == {
        "a.txt": b"text\r\n", "b.bin": bytes(range(256))}


@pytest.mark.usefixtures("released")
def test_a_released_program_is_hardened(build):
    def read(*options):
        return subprocess.run(["readelf", "-W", *options, str(build / "keltop")], env={**os.environ, "LC_ALL": "C"},
                              stdout=subprocess.PIPE, check=True, timeout=LONG).stdout.decode()

    # At no fixed address; what the loader fills in is filled in at once and can then not be written; no code on the stack.
    assert re.search(r"^ *Type: +DYN ", read("--file-header"), re.MULTILINE)
    dynamic, segments, symbols = read("--dynamic"), read("--program-headers"), read("--dyn-syms")
    assert re.search(r"\(FLAGS_1\).*\bPIE\b", dynamic)
    assert re.search(r"\(FLAGS_1\).*\bNOW\b", dynamic)
    assert re.search(r"^ *GNU_RELRO ", segments, re.MULTILINE)
    assert re.search(r"^ *GNU_STACK .* RW +0x", segments, re.MULTILINE)
    # Guarded returns, and the forms of the library's routines that check.
    assert re.search(r" UND __stack_chk_fail\b", symbols)
    assert re.search(r" UND __(\w+_chk|open64_2|open_2)\b", symbols)


# The Debian package


def packed(build, folder, **environment):
    """The Debian package of the build."""
    subprocess.run(["cpack", "--config", str(build / "CPackConfig.cmake"), "-B", str(folder)],
                   env={**os.environ, "SOURCE_DATE_EPOCH": str(RELEASED), **environment}, stdout=subprocess.DEVNULL,
                   check=True, umask=0o022, timeout=6 * LONG)
    package, = folder.glob("*.deb")
    return package


@pytest.fixture(scope="module")
def package(released, build, tmp_path_factory):
    if not shutil.which("cpack") or not shutil.which("dpkg-shlibdeps"):
        pytest.skip("no tools to make a Debian package here")
    return packed(build, tmp_path_factory.mktemp("package"), TZ="UTC")


def test_the_debian_package_holds_what_is_installed_and_the_documents(package):
    listed = subprocess.run(["dpkg-deb", "--contents", str(package)], stdout=subprocess.PIPE, check=True,
                            timeout=LONG).stdout.decode().splitlines()
    files = {}
    for line in listed:
        mode, owner, _, day, minute, name = line.split(maxsplit=5)
        assert (owner, day, minute) == ("root/root", "2024-01-15", "00:00"), line
        if mode != "drwxr-xr-x":
            files[name.removeprefix("./")] = mode
    assert files == {"usr/bin/keltop": "-rwxr-xr-x",
                     "usr/share/bash-completion/completions/keltop": "-rw-r--r--",
                     "usr/share/doc/keltop/changelog.Debian.gz": "-rw-r--r--",
                     "usr/share/doc/keltop/changelog.gz": "-rw-r--r--",
                     "usr/share/doc/keltop/copyright": "-rw-r--r--",
                     "usr/share/lintian/overrides/keltop": "-rw-r--r--",
                     "usr/share/man/man1/keltop.1.gz": "-rw-r--r--",
                     "var/lib/vs/TRACELOGS/": "drwxrwxrwt"}


def test_the_debian_package_says_what_it_needs(package):
    def field(name):
        return subprocess.run(["dpkg-deb", "--field", str(package), name], stdout=subprocess.PIPE, check=True,
                              timeout=LONG).stdout.decode().strip()

    assert field("Package") == "keltop"
    assert re.fullmatch(r"8\.0\.26-1(~deb\d+u1)?", field("Version"))
    needed = {entry.split()[0] for entry in field("Depends").split(",")}
    assert {"libc6", "libstdc++6", "libzmq5"} <= {re.sub("t64$", "", name) for name in needed}
    assert any(re.match("libpoconetssl", name) for name in needed)


def test_the_debian_package_is_the_same_whenever_and_wherever_it_is_made(build, package, tmp_path):
    again = packed(build, tmp_path, TZ="JST-9", LC_ALL="C.UTF-8")
    assert again.name == package.name
    assert again.read_bytes() == package.read_bytes()


def test_lintian_finds_nothing_in_the_debian_package(package):
    if not shutil.which("lintian"):
        pytest.skip("no lintian here")
    done = subprocess.run(["lintian", "--fail-on", "error,warning", str(package)], stdout=subprocess.PIPE,
                          stderr=subprocess.STDOUT, check=False, timeout=6 * LONG)
    assert done.returncode == 0, done.stdout.decode()


OWN = ["LOG1067.ltt", "LOG1067-20260102000000000.ltt", "ARCHIVE/LOG1067-20260101000000000.ltt"]
OTHERS = ["LINE007.ltt", "LOG10671.ltt", "LOG10671-20260101000000000.ltt", "ARCHIVE/LINE007-20260101000000000.ltt",
          "LOG1067-notes.ltt/kept"]


@as_root
@pytest.mark.parametrize("task, others, left", [
    ("remove", OTHERS, [*OWN, *OTHERS]),
    ("purge", OTHERS, OTHERS),
    ("purge", [], None),
    ("upgrade", [], OWN),
])
def test_only_a_purge_takes_traces_and_only_those_of_this_program(tmp_path, task, others, left):
    traces = tmp_path / "lib" / "vs" / "TRACELOGS"
    for name in [*OWN, *others]:
        (traces / name).parent.mkdir(parents=True, exist_ok=True)
        (traces / name).touch()
    script = f"mount --bind {tmp_path / 'lib'} /var/lib && exec {ROOT}/packaging/linux/postrm {task}"
    subprocess.run(["unshare", "--mount", "sh", "-c", script], check=True, timeout=LONG)
    if left is None:
        assert not (tmp_path / "lib" / "vs").exists()
    else:
        found = {str(path.relative_to(traces)) for path in traces.rglob("*") if path.is_file()}
        assert found == set(left)


@as_root
def test_a_purge_follows_no_link(tmp_path):
    traces, elsewhere = tmp_path / "lib" / "vs" / "TRACELOGS", tmp_path / "elsewhere"
    traces.mkdir(parents=True)
    elsewhere.mkdir()
    (elsewhere / "LOG1067.ltt").touch()
    (traces / "ARCHIVE").symlink_to(elsewhere)
    (traces / "LOG1067.ltt").symlink_to(elsewhere / "LOG1067.ltt")
    script = f"mount --bind {tmp_path / 'lib'} /var/lib && exec {ROOT}/packaging/linux/postrm purge"
    subprocess.run(["unshare", "--mount", "sh", "-c", script], check=True, timeout=LONG)
    assert (elsewhere / "LOG1067.ltt").exists()
    assert not (traces / "LOG1067.ltt").is_symlink()
