"""The program goes by the name that it is called by: name.py PROGRAM TABLE."""

import pathlib
import re
import subprocess
import sys
import tempfile

program, table = (pathlib.Path(word).resolve() for word in sys.argv[1:])


def said(name, *arguments):
    run = subprocess.run([name, *arguments], executable=program, capture_output=True, text=True, check=False)
    return run.stdout + run.stderr


for words in (["--help"], ["--version"], ["help", "import"], ["nonsense"], ["show", table, "-w", "PRICE LIKE 5"],
              ["show", "`mira.dbf"], *(["completion", shell] for shell in ("bash", "zsh", "fish"))):
    other = said("/usr/bin/miradbf", *words)
    # Nothing else has changed, and no word of its own is left: `mira.dbf is a file.
    if other.replace("miradbf", "mira") != said("/usr/bin/mira", *words) or \
            re.search(r"(?<![-`\w])_*mira(?![a-z])|`mira ", other):
        sys.exit(f"{words}: {other}")
if said("no name!", "--version") != said("mira", "--version"):
    sys.exit("an odd name is taken for one")
