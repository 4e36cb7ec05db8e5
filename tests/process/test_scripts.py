"""The scripts: they start from anywhere, by a link, and in a tree that somebody else has built."""

import os
import pathlib
import shutil
import stat
import subprocess
import tempfile

import pytest

from conftest import AS_NOBODY, LONG, windows_cannot

ROOT = pathlib.Path(__file__).parents[2]
BY_HAND = sorted(path.name for path in (ROOT / "scripts").glob("*.sh")
                 if os.access(path, os.X_OK) and path.name != "debian-system.sh")

pytestmark = [windows_cannot("about the scripts"), pytest.mark.usefixtures("released")]

# A program that tells how it was started, and the build that makes it: a copy.
PROGRAM = """#!/bin/sh
echo "$@ ${KELTOP_DATA_LOCATION:-nowhere}"
"""
BUILD = """cmake_minimum_required(VERSION 3.25)
project(keltop LANGUAGES NONE)
add_custom_command(OUTPUT keltop COMMAND cp ${PROJECT_SOURCE_DIR}/program.sh keltop DEPENDS program.sh)
add_custom_target(program ALL DEPENDS keltop)
"""


@pytest.fixture
def tree():
    """A source tree with these scripts and a program that is soon built, for every account to read. Beside it are a folder
    that is in its way, `decoy`, and one for links, `links`."""
    with tempfile.TemporaryDirectory(prefix="keltop-scripts-") as folder:
        os.chmod(folder, 0o755)
        made = pathlib.Path(folder, "tree")
        shutil.copytree(ROOT / "scripts", made / "scripts")
        shutil.copytree(ROOT / ".ci", made / ".ci")
        shutil.copy(ROOT / "CMakePresets.json", made)
        (made / "CMakeLists.txt").write_text(BUILD, encoding="ascii")
        (made / "program.sh").write_text(PROGRAM, encoding="ascii")
        (made / "program.sh").chmod(0o755)
        for name in ("decoy/scripts", "decoy/.ci", "links"):
            (made.parent / name).mkdir(parents=True)
        yield made


def start(*command, **options):
    env = {name: value for name, value in os.environ.items() if name not in ("CDPATH", "KELTOP_DATA_LOCATION")}
    env.update(options.pop("env", {}))
    return subprocess.run(list(map(str, command)), env=env, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                          stderr=subprocess.PIPE, timeout=3 * LONG, check=False, encoding="utf-8", **options)


def shown_by(done):
    assert done.returncode == 0, done.stderr
    return done.stdout


def everything_in(folder):
    return {str(path): path.lstat().st_mtime_ns for path in folder.rglob("*")}


# Where they are started


def test_run_builds_and_runs_in_its_own_tree(tree):
    assert shown_by(start(tree / "scripts" / "run.sh", "-p", "8080", cwd="/")) == f"-p 8080 {tree}/build/data\n"
    assert (tree / "build" / "data" / "TRACELOGS").is_dir()


def test_run_lets_somebody_say_where_the_traces_go(tree):
    assert shown_by(start(tree / "scripts" / "run.sh", env={"KELTOP_DATA_LOCATION": "/elsewhere"})) == " /elsewhere\n"
    assert not (tree / "build" / "data").exists()


def test_a_search_path_for_cd_leads_nowhere_else(tree):
    search = {"CDPATH": f"{tree.parent}/decoy:.:{tree}"}
    assert shown_by(start("scripts/run.sh", "-h", cwd=tree, env=search)) == f"-h {tree}/build/data\n"
    assert {path.name for path in tree.parent.iterdir()} == {"tree", "decoy", "links"}
    assert list((tree.parent / "decoy").rglob("*build*")) == []


def told_at_the_start(tree, script):
    """Has a script tell which tree it takes for its own, and end."""
    own = (tree / "scripts" / "setup.sh").read_text(encoding="utf-8")
    (tree / "scripts" / "setup.sh").write_text(f'{own}\necho "tree: $KELTOP_ROOT"\nexit 7\n', encoding="utf-8")
    return start(script, cwd=tree, env={"CDPATH": f"{tree.parent}/decoy:."})


