"""Machine-wide objects, used by real processes."""

import contextlib
import fcntl
import glob
import os
import random
import select
import shutil
import signal
import socket
import struct
import tempfile
import threading
import time

import pytest

from conftest import AS_NOBODY, LONG, all_stopped, as_root, eventually, for_everybody

OBJECT, ABANDONED, TIMEOUT, FAILED = 0, 128, 258, 0xFFFFFFFF
NONE, NOT_FOUND, DENIED, BAD_HANDLE, BAD_DATA, BUSY, EXISTS = 0, 2, 5, 6, 13, 170, 183
NOT_OWNER, TOO_MANY_POSTS = 288, 298
FOR_EVER = 0xFFFFFFFF

linux_files = pytest.mark.skipif("config.getoption('--agent').endswith('.exe')",
                                 reason="the kernel's own objects are no files there")


def the_file(agents):
    (path,) = glob.glob(os.path.join(agents.folder, "keltop.*"))
    return path


def leave_behind(agents, *words):
    """A process that creates an object, sets an event, and is killed."""
    dead = agents.start()
    handle, error = dead.obtain(*words)
    assert error == NONE
    if words[0] == "create-event":
        assert dead.ask("set", handle) == "0"
    elif words[0] == "create-mutex":
        assert dead.wait(handle, 0) == OBJECT
    dead.kill()


def cpu_nanoseconds(agent):
    """Processor time of all the threads of a process."""
    total = 0
    for path in glob.glob(f"/proc/{agent.process.pid}/task/*/schedstat"):
        with open(path, encoding="ascii") as file:
            total += int(file.read().split()[0])
    return total


def blocked(agent):
    """Whether the process sleeps, so that a command it was told is being waited in."""
    with open(f"/proc/{agent.process.pid}/stat", encoding="ascii") as file:
        return file.read().rsplit(")", 1)[1].split()[0] == "S"


# Lifetime


def test_an_event_is_one_object_for_all_processes_and_keeps_its_state(agents):
    one, two = agents.start(), agents.start()
    first, error = one.obtain("create-event", "E")
    assert error == NONE
    assert one.ask("set", first) == "0"
    second, error = two.obtain("create-event", "E")
    assert error == EXISTS
    third, error = two.obtain("open-event", "E")
    assert third != "0"
    assert [two.wait(h, 0) for h in (second, third, second)] == [OBJECT] * 3


def test_an_object_lives_until_its_last_handle_is_closed(agents):
    one, two = agents.start(), agents.start()
    assert one.obtain("open-event", "E") == ("0", NOT_FOUND)
    first, _ = one.obtain("create-event", "E")
    second, _ = two.obtain("open-event", "E")
    assert one.ask("set", first) == "0"
    assert one.ask("close", first) == "0"
    third, error = one.obtain("create-event", "E")
    assert (error, one.wait(third, 0)) == (EXISTS, OBJECT)
    assert one.ask("close", third) == "0"
    assert two.ask("close", second) == "0"
    assert two.obtain("open-event", "E") == ("0", NOT_FOUND)
    fourth, error = two.obtain("create-event", "E")
    assert (error, two.wait(fourth, 0)) == (NONE, TIMEOUT)


@linux_files
def test_the_last_handle_takes_the_file_with_it(agents):
    one = agents.start()
    handle, _ = one.obtain("create-event", "E")
    assert os.listdir(agents.folder) == ["keltop.Global%5CE"]
    assert one.ask("close", handle) == "0"
    assert os.listdir(agents.folder) == []


def test_the_death_of_a_holder_closes_its_handles(agents):
    leave_behind(agents, "create-event", "E")
    one = agents.start()
    assert one.obtain("open-event", "E") == ("0", NOT_FOUND)
    handle, error = one.obtain("create-event", "E")
    assert (error, one.wait(handle, 0)) == (NONE, TIMEOUT)


def test_what_the_dead_left_does_not_even_keep_a_name(agents):
    leave_behind(agents, "create-mutex", "X")
    one = agents.start()
    handle, error = one.obtain("create-semaphore", "X", 1, 3)
    assert error == NONE
    assert [one.wait(handle, 0), one.wait(handle, 0)] == [OBJECT, TIMEOUT]


def test_one_of_two_holders_killed_leaves_the_object_to_the_other(agents):
    one, two = agents.start(), agents.start()
    handle, _ = one.obtain("create-event", "E")
    two.obtain("open-event", "E")
    two.kill()
    three = agents.start()
    third, error = three.obtain("create-event", "E")
    assert error == EXISTS
    assert one.ask("set", handle) == "0"
    assert three.wait(third, 0) == OBJECT


