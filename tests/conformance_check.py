"""Keeps docs/conformance.md and the tests in step.

conformance_check.py [ROOT]: fails, and says why, where the table names a test that is not there, where a test is in no
row, and where the table is wrong about the system that a test runs on. Reads the sources; builds and runs nothing.
"""

import ast
import dataclasses
import pathlib
import re
import sys

TABLE = pathlib.Path("docs") / "conformance.md"
SUPPORT_TITLE = "Tests that support others"
NONE = "\u2014"  # begins a cell that gives a reason instead of a test
SAME, BUT_NOT = "same", "but not"

GTEST = re.compile(r"^TEST(?:_F|_P)?\(\s*(\w+),\s*(\w+)\s*\)(.*?)(?=^TEST|\Z)", re.MULTILINE | re.DOTALL)
GTEST_SKIP_ON_WINDOWS = re.compile(r"if \(onWindows\(\)\) \{\s*GTEST_SKIP")
NAME = re.compile(r"`([\w.]+(?:::\w+)?)`")
CELL_END = re.compile(r"(?<!\\)\|")


@dataclasses.dataclass
class Runs:
    """The systems that a test runs on."""

    linux: bool
    windows: bool


def gtests(root):
    found = {}
    for path in sorted(root.joinpath("tests").rglob("*.cpp")):
        folders = path.relative_to(root).parts
        for suite, name, body in GTEST.findall(path.read_text(encoding="utf-8")):
            found[f"{suite}.{name}"] = Runs(linux="windows" not in folders, windows="linux" not in folders
                                            and not GTEST_SKIP_ON_WINDOWS.search(body))
    return found


def marks(module):
    """The marks that a module gives names, as their source text."""
    return {target.id: ast.unparse(statement.value) for statement in module.body if isinstance(statement, ast.Assign)
            for target in statement.targets if isinstance(target, ast.Name)}


def runs(texts):
    """What marks say about the systems; they tell the Windows build by its command's end."""
    on = Runs(linux=True, windows=True)
    for text in texts:
        if "windows_cannot" in text or "wine_cannot" in text or re.search(r"skipif\(.*\.endswith", text):
            if "not config" in text:
                on.linux = False
            else:
                on.windows = False
    return on


def pytests(root):
    found = {}
    for path in sorted(root.joinpath("tests").rglob("test_*.py")):
        module = ast.parse(path.read_text(encoding="utf-8"))
        named = marks(module)
        for function in module.body:
            if isinstance(function, ast.FunctionDef) and function.name.startswith("test_"):
                texts = [ast.unparse(decorator) for decorator in function.decorator_list]
                found[f"{path.name}::{function.name}"] = runs([named.get(text, text) for text in texts]
                                                              + [named.get("pytestmark", "")])
    return found


def rows(text):
    """The cells of each row of the tables, with the number of its line."""
    for number, line in enumerate(text.splitlines(), 1):
        if line.startswith("| ") and not line.startswith(("| --- ", "| Behaviour ")):
            cells = [cell.strip() for cell in CELL_END.split(line)[1:-1]]
            yield number, cells


def check_row(cells, tests):
    """What is wrong with a row, and the tests that it names."""
    if len(cells) != 3:
        return ["not three cells"], set()
    _, linux, windows = cells
    on_linux, on_windows = NAME.findall(linux), NAME.findall(windows.partition(BUT_NOT)[0])
    without = NAME.findall(windows.partition(BUT_NOT)[2])
    wrong = [f"there is no test {name}" for name in {*on_linux, *on_windows, *without} if name not in tests]
    if wrong:
        return wrong, set()
    for cell, names in ((linux, on_linux), (windows, on_windows)):
        if not names and not cell.startswith(SAME) and not (cell.startswith(NONE) and len(cell) > 10):
            wrong.append("a cell with neither a test nor a reason")
    both = [name for name in on_linux if tests[name].windows]
    wrong += [f"{name} does not run on Linux" for name in on_linux if not tests[name].linux]
    wrong += [f"{name} does not run on Windows" for name in on_windows if not tests[name].windows]
    if bool(both) != windows.startswith(SAME):
        wrong.append("the Windows cell must begin with 'same' exactly where a test of the Linux cell runs there")
    if both and {name for name in on_linux if not tests[name].windows} != set(without):
        wrong.append("the tests after 'but not' must be those of the Linux cell that do not run on Windows")
    return wrong, {*on_linux, *on_windows}


def check(root):
    tests = {**gtests(root), **pytests(root)}
    text = root.joinpath(TABLE).read_text(encoding="utf-8")
    tables, _, support = text.partition(f"## {SUPPORT_TITLE}")
    problems, named = [], set(NAME.findall(support))
    problems += [f"there is no test {name}, listed as support" for name in sorted(named - tests.keys())]
    count = 0
    for number, cells in rows(tables):
        count += 1
        wrong, names = check_row(cells, tests)
        problems += [f"line {number}: {what}" for what in wrong]
        named |= names
    problems += [f"{name} is in no row" for name in sorted(tests.keys() - named)]
    if not count or not tests:
        problems.append("no rows or no tests were found")
    return problems, count, len(tests)


def main():
    root = pathlib.Path(sys.argv[1]) if len(sys.argv) > 1 else pathlib.Path(__file__).parents[1]
    problems, count, tests = check(root)
    for problem in problems:
        print(f"{TABLE}: {problem}")
    print(f"{count} rows, {tests} tests, {len(problems)} problems")
    return 1 if problems else 0


if __name__ == "__main__":
    sys.exit(main())
