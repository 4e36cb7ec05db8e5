"""Wine prefixes, where the program under test is the Windows build.

Machine-wide objects, the registry and the drive are those of a prefix. Every worker therefore has one of its own, so
that tests which run side by side do not meet. They are copies: making one takes Wine many seconds.
"""

import functools
import glob
import os
import re
import shutil
import subprocess
import tempfile

INSTALLATION_KEY = r"HKLM\Software\Microsoft\Windows\CurrentVersion\Uninstall\tarvik"
DATA_LOCATION = "DataLocation"


class LostStart(AssertionError):
    """A program under Wine ended before it did anything. A test that meets it is run again, and counted as such."""


@functools.cache
def version():
    """Which Wine this is, as "8.0"."""
    told = subprocess.run(["wine", "--version"], stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, check=True).stdout
    return re.match(r"wine-([\d.]+)", told.decode())[1]


NOT_STARTED = b"ShellExecuteEx failed: Internal error"  # Wine's own words


def check_start(command, code, output):
    """Every program of the tests prints something first, or is killed; one that could not be started does not, or Wine
    says so in its place."""
    if command[0] == "wine" and (not output or NOT_STARTED in output) and code is not None and code > 0:
        raise LostStart(f"Wine lost the start of {' '.join(command[1:])}: code {code}, output {output!r}")


def make_prefix(template):
    """A prefix like the template, in which Wine runs. Programs are shared with the template, by hard links; the
    registry is not."""
    folder = tempfile.mkdtemp(prefix="keltop-wine-", dir=os.path.dirname(template))
    prefix = os.path.join(folder, "prefix")
    subprocess.run(["cp", "-al", template, prefix], check=True)
    for registry in glob.glob(os.path.join(prefix, "*.reg")):
        os.remove(registry)
        shutil.copy(os.path.join(template, os.path.basename(registry)), registry)
    # Wine's own processes are there before any test, and stay: started by one, they would hold its pipes open.
    quiet = {"env": {**os.environ, "WINEPREFIX": prefix}, "stdin": subprocess.DEVNULL, "stdout": subprocess.DEVNULL,
             "stderr": subprocess.DEVNULL, "check": True}
    subprocess.run(["wineserver", "-p"], **quiet)
    subprocess.run(["wine", "cmd", "/c", "exit"], **quiet)
    return prefix


def remove_prefix(prefix):
    """Ends what runs in the prefix, Wine's own processes with it."""
    subprocess.run(["wineserver", "-k", "-w"], env={**os.environ, "WINEPREFIX": prefix}, check=False)
    shutil.rmtree(os.path.dirname(prefix), ignore_errors=True)


def set_data_location(folder, view=32):
    """What the installation would have set; where the program looks for the folder of its traces."""
    registry("add", "/v", DATA_LOCATION, "/d", windows_path(folder), "/f", f"/reg:{view}")


def clear_data_location():
    registry("delete", "/v", DATA_LOCATION, "/f", "/reg:32")


def registry(verb, *options):
    command = ["wine", "reg", verb, INSTALLATION_KEY, *options]
    done = subprocess.run(command, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.PIPE, check=False)
    check_start(command, done.returncode, done.stdout + done.stderr)
    done.check_returncode()


def windows_path(path):
    return "Z:" + os.path.abspath(path).replace("/", "\\")