def test_two_hundred_rounds_of_sudden_death_leave_nothing(agents):
    """A process is killed at a random moment of creating, opening, setting and closing; the next one starts afresh."""
    choice = random.Random(20240115)
    witness = agents.start()
    for _ in range(200):
        victim = agents.start()
        victim.ask("create-mutex", "warm")  # it runs
        victim.tell("churn", "E", 1_000_000)
        time.sleep(choice.random() * 0.004)  # the random moment
        victim.kill()
        handle, error = witness.obtain("create-event", "E")
        assert (error, witness.wait(handle, 0)) == (NONE, TIMEOUT)
        assert witness.ask("set", handle) == "0"
        assert witness.wait(handle, 0) == OBJECT
        assert witness.ask("close", handle) == "0"
        assert witness.obtain("open-event", "E") == ("0", NOT_FOUND)


def test_create_and_open_race(agents):
    racers = [agents.start() for _ in range(4)]
    for racer in racers:
        racer.tell("churn", "E", 1500)
    assert [racer.answer() for racer in racers] == ["0"] * 4


def test_a_name_created_by_many_at_once_is_one_object(agents):
    racers = [agents.start() for _ in range(6)]
    for round_number in range(50):
        for racer in racers:
            racer.tell("create-event", f"E{round_number}")
        made = [racer.answer().split() for racer in racers]
        assert sorted(int(error) for _, error in made) == [NONE] + [EXISTS] * 5
        assert racers[0].ask("set", made[0][0]) == "0"
        assert [racer.wait(handle, 0) for racer, (handle, _) in zip(racers, made)] == [OBJECT] * 6


# Events


def test_setting_an_event_wakes_every_waiter_and_stays(agents):
    waiters = [agents.start() for _ in range(5)]
    for waiter in waiters:
        handle, _ = waiter.obtain("create-event", "E")
        waiter.tell("wait", handle, FOR_EVER)
    for waiter in waiters:
        eventually(lambda: blocked(waiter))
    setter = agents.start()
    handle, _ = setter.obtain("open-event", "E")
    assert setter.ask("set", handle) == "0"
    assert [waiter.answer() for waiter in waiters] == [str(OBJECT)] * 5
    assert setter.wait(handle, 0) == OBJECT


def test_a_wait_ends_by_its_time(agents):
    one = agents.start()
    handle, _ = one.obtain("create-event", "E")
    begin = time.monotonic()
    assert one.wait(handle, 150) == TIMEOUT
    assert time.monotonic() - begin >= 0.149


def test_waiting_costs_no_processor_time(agents):
    waiters = []
    for command in ("create-event E", "create-mutex M", "create-semaphore S 0 5"):
        waiter = agents.start()
        handle, _ = waiter.obtain(*command.split())
        waiters.append((waiter, handle))
    holder = agents.start()
    owned, _ = holder.obtain("create-mutex", "M")
    assert holder.wait(owned, 0) == OBJECT
    for waiter, handle in waiters:
        waiter.tell("wait", handle, FOR_EVER)
    for waiter, _ in waiters:
        eventually(lambda: blocked(waiter))
    before = [cpu_nanoseconds(waiter) for waiter, _ in waiters]
    time.sleep(1.5)  # the time that is observed
    spent = [cpu_nanoseconds(waiter) - start for (waiter, _), start in zip(waiters, before)]
    assert max(spent) < 3_000_000, spent


# Mutexes


def test_a_mutex_belongs_to_one_process_at_a_time(agents):
    one, two = agents.start(), agents.start()
    first, _ = one.obtain("create-mutex", "M")
    second, _ = two.obtain("create-mutex", "M")
    assert one.wait(first, 0) == OBJECT
    assert two.wait(second, 0) == TIMEOUT
    assert two.ask("release", second) == str(NOT_OWNER)
    two.tell("wait", second, FOR_EVER)
    eventually(lambda: blocked(two))
    assert one.ask("release", first) == "0"
    assert two.answer() == str(OBJECT)
    assert one.wait(first, 0) == TIMEOUT


def test_a_mutex_is_recursive_for_its_owner_through_any_handle(agents):
    one, two = agents.start(), agents.start()
    first, _ = one.obtain("create-mutex", "M")
    again, error = one.obtain("create-mutex", "M")
    assert error == EXISTS
    second, _ = two.obtain("create-mutex", "M")
    assert [one.wait(first, 0), one.wait(again, 0)] == [OBJECT, OBJECT]
    assert one.ask("release", again) == "0"
    assert two.wait(second, 0) == TIMEOUT
    assert one.ask("release", first) == "0"
    assert one.ask("release", first) == str(NOT_OWNER)
    assert two.wait(second, 0) == OBJECT


def test_a_mutex_whose_owning_process_dies_is_abandoned_to_the_waiter(agents):
    owner, waiter = agents.start(), agents.start()
    owned, _ = owner.obtain("create-mutex", "M")
    wanted, _ = waiter.obtain("create-mutex", "M")
    for _ in range(20):
        assert owner.wait(owned, FOR_EVER) == OBJECT
        waiter.tell("wait", wanted, FOR_EVER)
        eventually(lambda: blocked(waiter))
        owner.kill()
        assert waiter.answer() == str(ABANDONED)
        assert waiter.wait(wanted, 0) == OBJECT  # it owns it
        assert waiter.ask("release", wanted) == "0"
        assert waiter.ask("release", wanted) == "0"
        assert waiter.ask("release", wanted) == str(NOT_OWNER)
        owner = agents.start()
        owned, _ = owner.obtain("create-mutex", "M")


