"""Reads the import table of every program and library of a Windows stage: each DLL that one of them names lies in the same
folder or is one of Windows' own. What a plug-in needs is looked for in the plug-in's folder, a program's in the program's.

RQ_STAGE is the stage, RQ_EXPECTED the programs and libraries that must be in it, RQ_EXPECTED_DATA the data files (relative
paths, ":" between), RQ_OBJDUMP the tool, RQ_NEEDING a DLL that needs another one.
"""

import os
import re
import shutil
import subprocess
import tempfile
import unittest

# What every Windows since 8 has in its system folder, as far as it is used here.
WINDOWS = {
    "advapi32.dll", "bcrypt.dll", "crypt32.dll", "dbghelp.dll", "gdi32.dll", "iphlpapi.dll", "kernel32.dll", "mswsock.dll", "msvcrt.dll",
    "ntdll.dll", "ole32.dll", "oleaut32.dll", "psapi.dll", "rpcrt4.dll", "shell32.dll", "shlwapi.dll", "user32.dll",
    "userenv.dll", "version.dll", "ws2_32.dll",
}


def imports_of(path):
    text = subprocess.run([os.environ["RQ_OBJDUMP"], "-p", path], check=True, capture_output=True, text=True).stdout
    names = re.findall(r"^\s*DLL Name: (\S.*?)\s*$", text, re.MULTILINE)
    if not names:
        raise AssertionError("%s: no import table was read" % path)
    return names


def binaries_in(folder):
    for place, _, names in os.walk(folder):
        for name in names:
            if name.lower().endswith((".exe", ".dll")):
                yield os.path.join(place, name)


def missing_in(folder):
    """(file, the DLL that it lacks) for all files below the folder."""
    missing = []
    for path in binaries_in(folder):
        neighbours = {name.lower() for name in os.listdir(os.path.dirname(path))}
        missing += [(os.path.relpath(path, folder), name) for name in imports_of(path)
                    if name.lower() not in WINDOWS and name.lower() not in neighbours]
    return missing


class Imports(unittest.TestCase):
    def test_the_stage_needs_no_library_that_is_not_in_it(self):
        self.assertEqual(missing_in(os.environ["RQ_STAGE"]), [])

    def test_the_stage_is_whole(self):
        stage = os.environ["RQ_STAGE"]
        found = {os.path.relpath(path, stage) for path in binaries_in(stage)}
        self.assertEqual(set(os.environ["RQ_EXPECTED"].split(":")) - found, set())

    def test_the_data_files_are_where_the_programs_look(self):
        for name in os.environ["RQ_EXPECTED_DATA"].split(":"):
            self.assertTrue(os.path.isfile(os.path.join(os.environ["RQ_STAGE"], name)), name)

    def test_a_library_without_its_neighbour_is_found(self):
        needing = os.environ["RQ_NEEDING"]
        with tempfile.TemporaryDirectory() as folder:
            shutil.copy(needing, folder)
            self.assertEqual([name for name, _ in missing_in(folder)], [os.path.basename(needing)])


if __name__ == "__main__":
    unittest.main(verbosity=2)
