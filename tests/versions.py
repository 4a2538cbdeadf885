"""The number of this release stands wherever it has to:

    versions.py SOURCE_FOLDER
"""

import pathlib
import re
import sys

PLACES = {
    "CMakeLists.txt": r"^ +VERSION (\S+)$",
    "CHANGELOG.md": r"\A[^#]*#[^#]*## (\d[\d.]*)",  # the newest
    "debian/changelog": r"\A\S+ \((\S+)-\d+\)",
    "docs/Doxyfile": r"^PROJECT_NUMBER += (\S+)$",
    "docs/mira.1": r'^\.TH .*"MIRAlib (\S+)"',
    "docs/mira-filter.7": r'^\.TH .*"MIRAlib (\S+)"',
    "docs/miradump.1": r'^\.TH .*"MIRAlib (\S+)"',
    "python/miralib/__init__.py": r'^__version__ = "(\S+)"$',
    "library/mira.h": r"library version \((\d+)\)",
    "library/internal/version.cpp": r"kVersionNumber = (\d+);",
}

source = pathlib.Path(sys.argv[1])
found = {}
for place, pattern in PLACES.items():
    numbers = re.findall(pattern, (source / place).read_text(encoding="utf-8"), re.M)
    # The library says it without points.
    found[place] = [".".join(each) if each.isdigit() else each for each in numbers[:1]]
wanted = found["CMakeLists.txt"]
wrong = [place for place, numbers in found.items() if numbers != wanted]
for place in wrong:
    print(f"{place}: {found[place]}, and in CMakeLists.txt {wanted}")
sys.exit(1 if wrong or not wanted else 0)