def test_a_mutex_whose_owning_thread_ends_is_abandoned(agents):
    one, two = agents.start(), agents.start()
    first, _ = one.obtain("create-mutex", "M")
    second, _ = two.obtain("create-mutex", "M")
    assert one.ask("wait-in-thread", first) == str(OBJECT)
    assert two.wait(second, 0) == ABANDONED
    assert two.ask("release", second) == "0"
    assert two.wait(second, 0) == OBJECT
    assert two.ask("release", second) == "0"
    assert one.ask("wait-in-thread", first) == str(OBJECT)
    assert one.wait(first, 0) == ABANDONED


def test_an_owned_mutex_stays_owned_when_its_handle_is_closed(agents):
    one, two = agents.start(), agents.start()
    first, _ = one.obtain("create-mutex", "M")
    second, _ = two.obtain("create-mutex", "M")
    assert one.wait(first, 0) == OBJECT
    assert one.ask("close", first) == "0"
    assert two.wait(second, 0) == TIMEOUT
    one.kill()
    assert two.wait(second, 10_000) == ABANDONED


def test_an_owned_mutex_without_any_handle_is_gone(agents):
    one, two = agents.start(), agents.start()
    first, _ = one.obtain("create-mutex", "M")
    assert one.wait(first, 0) == OBJECT
    assert one.ask("close", first) == "0"
    second, error = two.obtain("create-mutex", "M")
    assert (error, two.wait(second, 0)) == (NONE, OBJECT)


@linux_files
def test_an_owned_mutex_without_any_handle_keeps_no_descriptor(agents):
    """Its thread goes on, and may own as many after each other as it likes."""
    one, two = agents.start(), agents.start()
    one.obtain("create-event", "warm")
    before = descriptors(one)
    for number in range(20):
        handle, _ = one.obtain("create-mutex", f"M{number}")
        assert one.wait(handle, 0) == OBJECT
        assert one.ask("close", handle) == "0"
    assert descriptors(one) == before
    # With a handle elsewhere the thread still owns it, by that descriptor, until nobody has one.
    handle, _ = one.obtain("create-mutex", "N")
    two.obtain("create-mutex", "N")
    assert one.wait(handle, 0) == OBJECT
    assert one.ask("close", handle) == "0"
    assert descriptors(one) == before + 1
    two.kill()
    event, _ = one.obtain("create-event", "F")
    assert one.ask("close", event) == "0"
    assert descriptors(one) == before


def descriptors(agent):
    return len(os.listdir(f"/proc/{agent.process.pid}/fd"))


@linux_files
def test_a_mutex_closed_by_another_thread_than_its_owner_is_gone(agents):
    one = agents.start()
    handle, _ = one.obtain("create-mutex", "M")
    assert one.wait(handle, 0) == OBJECT
    assert one.ask("close-in-thread", handle) == "0"
    again, error = one.obtain("create-mutex", "M")
    assert error == NONE
    assert one.ask("wait-in-thread", again) == str(OBJECT)


def test_an_owned_mutex_that_died_with_its_last_holder_is_free_when_made_again(agents):
    """Its owner had closed its own handle; the last other handle went by sudden death, which removes no file."""
    one, two = agents.start(), agents.start()
    owned, _ = one.obtain("create-mutex", "M")
    two.obtain("create-mutex", "M")
    assert one.wait(owned, 0) == OBJECT
    assert one.ask("close", owned) == "0"
    two.kill()
    again, error = one.obtain("create-mutex", "M")
    assert error == NONE
    assert one.ask("wait-in-thread", again) == str(OBJECT)


def test_an_owned_mutex_that_died_with_its_last_holder_is_free_for_a_stranger(agents):
    one, two, three = agents.start(), agents.start(), agents.start()
    owned, _ = one.obtain("create-mutex", "M")
    two.obtain("create-mutex", "M")
    assert one.wait(owned, 0) == OBJECT
    assert one.ask("close", owned) == "0"
    two.kill()
    third, error = three.obtain("create-mutex", "M")
    assert (error, three.wait(third, 0)) == (NONE, OBJECT)


def test_an_owned_mutex_opened_again_by_its_owner_lives_by_that_handle(agents):
    one, two = agents.start(), agents.start()
    owned, _ = one.obtain("create-mutex", "M")
    two.obtain("create-mutex", "M")
    assert one.wait(owned, 0) == OBJECT
    assert one.ask("close", owned) == "0"
    again, error = one.obtain("create-mutex", "M")
    assert error == EXISTS
    two.kill()
    three = agents.start()
    third, error = three.obtain("create-mutex", "M")
    assert (error, three.wait(third, 0)) == (EXISTS, TIMEOUT)
    assert one.ask("release", again) == "0"
    assert three.wait(third, 0) == OBJECT


