"""Breaks the program in one place at a time and shows that the tests notice.

mutations.toml lists the places. Each is broken in a copy of the tree, never in the tree itself: the copy is built anew, and
the tests that should notice are run on it. A mutation that they do not notice has survived.
"""

import argparse
import collections
import concurrent.futures
import contextlib
import ctypes
import datetime
import fcntl
import filecmp
import hashlib
import json
import multiprocessing
import os
import pathlib
import re
import shutil
import signal
import statistics
import subprocess
import sys
import time
import tomllib

HERE = pathlib.Path(__file__).resolve().parent
ROOT = HERE.parent.parent
TABLE = HERE / "mutations.toml"
PAGE = ROOT / "docs" / "mutation-check.md"
WORK = ROOT / "build" / "mutation"
RESULTS = WORK / "results.json"

TEST_LIMIT = 120  # seconds for the tests of one mutation; a run that takes longer hangs, which counts as noticed
BUILD_LIMIT = 900

FOLDERS = ("cmake", "docs", "packaging", "src", "tests")  # what the copy has; a test reads a page

UNIT_PROGRAMS = {  # the suites that are not in keltop_tests
    "RefusedAccess": "keltop_refused_access_tests",
    "RefusedObjectCall": "keltop_refused_call_tests",
    "SocketOptions": "keltop_push_tests",
    "ZPushServiceWithoutContext": "keltop_push_tests",
    "ZPushServices": "keltop_push_tests",
    "ZPushWithoutContext": "keltop_push_tests",
    "ZSockets": "keltop_push_tests",
}
PROCESS_PROGRAMS = {  # what the files of tests/process need besides keltop
    "test_objects.py": ["keltop_object_agent"],
    "test_shutdown.py": ["keltop_object_agent"],
    "test_traces.py": ["keltop_trace_agent", "keltop_trace_order"],
    "test_posts_xml.py": ["keltop_xml_tree"],
    "test_hostile.py": ["keltop_view_agent"],
    "test_page.py": ["keltop_view_agent"],
}

CRASH = " (crash)"
NOTICED, HUNG, SURVIVED, BROKEN = "noticed", "hung", "survived", "does not build"


class Mutation:
    """One place to break, how, and the tests that should notice."""

    def __init__(self, file, row, tests, equivalent=""):
        self.name, old, new, self.breaks, *own = row
        self.file = "src/" + file
        self.old = old
        self.new = new
        self.equivalent = equivalent
        tests = own or tests
        self.unit = [test for test in tests if ".py::" not in test]
        self.process = [test for test in tests if ".py::" in test]
        self.program = UNIT_PROGRAMS.get(self.unit[0].split(".")[0], "keltop_tests") if self.unit else None

    def faults(self, units, processes):
        """What keeps the row from being used on the tree as it is."""
        path = ROOT / self.file
        if not self.file.startswith("src/") or not path.is_file():
            yield f"no source file {self.file}"
            return
        count = path.read_text(encoding="utf-8").count(self.old)
        if count != 1:
            yield f"the text to replace occurs {count} times in {self.file}"
        if self.old == self.new:
            yield "changes nothing"
        if not self.unit and not self.process and not self.equivalent:
            yield "no tests named"
        for test in self.unit:
            if not any(matches(test, known) for known in units):
                yield f"no test {test}"
        for test in self.process:
            if not any(matches(test, known) for known in processes):
                yield f"no test {test}"

    def key(self):
        """Changes when the row, or the file that it breaks, does."""
        parts = [self.file, self.old, self.new, *self.unit, *self.process,
                 (ROOT / self.file).read_text(encoding="utf-8")]
        return hashlib.sha256("\0".join(parts).encode()).hexdigest()

    def broken_text(self):
        return (ROOT / self.file).read_text(encoding="utf-8").replace(self.old, self.new)

    def targets(self):
        wanted = [self.program] if self.unit else []
        if self.process:
            wanted.append("keltop")
        for test in self.process:
            wanted += PROCESS_PROGRAMS.get(test.split("::")[0], [])
        return sorted(set(wanted))


def matches(test, known):
    """Whether a name of the table, which may have "*", stands for a test of the sources."""
    plain = re.sub(r"^.*?/|/\d+$", "", test)
    return re.fullmatch(re.escape(plain).replace(r"\*", ".*"), known) is not None