@pytest.mark.parametrize("script", BY_HAND)
def test_every_script_starts_by_a_link_and_beside_a_search_path_for_cd(tree, script):
    first, second = tree.parent / "links" / "first", tree.parent / "links" / "second"
    first.symlink_to(f"../tree/scripts/{script}")
    second.symlink_to(first)
    done = told_at_the_start(tree, second)
    assert (done.returncode, done.stdout, done.stderr) == (7, f"tree: {tree}\n", "")
    (tree / "scripts" / "setup.sh").write_text((ROOT / "scripts" / "setup.sh").read_text(encoding="utf-8"), encoding="utf-8")
    done = told_at_the_start(tree, f"scripts/{script}")
    assert (done.returncode, done.stdout, done.stderr) == (7, f"tree: {tree}\n", "")


# What must pass before a change is taken


def with_parts(tree, code=lambda script: 0):
    """Has every script tell its name and folder and end with a code."""
    for script in (tree / "scripts").glob("*.sh"):
        if script.name != "setup.sh":
            script.write_text(f'#!/bin/sh\necho "{script.name} in $PWD"\nexit {code(script.name)}\n', encoding="ascii")


PARTS = ["test.sh", "test-debian.sh", "test-windows.sh", "test.sh", "test.sh"]
DECIDE = ["test.sh", "test-debian.sh"]
BESIDE = ["build-windows.sh", "check.sh", "mutation.sh", "fuzz.sh"]


def test_what_must_pass_passes_when_every_part_does(tree):
    with_parts(tree)
    done = start(".ci/run", cwd=tree, env={"CDPATH": f"{tree.parent}/decoy:."})
    assert [line for line in shown_by(done).splitlines() if " in " in line and line[0] != "="] == [
        f"{part} in {tree}" for part in PARTS + BESIDE]


@pytest.mark.parametrize("part", DECIDE)
def test_what_must_pass_fails_when_a_part_does(tree, part):
    with_parts(tree, lambda script: 7 if script == part else 0)
    done = start(".ci/run", cwd=tree)
    assert done.returncode == 7, done.stdout
    assert ": FAILED, 0 min 0" in done.stdout


@pytest.mark.parametrize("part", sorted({*PARTS, *BESIDE} - {*DECIDE}))
def test_what_does_not_decide_is_told(tree, part):
    with_parts(tree, lambda script: 7 if script == part else 0)
    assert ": FAILED, 0 min 0" in shown_by(start(".ci/run", cwd=tree))


def test_what_must_pass_says_where_no_fresh_system_can_be_tried(tree):
    with_parts(tree, lambda script: 77 if script == "test-debian.sh" else 0)
    assert "NOT TRIED: the tests in a fresh system" in shown_by(start(".ci/run", cwd=tree))


# A tree that somebody else has built


def locked(tree):
    """Makes a tree one that it cannot be written in; gives how to start something as an account that this holds for."""
    if os.geteuid() == 0:
        return AS_NOBODY
    for path in [tree, *tree.rglob("*")]:
        if not path.is_symlink():
            path.chmod(stat.S_IMODE(path.stat().st_mode) & ~0o222)
    return {}


def unlock(tree):
    for path in [tree, *tree.rglob("*")]:
        if path.is_dir():
            path.chmod(0o755)


def test_a_built_tree_that_cannot_be_written_runs(tree):
    run = tree / "scripts" / "run.sh"
    shown_by(start(run))
    before = everything_in(tree)
    account = locked(tree)
    try:
        # The traces go where an installed program's go.
        assert shown_by(start(run, "-p", "8080", cwd="/", **account)) == "-p 8080 nowhere\n"
        assert everything_in(tree) == before
    finally:
        unlock(tree)


@pytest.mark.parametrize("state", ["changed", "never built"])
def test_a_tree_that_cannot_be_written_says_what_has_to_be_built(tree, state):
    run = tree / "scripts" / "run.sh"
    if state == "changed":
        shown_by(start(run))
        (tree / "program.sh").write_text(PROGRAM + "echo new\n", encoding="ascii")
    account = locked(tree)
    try:
        done = start(run, cwd="/", **account)
        assert (done.returncode, done.stdout) == (1, "")
        assert done.stderr.splitlines()[-1] == (
            f"keltop: something has to be built, and this account cannot write {tree}/build/release")
    finally:
        unlock(tree)