def test_a_mutex_that_must_be_new_is_refused_where_one_exists(agents):
    one, two = agents.start(), agents.start()
    one.obtain("create-mutex", "M")
    assert two.ask("exclusive-mutex", "M") == "0"
    assert two.ask("exclusive-mutex", "N") == "1"


def test_automatic_locks_serialise_processes(agents):
    one, two, three = agents.start(), agents.start(), agents.start()
    assert one.ask("autolock", "LOG", "1067") == "locked"
    two.tell("autolock", "LOG1067")  # the same object: name and suffix are joined
    eventually(lambda: blocked(two))
    assert three.ask("autolock", "LOG", "1068") == "locked"
    assert one.ask("autounlock") == "unlocked"
    assert two.answer() == "locked"
    three.tell("autolock", "LOG1067")
    eventually(lambda: blocked(three))
    two.kill()
    assert three.answer() == "locked"


# Semaphores


def test_a_semaphore_counts_across_processes_and_refuses_to_pass_its_maximum(agents):
    one, two = agents.start(), agents.start()
    first, _ = one.obtain("create-semaphore", "S", 1, 3)
    second, error = two.obtain("create-semaphore", "S", 0, 9)
    assert error == EXISTS
    assert [two.ask("post", second) for _ in range(3)] == ["0", "0", str(TOO_MANY_POSTS)]
    assert [one.wait(first, 0) for _ in range(4)] == [OBJECT] * 3 + [TIMEOUT]
    one.tell("wait", first, FOR_EVER)
    eventually(lambda: blocked(one))
    assert two.ask("post", second) == "0"
    assert one.answer() == str(OBJECT)


def test_posts_and_waits_of_many_processes_balance(agents):
    posters = [agents.start() for _ in range(2)]
    takers = [agents.start() for _ in range(2)]
    handles = {agent: agent.obtain("create-semaphore", "S", 0, 10_000)[0] for agent in posters + takers}

    def work(agent, word, rounds):
        for _ in range(rounds):
            answer = agent.ask(word, handles[agent], *([20_000] if word == "wait" else []))
            assert answer == "0"

    threads = [threading.Thread(target=work, args=(agent, "post" if agent in posters else "wait", 400))
               for agent in posters + takers]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    assert takers[0].wait(handles[takers[0]], 0) == TIMEOUT


# Handles and names


def test_closed_and_foreign_handles_fail_cleanly(agents):
    one = agents.start()
    event, _ = one.obtain("create-event", "E")
    assert one.ask("close", event) == "0"
    # Not all ones: on Windows that number stands for the calling process.
    for handle in (event, "0", "99999", "2147483644"):
        assert one.ask("set", handle) == str(BAD_HANDLE)
        assert one.ask("release", handle) == str(BAD_HANDLE)
        assert one.ask("post", handle) == str(BAD_HANDLE)
        assert one.wait(handle, 0) == FAILED
        assert one.ask("close", handle) == str(BAD_HANDLE)
    event, _ = one.obtain("create-event", "E")
    assert one.ask("post", event) == str(BAD_HANDLE)
    assert one.ask("release", event) == str(BAD_HANDLE)


def test_a_name_of_another_kind_is_refused(agents):
    one = agents.start()
    one.obtain("create-event", "E")
    assert one.obtain("create-mutex", "E") == ("0", BAD_HANDLE)
    assert one.obtain("create-semaphore", "E", 0, 1) == ("0", BAD_HANDLE)


@linux_files
def test_every_name_is_a_file_of_its_own(agents):
    one = agents.start()
    for name in ("a/../b", "a%2Fb", "..", "ä", "x" * 230):
        handle, error = one.obtain("create-event", name)
        assert (error, handle != "0") == (NONE, True), name
    assert len(os.listdir(agents.folder)) == 5
    assert one.obtain("create-event", "x" * 300)[0] == "0"


# Hostile files


GARBAGE = {
    "empty": b"",
    "truncated": b"KELTOBJ1",
    "zeros": bytes(24),
    "ones": b"\xff" * 24,
    "oversized": b"\xff" * 100_000,
    "value": b"KELTOBJ1" + struct.pack("4I", 1, 7, 1, 0),
    "type": b"KELTOBJ1" + struct.pack("4I", 9, 0, 1, 0),
    "count": b"KELTOBJ1" + struct.pack("4I", 3, 9, 3, 0),
    "limit": b"KELTOBJ1" + struct.pack("4I", 3, 0, 0xFF000000, 0),
    "one byte more": b"KELTOBJ1" + struct.pack("4I", 1, 0, 1, 0) + b"\0",
    "another magic": b"KELTOBJ2" + struct.pack("4I", 1, 0, 1, 0),
    "limit of an event": b"KELTOBJ1" + struct.pack("4I", 1, 0, 7, 0),
}