def known_tests():
    units = set()
    for source in (ROOT / "tests").rglob("*.cpp"):
        units.update(f"{suite}.{name}" for suite, name in
                     re.findall(r"\bTEST(?:_F|_P)?\((\w+), (\w+)\)", source.read_text(encoding="utf-8")))
    processes = set()
    for source in (*(ROOT / "tests" / "process").glob("test_*.py"), *(ROOT / "tests" / "browser").glob("test_*.py")):
        processes.update(f"{source.name}::{name}" for name in
                         re.findall(r"^def (test_\w+)\(", source.read_text(encoding="utf-8"), re.MULTILINE))
    return units, processes


def read_table():
    with open(TABLE, "rb") as table:
        groups = tomllib.load(table)["file"]
    mutations = [Mutation(group["path"], row, group.get("tests", [])) for group in groups for row in group["mutations"]]
    mutations += [Mutation(group["path"], row[:4], [], row[4]) for group in groups for row in group.get("equivalent", [])]
    units, processes = known_tests()
    faults = []
    names = set()
    for mutation in mutations:
        faults += [f"{mutation.name}: {fault}" for fault in mutation.faults(units, processes)]
        if mutation.name in names:
            faults.append(f"{mutation.name}: twice in the table")
        names.add(mutation.name)
    if faults:
        sys.exit("\n".join([f"{TABLE.relative_to(ROOT)} does not fit the tree:", *faults]))
    return mutations


