"""Writes a zip archive that depends on nothing but the names and the contents of its files.

write_zip.py ARCHIVE FOLDER: all files of the folder, in the order of their names, with one fixed date.
"""

import pathlib
import sys
import zipfile

RELEASE_DATE = (2024, 1, 15, 0, 0, 0)
MS_DOS = 0  # the system that the archive says it was made on


def main(archive, folder):
    with zipfile.ZipFile(archive, "w", zipfile.ZIP_DEFLATED, compresslevel=9) as packed:
        for path in sorted(pathlib.Path(folder).iterdir()):
            entry = zipfile.ZipInfo(path.name, RELEASE_DATE)
            entry.compress_type = zipfile.ZIP_DEFLATED
            entry.create_system = MS_DOS
            packed.writestr(entry, path.read_bytes(), compresslevel=9)


if __name__ == "__main__":
    main(*sys.argv[1:])