@linux_files
@pytest.mark.parametrize("content", GARBAGE.values(), ids=GARBAGE.keys())
def test_a_living_object_whose_file_is_garbage_gives_errors(agents, content):
    one, two = agents.start(), agents.start()
    for words in (["create-event", "E"], ["create-mutex", "M"], ["create-semaphore", "S", "1", "3"]):
        handle, error = one.obtain(*words)
        assert error == NONE
        path = os.path.join(agents.folder, f"keltop.Global%5C{words[1]}")
        with open(path, "r+b") as file:
            file.truncate(0)
            file.write(content)
        assert one.wait(handle, 0) == FAILED
        assert one.wait(handle, 50) == FAILED
        assert one.ask("set", handle) != "0"
        assert one.ask("post", handle) != "0"
        assert [agent.obtain(*words) for agent in (one, two)] == [("0", BAD_DATA)] * 2
        assert one.ask("close", handle) == "0"
        again, error = two.obtain(*words)  # dead, and so of no more account
        assert (again != "0", error) == (True, NONE)
        two.ask("close", again)


@linux_files
def test_a_living_object_whose_file_becomes_another_kind_gives_errors(agents):
    one = agents.start()
    handle, _ = one.obtain("create-event", "E")
    with open(the_file(agents), "r+b") as file:
        file.write(b"KELTOBJ1" + struct.pack("4I", 3, 1, 3, 0))
    assert one.wait(handle, 0) == FAILED
    assert one.ask("set", handle) != "0"


@linux_files
def test_the_last_handle_leaves_a_file_that_is_not_its_own(agents):
    """Somebody removed the object's file by hand, and put another program's living object in its place."""
    one, two = agents.start(), agents.start()
    old, _ = one.obtain("create-event", "E")
    path = the_file(agents)
    os.unlink(path)
    with open(path, "wb") as foreign:
        foreign.write(b"KELTOBJ1" + struct.pack("4I", 1, 1, 1, 0))
        foreign.flush()
        fcntl.fcntl(foreign, fcntl.F_OFD_SETLK, struct.pack("hhqqi", fcntl.F_WRLCK, os.SEEK_SET, 4097, 1, 0))
        assert one.ask("close", old) == "0"
        assert os.path.exists(path)
        assert two.obtain("open-event", "E")[1] != NOT_FOUND


@linux_files
def test_a_waiter_is_told_when_the_file_becomes_garbage(agents):
    one = agents.start()
    handle, _ = one.obtain("create-event", "E")
    one.tell("wait", handle, FOR_EVER)
    eventually(lambda: blocked(one))
    os.truncate(the_file(agents), 3)
    assert one.answer() == str(FAILED)


@linux_files
@pytest.mark.parametrize("make", [os.mkdir, os.mkfifo, lambda path: os.symlink("/nowhere", path),
                                  lambda path: os.symlink("/etc/passwd", path)])
def test_something_else_under_the_name_is_an_error(agents, make):
    one = agents.start()
    make(os.path.join(agents.folder, "keltop.Global%5CE"))
    assert one.obtain("create-event", "E") == ("0", DENIED)
    assert one.obtain("open-event", "E") == ("0", DENIED)


@linux_files
def test_a_stopped_holder_of_the_lock_makes_no_one_hang(agents):
    """Some process keeps the bytes locked that are meant to be locked for an instant."""
    one, two = agents.start(), agents.start()
    handle, _ = one.obtain("create-semaphore", "S", 1, 3)
    with open(the_file(agents), "r+b") as file:
        lock = struct.pack("hhqqi", fcntl.F_WRLCK, os.SEEK_SET, 4096, 1, 0)
        fcntl.fcntl(file, fcntl.F_OFD_SETLK, lock)
        begin = time.monotonic()
        assert one.wait(handle, 0) == FAILED
        assert time.monotonic() - begin < 1  # beside two seconds, for who has no time to wait
        assert two.obtain("create-semaphore", "S", 1, 3) == ("0", BUSY)
    assert one.wait(handle, 0) == OBJECT
    with open(the_file(agents), "r+b") as file:
        fcntl.fcntl(file, fcntl.F_OFD_SETLK, lock)
        begin = time.monotonic()
        assert one.wait(handle, 0) == TIMEOUT  # nothing to take: no lock is needed to see it
        assert time.monotonic() - begin < 0.04


@linux_files
@as_root
def test_a_file_that_others_may_not_open_denies_access(agents):
    with open(os.path.join(agents.folder, "keltop.Global%5CM"), "wb") as file:
        os.fchmod(file.fileno(), 0o600)
    agents.command = for_everybody(agents.command, agents.folder)
    other = agents.start(**AS_NOBODY)
    assert other.obtain("create-mutex", "M") == ("0", DENIED)
    assert other.ask("exclusive-mutex", "M") == "0"


# A file that loses its name


def remove(path):
    os.unlink(path)


def rename(path):
    os.rename(path, path + ".old")


def copy_over(path):
    shutil.copy(path, path + ".new")
    os.replace(path + ".new", path)


def overwrite_by_something_else(path):
    with open(path + ".new", "wb") as file:
        file.write(b"not an object")
    os.replace(path + ".new", path)


def put_a_folder_there(path):
    os.unlink(path)
    os.mkdir(path)