class Tree:
    """A copy of the tree with a build of its own, for one process."""

    def __init__(self, number):
        self.folder = WORK / str(number)
        self.copy = self.folder / "tree"
        self.build = self.copy / "build" / "release"
        self.environment = {
            **os.environ,
            "CMAKE_CXX_COMPILER_LAUNCHER": str(HERE / "compile.sh"),
            "CCACHE_BASEDIR": str(self.copy),
            "CCACHE_NOHASHDIR": "1",
            "KELTOP_OBJECT_DIR": str(self.folder / "objects"),
            "KELTOP_DATA_LOCATION": str(self.folder / "data"),
            "PYTHONDONTWRITEBYTECODE": "1",
        }
        # What a test leaves running when it is cut off becomes a child of this process, which ends it.
        ctypes.CDLL(None).prctl(36, 1, 0, 0, 0)  # PR_SET_CHILD_SUBREAPER

    def renew(self):
        """Makes the copy what the tree is now, touching only what has changed."""
        wanted = set()
        for folder in FOLDERS:
            wanted.update(path.relative_to(ROOT) for path in (ROOT / folder).rglob("*")
                          if path.is_file() and "__pycache__" not in path.parts)
        wanted.update(pathlib.Path(name) for name in ("CMakeLists.txt", "CMakePresets.json"))
        for folder in FOLDERS:
            for path in list((self.copy / folder).rglob("*")):
                if path.is_file() and path.relative_to(self.copy) not in wanted:
                    path.unlink()
        for path in wanted:
            target = self.copy / path
            if not target.is_file() or not filecmp.cmp(ROOT / path, target, shallow=False):
                target.parent.mkdir(parents=True, exist_ok=True)
                shutil.copy2(ROOT / path, target)
                os.utime(target)
        for folder in ("objects", "data/TRACELOGS"):
            (self.folder / folder).mkdir(parents=True, exist_ok=True)

    def configure(self):
        if not (self.build / "build.ninja").is_file():
            linker = ["-DCMAKE_EXE_LINKER_FLAGS=-fuse-ld=lld"] if shutil.which("ld.lld") else []
            self._run(["cmake", "--preset", "release", *linker], BUILD_LIMIT, cwd=self.copy, check=True)

    def make(self, targets, broken=None):
        """Builds; None when that went well, else what the build said."""
        environment = {**self.environment, "KELTOP_MUTATED": str(self.copy / broken) if broken else ""}
        done = self._run(["nice", "cmake", "--build", str(self.build), "--parallel", "2", "--target", *targets],
                         BUILD_LIMIT, env=environment)
        if done is None:
            return "the build took too long"
        return None if done.returncode == 0 else done.stdout[-3000:]

    def test_unit(self, program, tests, limit=TEST_LIMIT):
        done = self._run([str(self.build / program), "--gtest_filter=" + ":".join(tests), "--gtest_fail_fast"], limit)
        if done is None:
            return HUNG, "no end"
        if done.returncode == 0:
            ran = re.search(r"\[==========\] (\d+) tests? from .* ran", done.stdout)
            return (SURVIVED, "") if ran and int(ran[1]) > 0 else (BROKEN, "no test ran")
        failed = re.search(r"\[  FAILED  \] ([\w./]+)", done.stdout)
        running = re.findall(r"\[ RUN      \] ([\w./]+)", done.stdout)
        return NOTICED, failed[1] if failed else f"{running[-1] if running else '*'}{CRASH}"

    def test_process(self, tests, limit=TEST_LIMIT):
        browser = self.copy / "tests" / "browser"
        folder = browser if (browser / tests[0].split("::")[0]).exists() else self.copy / "tests" / "process"
        agents = [f"--view-agent={self.build}/keltop_view_agent"] if folder == browser else []
        command = ["/usr/bin/python3", "-m", "pytest", "-q", "-x", "-p", "no:cacheprovider", "--no-header", "--tb=short",
                   f"--keltop={self.build}/keltop", f"--agent={self.build}/keltop_object_agent",
                   f"--trace-agent={self.build}/keltop_trace_agent", *agents, *(str(folder / test.removesuffix("::*")) for test in tests)]
        done = self._run(command, limit, cwd=self.copy)
        if done is None:
            return HUNG, "no end"
        if done.returncode == 0:
            return (SURVIVED, "") if re.search(r"\d+ passed", done.stdout) else (BROKEN, "no test ran")
        failed = re.search(r"^(?:FAILED|ERROR) (?:\S*/)?(test_\w+\.py)::(\w+)", done.stdout, re.MULTILINE)
        if done.returncode == 1 and failed:
            return NOTICED, f"{failed[1]}::{failed[2]}"
        return BROKEN, done.stdout[-3000:]

    def test(self, mutation):
        """The first tests that fail decide."""
        verdict, by = SURVIVED, ""
        if mutation.unit:
            verdict, by = self.confirmed(lambda tests: self.test_unit(mutation.program, tests), mutation.unit)
        if verdict == SURVIVED and mutation.process:
            verdict, by = self.confirmed(self.test_process, mutation.process)
        return verdict, by

    @staticmethod
    def confirmed(run, tests):
        """A failure, or a run without an end, must repeat: on a busy machine a test may fail by itself."""
        verdict, by = run(tests)
        if verdict == NOTICED:
            verdict = run([by.removesuffix(CRASH)])[0]
        elif verdict == HUNG:
            verdict, by = run(tests)
        return verdict, by if verdict != SURVIVED else ""

    def try_mutation(self, mutation):
        source = self.copy / mutation.file
        original = source.read_text(encoding="utf-8")
        begin = time.monotonic()
        try:
            source.write_text(mutation.broken_text(), encoding="utf-8")
            trouble = self.make(mutation.targets(), mutation.file)
            verdict, by = (BROKEN, trouble) if trouble else self.test(mutation)
        finally:
            source.write_text(original, encoding="utf-8")
        return {"name": mutation.name, "key": mutation.key(), "verdict": verdict, "by": by,
                "seconds": round(time.monotonic() - begin, 1), "date": datetime.date.today().isoformat()}

    def _run(self, command, limit, check=False, **options):
        """Runs a command with a limit; None when it was cut off. Nothing of it is left running."""
        options = {"env": self.environment, **options}
        process = subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                                   start_new_session=True, **options)
        try:
            output = process.communicate(timeout=limit)[0].decode(errors="replace")
        except subprocess.TimeoutExpired:
            self._end(process)
            return None
        except BaseException:
            self._end(process)
            raise
        self.end_children()
        if check and process.returncode != 0:
            sys.exit(output)
        return subprocess.CompletedProcess(command, process.returncode, output)

    def _end(self, process):
        """Ends a command with its whole group."""
        with contextlib.suppress(ProcessLookupError):
            os.killpg(process.pid, signal.SIGKILL)
        self.end_children()
        process.communicate()

    @staticmethod
    def end_children():
        """Ends what a test has left running, with all that it started."""
        while children := pathlib.Path(f"/proc/self/task/{os.getpid()}/children").read_text(encoding="ascii").split():
            for child in children:
                with contextlib.suppress(ProcessLookupError, ChildProcessError):
                    os.kill(int(child), signal.SIGKILL)
                    os.waitpid(int(child), 0)


