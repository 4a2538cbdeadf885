"""Every command and option that --help knows stands in the manual page, in a document, and in the
completion of every shell; every format stands in the manual page; and no option stands there that
--help does not know:

    options.py MIRA_PROGRAM SOURCE_FOLDER
"""

import pathlib
import re
import subprocess
import sys

OPTION = re.compile(r"(?<![\w-])--[a-z][a-z-]+")
COMMON = {"--help", "--version", "--quiet", "--progress", "--no-progress"}
# Of other programs, in examples.
FOREIGN = {"--py-files", "--conf"}


def run(*command):
    return subprocess.run(command, capture_output=True, text=True, check=True).stdout


def main():
    mira, source = sys.argv[1], pathlib.Path(sys.argv[2])
    commands = re.findall(r"^  ([a-z]+) {2,}", run(mira, "--help").split("ommands:")[1], re.M)
    assert len(commands) > 10, commands
    # Every command and every writer of a format that there is stands in its table, too.
    formats = (source / "tool/rows/formats.cpp").read_text()
    for path in (source / "tool/rows").glob("*.cpp"):
        for writer in re.findall(r"^std::unique_ptr<RowWriter> (\w+)", path.read_text(), re.M):
            assert formats.count(writer) > 1, writer  # declared, and in a row
    written = {name for path in (source / "tool").rglob("*.cpp")
               for name in re.findall(r'newCommand\(\s*program, job, "([a-z]+)"', path.read_text())}
    assert written <= set(commands), written - set(commands)
    known = {command: set(OPTION.findall(run(mira, command, "--help").split("Options:")[1]))
             for command in commands}
    every = set().union(*known.values()) | COMMON
    manual = (source / "docs/mira.1").read_text().replace("\\-", "-")
    documents = "\n".join(path.read_text() for path in sorted((source / "docs").glob("*.md")))
    places = {"docs/mira.1": manual, "docs/*.md": documents}
    places |= {shell: run(mira, "completion", shell) for shell in ("bash", "zsh")}
    faults = []
    for place, text in places.items():
        named = set(OPTION.findall(text))
        faults += [f"{place}: {option} is not named" for option in sorted(every - COMMON - named)]
        faults += [f"{place}: command {command} is not named" for command in commands
                   if not re.search(rf"\b{command}\b", text)]
    # What stands in sentences about other programs is not ours, so documents are tried one way only.
    for option in sorted(set(OPTION.findall(manual)) - every - FOREIGN):
        faults.append(f"docs/mira.1: {option} is unknown to --help")
    fish = run(mira, "completion", "fish")
    faults += [f"fish: {option} is not named" for option in sorted(every - {"--version"})
               if f" -l {option[2:]} " not in fish]
    for name in re.findall(r'^    \{"(\w+)", "', formats, re.M):
        if not re.search(rf"\b{name}\b", manual):
            faults.append(f"docs/mira.1: format {name} is not named")
    print("\n".join(faults))
    return 1 if faults else 0


if __name__ == "__main__":
    sys.exit(main())