def put_a_pipe_there(path):
    os.unlink(path)
    os.mkfifo(path)


def put_a_link_there(path):
    os.unlink(path)
    os.symlink("/nowhere", path)


def make_the_folder_anew(path):
    folder = os.path.dirname(path)
    shutil.rmtree(folder)
    os.mkdir(folder)
    os.chmod(folder, 0o1777)


LOSSES = pytest.mark.parametrize("lose", [remove, rename, copy_over, overwrite_by_something_else, put_a_folder_there,
                                          put_a_pipe_there, put_a_link_there, make_the_folder_anew],
                                 ids=lambda lose: lose.__name__)


@linux_files
@LOSSES
def test_an_event_is_one_whatever_becomes_of_its_file(agents, lose):
    one, two, three = agents.start(), agents.start(), agents.start()
    first, _ = one.obtain("create-event", "E")
    one.tell("wait", first, FOR_EVER)
    eventually(lambda: blocked(one))
    lose(the_file(agents))
    second, error = two.obtain("create-event", "E")
    assert error == EXISTS
    third, _ = three.obtain("open-event", "E")
    assert two.wait(second, 0) == TIMEOUT
    assert three.ask("set", third) == "0"
    assert one.answer() == str(OBJECT)
    assert two.wait(second, 0) == OBJECT


@linux_files
def test_an_event_without_a_file_is_handed_on_by_each_of_its_holders(agents):
    holder = agents.start()
    handle, _ = holder.obtain("create-event", "E")
    assert holder.ask("set", handle) == "0"
    remove(the_file(agents))
    for _ in range(5):
        heir = agents.start()
        handle, error = heir.obtain("create-event", "E")
        assert (error, heir.wait(handle, 0)) == (EXISTS, OBJECT)
        holder.kill()
        holder = heir
    assert os.listdir(agents.folder) == []
    holder.kill()
    last = agents.start()
    handle, error = last.obtain("create-event", "E")
    assert (error, last.wait(handle, 0)) == (NONE, TIMEOUT)


@linux_files
@pytest.mark.parametrize("end", ["close", "kill"])
def test_an_object_without_a_file_ends_with_its_last_handle(agents, end):
    one, two = agents.start(), agents.start()
    handle, _ = one.obtain("create-event", "E")
    remove(the_file(agents))
    if end == "close":
        assert one.ask("close", handle) == "0"
    else:
        one.kill()
    assert two.obtain("open-event", "E") == ("0", NOT_FOUND)
    assert two.obtain("create-event", "E")[1] == NONE


@linux_files
@LOSSES
def test_an_automatic_lock_serialises_whatever_becomes_of_its_file(agents, lose):
    one, two, three = agents.start(), agents.start(), agents.start()
    assert one.ask("autolock", "LOG1067") == "locked"
    lose(the_file(agents))
    two.tell("autolock", "LOG1067")
    three.tell("autolock", "LOG1067")
    for waiting in (two, three):
        eventually(lambda: blocked(waiting))
    assert not select.select([two.process.stdout, three.process.stdout], [], [], 0.3)[0]
    one.kill()
    (first,) = select.select([two.process.stdout, three.process.stdout], [], [], LONG)[0]
    winner, other = (two, three) if first is two.process.stdout else (three, two)
    assert winner.answer() == "locked"
    assert winner.ask("autounlock") == "unlocked"
    assert other.answer() == "locked"


@linux_files
def test_many_who_come_at_once_after_the_loss_share_one_object(agents):
    holder = agents.start()
    racers = [agents.start() for _ in range(6)]
    for round_number in range(30):
        handle, _ = holder.obtain("create-event", f"E{round_number}")
        (path,) = glob.glob(os.path.join(agents.folder, f"keltop.*E{round_number}"))
        for racer in racers[:3]:
            racer.tell("create-event", f"E{round_number}")
        remove(path)
        for racer in racers[3:]:
            racer.tell("create-event", f"E{round_number}")
        made = [racer.answer().split() for racer in racers]
        assert [int(error) for _, error in made] == [EXISTS] * 6
        assert holder.ask("set", handle) == "0"
        assert [racer.wait(own, 0) for racer, (own, _) in zip(racers, made)] == [OBJECT] * 6


@linux_files
def test_files_removed_again_and_again_split_no_object(agents):
    """Somebody cleans the folder all the time while processes create, open, set and close."""
    racers = [agents.start() for _ in range(3)]
    keeper = agents.start()
    handle, _ = keeper.obtain("create-event", "E")
    for racer in racers:
        racer.tell("churn", "E", 500)
    busy = list(racers)
    while busy:
        for path in glob.glob(os.path.join(agents.folder, "keltop.*")):
            with contextlib.suppress(FileNotFoundError):
                os.unlink(path)
        busy = [racer for racer in busy if not select.select([racer.process.stdout], [], [], 0)[0]]
    assert [racer.answer() for racer in racers] == ["0"] * 3
    assert keeper.wait(handle, 0) == OBJECT