def baseline(tree, mutations):
    """The named tests must pass on the program as it is. A test that depends on time has a second chance."""
    tree.renew()
    tree.configure()
    if trouble := tree.make(sorted({target for mutation in mutations for target in mutation.targets()})):
        sys.exit(f"the program as it is does not build:\n{trouble}")
    units, processes = {}, {}
    for mutation in mutations:
        if mutation.unit:
            units.setdefault(mutation.program, set()).update(mutation.unit)
        for test in mutation.process:
            processes.setdefault(test.split("::")[0], set()).add(test)
    runs = [lambda program=program, tests=tests: tree.test_unit(program, sorted(tests), 10 * TEST_LIMIT)
            for program, tests in units.items()]
    runs += [lambda tests=tests: tree.test_process(sorted(tests), 10 * TEST_LIMIT) for tests in processes.values()]
    for once in runs:
        if once()[0] != SURVIVED and (verdict := once())[0] != SURVIVED:
            sys.exit(f"does not pass on the program as it is: {' '.join(verdict)}")


class Worker:
    """What one process of the pool works with."""

    tree = None

    @classmethod
    def begin(cls, numbers):
        signal.signal(signal.SIGTERM, cls.end)  # how the pool ends the others when one has died
        cls.tree = Tree(numbers.get())
        cls.tree.renew()
        cls.tree.configure()

    @classmethod
    def end(cls, *_):
        Tree.end_children()
        os._exit(1)

    @classmethod
    def try_mutation(cls, mutation):
        return cls.tree.try_mutation(mutation)


def run(mutations, jobs, show):
    """Tries all; a process of the pool that dies ends the run."""
    numbers = multiprocessing.Queue()
    for number in range(jobs):
        numbers.put(number)
    seen = collections.Counter()
    turns = []
    for mutation in mutations:  # a run that is cut short has looked everywhere
        turns.append((seen[mutation.file], len(turns), mutation))
        seen[mutation.file] += 1
    with concurrent.futures.ProcessPoolExecutor(jobs, initializer=Worker.begin, initargs=(numbers,)) as pool:
        try:
            tries = [pool.submit(Worker.try_mutation, mutation)
                     for *_, mutation in sorted(turns, key=lambda turn: turn[:2])]
            for tried in concurrent.futures.as_completed(tries):
                show(tried.result())
        except BaseException:
            pool.shutdown(wait=False, cancel_futures=True)
            raise


@contextlib.contextmanager
def alone():
    """Nobody else uses the folder of the copies meanwhile."""
    WORK.mkdir(parents=True, exist_ok=True)
    with open(WORK / "lock", "wb") as lock:
        try:
            fcntl.flock(lock, fcntl.LOCK_EX | fcntl.LOCK_NB)
        except BlockingIOError:
            sys.exit(f"another run uses {WORK.relative_to(ROOT)}")
        yield


def load_results():
    return json.loads(RESULTS.read_text(encoding="utf-8")) if RESULTS.is_file() else {}


def save_results(results):
    RESULTS.parent.mkdir(parents=True, exist_ok=True)
    RESULTS.write_text(json.dumps(results, indent=1), encoding="utf-8")


def cell(text):
    return text.replace("|", "\\|").replace("\n", " ")


def still_holds(mutation, results):
    """Whether there is a result, and neither the row nor the file that it breaks has changed since."""
    known = results.get(mutation.name)
    return known is not None and known["key"] == mutation.key() and known["verdict"] != BROKEN


def rows_of(mutations, texts):
    """A row for each mutation: its name, its file, what it breaks, and one text more."""
    return [f"| {mutation.name} | `{mutation.file.removeprefix('src/')}` | {cell(mutation.breaks)} | {cell(text)} |"
            for mutation, text in zip(mutations, texts)]


