"""Writes a zip archive that depends on nothing but the names and the contents of its files.

write_zip.py ARCHIVE FOLDER: all files of the folder, in the order of their names, with the date that the environment
variable SOURCE_DATE_EPOCH gives, in seconds since 1970.
"""

import os
import pathlib
import sys
import time
import zipfile

MS_DOS = 0  # the system that the archive says it was made on


def main(archive, folder):
    date = time.gmtime(int(os.environ["SOURCE_DATE_EPOCH"]))[:6]
    with zipfile.ZipFile(archive, "w", zipfile.ZIP_DEFLATED, compresslevel=9) as packed:
        for path in sorted(pathlib.Path(folder).iterdir()):
            entry = zipfile.ZipInfo(path.name, date)
            entry.compress_type = zipfile.ZIP_DEFLATED
            entry.create_system = MS_DOS
            packed.writestr(entry, path.read_bytes(), compresslevel=9)


if __name__ == "__main__":
    main(*sys.argv[1:])