@linux_files
def test_those_who_look_for_a_name_come_one_at_a_time_and_hang_on_nobody(agents):
    """Somebody holds back the others, as one does between its look and its creation; then for too long."""
    one, two = agents.start(), agents.start()
    folder = os.open(agents.folder, os.O_RDONLY)
    try:
        fcntl.flock(folder, fcntl.LOCK_SH)
        one.tell("create-event", "E")
        assert not select.select([one.process.stdout], [], [], 0.3)[0]
        fcntl.flock(folder, fcntl.LOCK_UN)
        assert one.answer().split()[1] == str(NONE)
        fcntl.flock(folder, fcntl.LOCK_SH)
        begin = time.monotonic()
        assert two.obtain("create-event", "E")[1] == EXISTS
        assert 1.9 < time.monotonic() - begin < 2 + LONG / 4
    finally:
        os.close(folder)


@linux_files
@as_root
def test_an_object_without_a_file_is_for_every_account(agents):
    agents.command = for_everybody(agents.command, agents.folder)
    for first, second in (({}, AS_NOBODY), (AS_NOBODY, {})):
        one, two = agents.start(umask=0o077, **first), agents.start(umask=0o077, **second)
        event, _ = one.obtain("create-event", "E")
        remove(os.path.join(agents.folder, "keltop.Global%5CE"))
        opened, error = two.obtain("create-event", "E")
        assert error == EXISTS
        assert two.ask("set", opened) == "0"
        assert one.wait(event, 0) == OBJECT
        one.kill()
        two.kill()


@linux_files
def test_a_stopped_holder_of_an_object_without_a_file_leads_to_no_second_one(agents):
    one, two = agents.start(), agents.start()
    handle, _ = one.obtain("create-event", "E")
    remove(the_file(agents))
    one.process.send_signal(signal.SIGSTOP)
    eventually(lambda: all_stopped(one))
    begin = time.monotonic()
    assert two.obtain("create-event", "E") == ("0", BUSY)
    assert time.monotonic() - begin < 2 + LONG / 4
    one.process.send_signal(signal.SIGCONT)
    second, error = two.obtain("create-event", "E")
    assert error == EXISTS
    assert two.ask("set", second) == "0"
    assert one.wait(handle, 0) == OBJECT


def holder_address(agents):
    """Where the holders of the event E answer, without the number of the holder."""
    one = agents.start()
    handle, _ = one.obtain("create-event", "E")
    with open("/proc/net/unix", encoding="ascii", errors="replace") as table:
        before = {line.split()[-1] for line in table if " @keltop.object." in line}
    assert one.ask("close", handle) == "0"
    with open("/proc/net/unix", encoding="ascii", errors="replace") as table:
        after = {line.split()[-1] for line in table if " @keltop.object." in line}
    gone = before - after
    assert gone
    return [address.replace("@", "\0", 1)[:-2] for address in gone]


def squat(addresses, count=32):
    """Sockets of somebody else where the holders of an object would have theirs."""
    made = []
    for address in addresses:
        for number in range(count):
            with contextlib.suppress(OSError):
                listening = socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET)
                listening.bind(f"{address}{number:02x}")
                listening.listen(8)
                made.append(listening)
    return made


@linux_files
def test_strangers_in_the_holders_place_make_no_one_hang(agents):
    two = agents.start()
    squatters = squat(holder_address(agents))
    assert squatters
    begin = time.monotonic()
    assert two.obtain("create-event", "E") == ("0", BUSY)
    assert time.monotonic() - begin < 2 + LONG / 4
    for squatter in squatters:
        squatter.close()
    assert two.obtain("create-event", "E")[1] == NONE


def something_to_hand_out(kind, agents):
    path = os.path.join(agents.folder, "handed")
    if kind == "pipe":
        os.mkfifo(path)
        return os.open(path, os.O_RDWR)
    if kind == "device":
        return os.open("/dev/null", os.O_RDWR)
    if kind == "folder":
        return os.open(agents.folder, os.O_RDONLY)
    if kind == "other file system":
        return os.open("/proc/version", os.O_RDONLY)
    return os.open(path, os.O_RDWR | os.O_CREAT)  # an empty file, dead


def the_key(agents):
    """What the holders of the event E and those who ask agree on."""
    real = os.path.realpath(agents.folder)
    return f"{os.stat(real).st_dev}:{real}/keltop.Global%5CE".encode()


@contextlib.contextmanager
def strangers(address, answer):
    """Where the holders of an object would have their sockets: answer(connection) is what each who asks is given."""
    squatters = squat(address)
    done = threading.Event()

    def serve(listening):
        listening.settimeout(0.05)
        while not done.is_set():
            with contextlib.suppress(OSError):
                connection, _ = listening.accept()
                with connection:
                    answer(connection)

    threads = [threading.Thread(target=serve, args=(squatter,)) for squatter in squatters]
    for thread in threads:
        thread.start()
    try:
        yield
    finally:
        done.set()
        for thread in threads:
            thread.join()
        for squatter in squatters:
            squatter.close()


