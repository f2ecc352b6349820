"""Nothing run from the build tree loads a library from a directory that is not the project's or
the system's: every RUNPATH entry of every program and library that the build makes is relative to
the file itself and names a directory of the build tree. (An empty entry would be the directory
the program is run from.)"""

import glob
import os
import re
import subprocess

from testing.programs import program

BUILD = os.path.dirname(os.path.dirname(program("vigilo")))


def runpath(path):
    dynamic = subprocess.run(["readelf", "-d", path], capture_output=True, text=True).stdout
    found = re.search(r"\((?:RUNPATH|RPATH)\)\s+Library r(?:un)?path: \[(.*)\]", dynamic)
    return found.group(1).split(":") if found else []


def test_libraries_come_from_the_build_tree_only():
    strays = {}
    for path in glob.glob(BUILD + "/bin/*") + glob.glob(BUILD + "/lib/**/*.so", recursive=True):
        for entry in runpath(path):
            where = os.path.normpath(entry.replace("$ORIGIN", os.path.dirname(path), 1))
            if not (entry.startswith("$ORIGIN") and os.path.isdir(where)
                    and where.startswith(BUILD + os.sep)):
                strays.setdefault(path, []).append(entry)
    assert strays == {}
    assert runpath(program("vigilo")) == ["$ORIGIN/../lib/vigilo"]