def write_page(mutations, results):
    """The list with its results, for the documentation."""
    equivalent = [mutation for mutation in mutations if mutation.equivalent]
    tried = [mutation for mutation in mutations if not mutation.equivalent and still_holds(mutation, results)]
    untried = [mutation for mutation in mutations if not mutation.equivalent and not still_holds(mutation, results)]
    verdicts = [results[mutation.name] for mutation in tried]
    counts = collections.Counter(result["verdict"] for result in verdicts)
    dates = sorted({result["date"] for result in verdicts})
    lines = [
        "# Mutation check",
        "",
        "Does a test fail when the program does something else than it should? `scripts/mutation.sh` breaks it in one "
        "place at a time, in a copy of the tree, builds it and runs the tests that should notice; a failure counts when "
        "it repeats. The script writes this page; the places are in "
        "[tests/mutation/mutations.toml](../tests/mutation/mutations.toml).",
        "",
        "| | |",
        "| --- | --- |",
        "| command | `scripts/mutation.sh` |",
        f"| date | {' to '.join(dict.fromkeys((dates[0], dates[-1])))} |",
        f"| mutations tried | {len(tried)} |",
        f"| noticed by a failing test | {counts[NOTICED]} |",
        f"| noticed because the tests did not end within {TEST_LIMIT} s | {counts[HUNG]} |",
        f"| survived | {counts[SURVIVED]} |",
        f"| in the table, not tried yet | {len(untried)} |",
        f"| in the table, nothing that a test could tell | {len(equivalent)} |",
        f"| one mutation, build and tests | {statistics.median(result['seconds'] for result in verdicts):.0f} s (median) |",
        "",
        "| mutation | file | what it breaks | noticed by |",
        "| --- | --- | --- | --- |",
        *rows_of(tried, [{NOTICED: f"`{result['by']}`", HUNG: "did not end", SURVIVED: "**nothing**"}[result["verdict"]]
                         for result in verdicts]),
    ]
    if equivalent:
        lines += ["", "## Nothing that a test could tell", "", "| mutation | file | what it changes | why |",
                  "| --- | --- | --- | --- |", *rows_of(equivalent, [mutation.equivalent for mutation in equivalent])]
    if untried:
        lines += ["", "## Not tried yet", "", "| mutation | file | what it breaks | tests that should notice |",
                  "| --- | --- | --- | --- |",
                  *rows_of(untried, [" ".join(f"`{test}`" for test in [*mutation.unit, *mutation.process])
                                     for mutation in untried])]
    PAGE.write_text("\n".join(lines) + "\n", encoding="utf-8")
    print(f"written: {PAGE.relative_to(ROOT)}")


def select(mutations, names):
    unknown = [name for name in names if not any(mutation.name.startswith(name) for mutation in mutations)]
    if unknown:
        sys.exit(f"no mutation is named {', '.join(unknown)}")
    return [mutation for mutation in mutations if not names or any(mutation.name.startswith(name) for name in names)]


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("names", nargs="*", help="only the mutations whose names begin so; all without")
    parser.add_argument("--check", action="store_true", help="only see that the table fits the sources and the tests")
    parser.add_argument("--resume", action="store_true",
                        help="leave out what was noticed before, unless the row or the file that it breaks has changed")
    parser.add_argument("--jobs", type=int, default=1, help="how many copies of the tree are built and tested at once")
    parser.add_argument("--page", action="store_true", help="only write docs/mutation-check.md from the results there are")
    parser.add_argument("--no-baseline", action="store_true", help="do not run the tests on the program as it is first")
    options = parser.parse_args()

    mutations = read_table()
    if options.check:
        print(f"{len(mutations)} mutations fit the tree")
        return
    if options.page:
        write_page(mutations, load_results())
        return
    with alone():
        bad = try_chosen(mutations, options)
    sys.exit(1 if bad else 0)


def try_chosen(mutations, options):
    """Tries what the options choose; gives the results that are not as they should be."""
    results = load_results()
    chosen = [mutation for mutation in select(mutations, options.names) if not mutation.equivalent]
    if options.resume:
        chosen = [mutation for mutation in chosen
                  if not still_holds(mutation, results) or results[mutation.name]["verdict"] == SURVIVED]
    if chosen and not options.no_baseline:
        print(f"the tests of {len(chosen)} mutations, on the program as it is", flush=True)
        baseline(Tree(0), chosen)

    done = []

    def show(result):
        done.append(result)
        results[result["name"]] = result
        save_results(results)
        print(f"{len(done):4}/{len(chosen)} {result['verdict']:14} {result['seconds']:6.1f} s  {result['name']:32} "
              f"{result['by'] if result['verdict'] != BROKEN else ''}", flush=True)
        if result["verdict"] == BROKEN:
            print(result["by"], flush=True)

    run(chosen, max(1, min(options.jobs, len(chosen))), show)
    bad = [result for result in done if result["verdict"] in (SURVIVED, BROKEN)]
    print(f"{len(done)} mutations, {len(done) - len(bad)} noticed, {len(bad)} not")
    if not options.names:
        write_page(mutations, results)
    return bad


if __name__ == "__main__":
    main()