@linux_files
@pytest.mark.parametrize("text", [b"x", b"another place", None], ids=["no text", "another text", "the text"])
@pytest.mark.parametrize("kind", ["nothing", "pipe", "device", "folder", "other file system", "dead file"])
def test_what_strangers_hand_out_is_not_trusted(agents, kind, text):
    two = agents.start()
    address = holder_address(agents)
    text = text or the_key(agents)

    def answer(connection):
        if kind == "nothing":
            connection.sendall(text)
        else:
            handed = something_to_hand_out(kind, agents)
            socket.send_fds(connection, [text], [handed])
            os.close(handed)

    with strangers(address, answer):
        handle, error = two.obtain("create-event", "E")
        assert (error, two.wait(handle, 0)) == (NONE, TIMEOUT)


@linux_files
@pytest.mark.parametrize("place", ["another text", "another file system"])
def test_a_living_object_of_another_place_is_not_taken(agents, place):
    two = agents.start()
    address = holder_address(agents)
    folder = agents.folder if place == "another text" else "/dev/shm"
    if place == "another file system" and os.stat(folder).st_dev == os.stat(agents.folder).st_dev:
        pytest.skip("there is no other file system to write to")
    with tempfile.NamedTemporaryFile(dir=folder, prefix="keltop-test-", buffering=0) as living:
        living.write(b"KELTOBJ1" + struct.pack("4I", 1, 1, 1, 0))
        fcntl.fcntl(living, fcntl.F_OFD_SETLK, struct.pack("hhqqi", fcntl.F_RDLCK, os.SEEK_SET, 4097, 1, 0))
        text = b"another place" if place == "another text" else the_key(agents)
        with strangers(address, lambda connection: socket.send_fds(connection, [text], [living.fileno()])):
            handle, error = two.obtain("create-event", "E")
            assert (error, two.wait(handle, 0)) == (NONE, TIMEOUT)


# Two accounts


@linux_files
@as_root
def test_an_object_is_for_every_account(agents):
    """Either account creates, the other opens, sets and waits, whatever the umask; the folder is sticky."""
    agents.command = for_everybody(agents.command, agents.folder)
    for first, second in (({}, AS_NOBODY), (AS_NOBODY, {})):
        one, two = agents.start(umask=0o077, **first), agents.start(umask=0o077, **second)
        event, error = one.obtain("create-event", "E")
        assert error == NONE
        opened, error = two.obtain("create-event", "E")
        assert error == EXISTS
        two.tell("wait", opened, FOR_EVER)
        eventually(lambda: blocked(two))
        assert one.ask("set", event) == "0"
        assert two.answer() == str(OBJECT)
        mutex, _ = one.obtain("create-mutex", "M")
        shared, _ = two.obtain("create-mutex", "M")
        assert one.wait(mutex, 0) == OBJECT
        assert two.wait(shared, 0) == TIMEOUT
        one.kill()
        assert two.wait(shared, 10_000) == ABANDONED
        two.kill()


@linux_files
@as_root
def test_what_another_account_left_behind_is_taken_over(agents):
    agents.command = for_everybody(agents.command, agents.folder)
    for first, second in (({}, AS_NOBODY), (AS_NOBODY, {})):
        one, two = agents.start(**first), agents.start(**second)
        event, _ = one.obtain("create-event", "E")
        assert one.ask("set", event) == "0"
        one.kill()
        event, error = two.obtain("create-event", "E")
        assert (error, two.wait(event, 0)) == (NONE, TIMEOUT)
        two.ask("close", event)
        assert two.obtain("open-event", "E") == ("0", NOT_FOUND)
        two.kill()


@linux_files
@as_root
def test_an_owned_mutex_without_any_handle_is_gone_from_a_file_that_stays(agents):
    """The file is another account's, so closing the last handle cannot remove it."""
    agents.command = for_everybody(agents.command, agents.folder)
    leave_behind(agents, "create-mutex", "M")
    one, two = agents.start(**AS_NOBODY), agents.start(**AS_NOBODY)
    first, error = one.obtain("create-mutex", "M")
    assert (error, one.wait(first, 0)) == (NONE, OBJECT)
    assert one.ask("close", first) == "0"
    second, error = two.obtain("create-mutex", "M")
    assert (error, two.wait(second, 0)) == (NONE, OBJECT)


@linux_files
@as_root
def test_an_owned_mutex_made_again_in_a_file_that_stays_is_free(agents):
    """Its owner had closed its own handle, the last other holder was killed, and the file is another account's."""
    agents.command = for_everybody(agents.command, agents.folder)
    leave_behind(agents, "create-mutex", "M")
    one, two = agents.start(**AS_NOBODY), agents.start(**AS_NOBODY)
    owned, _ = one.obtain("create-mutex", "M")
    two.obtain("create-mutex", "M")
    assert one.wait(owned, 0) == OBJECT
    assert one.ask("close", owned) == "0"
    two.kill()
    again, error = one.obtain("create-mutex", "M")
    assert error == NONE
    assert one.ask("wait-in-thread", again) == str(OBJECT)
