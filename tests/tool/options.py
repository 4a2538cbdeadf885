"""What --help knows and what the documents say are one:

    options.py MIRA_PROGRAM SOURCE_FOLDER

Every command and option of --help stands in the manual page, in a document, and in the completion of
every shell, and none stands there that --help does not know; letters of options, and lists of
formats, kinds, extensions and exit statuses, are the same. A session or an example uses every option
with each of its commands, and those that all commands have at least once.
"""

import pathlib
import re
import subprocess
import sys

OPTION = re.compile(r"(?<![\w-])--[a-z][a-z-]+")
ROW = re.compile(r"^  (?:(-\w),)?(--[a-z][a-z-]+)", re.M)
# A command and its words, up to where the shell ends it.
CALL = re.compile(r"\bmira ([a-z]+)((?:'[^']*'|\"[^\"]*\"|[^|;&'\"])*)")
COMMON = {"--help", "--version", "--quiet", "--progress", "--no-progress"}
# Of other programs, in examples.
FOREIGN = {"--py-files", "--conf"}

mira, source = sys.argv[1], pathlib.Path(sys.argv[2])
faults = []


def run(*command):
    return subprocess.run(command, capture_output=True, text=True, check=True).stdout


def text_of(path):
    return (source / path).read_text(encoding="utf-8", errors="replace")


def expect(holds, what):
    if not holds:
        faults.append(what)


def check_names(place, text, commands, every):
    named = set(OPTION.findall(text))
    for option in sorted(every - COMMON - named):
        faults.append(f"{place}: {option} is not named")
    for command in commands:
        expect(re.search(rf"\b{command}\b", text), f"{place}: command {command} is not named")


def check_places(helps, manual, guide):
    every = {option for pairs in helps.values() for option in pairs} | COMMON
    documents = "\n".join(path.read_text() for path in sorted((source / "docs").glob("*.md")))
    places = {"docs/mira.1": manual, "docs/*.md": documents}
    places |= {shell: run(mira, "completion", shell) for shell in ("bash", "zsh")}
    for place, text in places.items():
        check_names(place, text, helps, every)
    # What stands in sentences about other programs is not ours, so documents are tried one way only.
    for place, text in {"docs/mira.1": manual, "README.md": text_of("README.md")}.items():
        ours = re.sub(r"`?\b(cmake|bench/|scripts/)[^.]*", "", text)
        for option in sorted(set(OPTION.findall(ours)) - every - FOREIGN):
            faults.append(f"{place}: {option} is unknown to --help")
    fish = run(mira, "completion", "fish")
    for option in sorted(every - {"--version"}):
        expect(f" -l {option[2:]} " in fish, f"fish: {option} is not named")
    letters = {(short, option) for pairs in helps.values() for option, short in pairs.items() if short}
    for place, found in {
        "docs/mira.1": re.findall(r'(?<![\w-])(-\w) ?"?, ?"? ?(--[a-z][a-z-]+)', manual),
        "docs/mira.md": [pair for left, right in re.findall(r"^\| (`-.*?) \| (`--.*?) \|", guide, re.M)
                         for pair in zip(re.findall(r"-\w", left), OPTION.findall(right))],
    }.items():
        expect(len(found) > 8, f"{place}: letters of options are not found")
        for pair in sorted(set(found) - letters - {("-h", "--help")}):
            faults.append(f"{place}: {' is '.join(pair)} there only")


def check_uses(helps):
    """Where a session or an example calls a command."""
    texts = [path.read_text(encoding="utf-8", errors="replace")
             for path in [*source.glob("tests/tool/sessions/*.txt"), *source.glob("docs/*.md"), source / "README.md"]]
    used = {command: set() for command in helps}
    for line in "\n".join(texts).splitlines():
        for command, words in CALL.findall(line) if line.startswith("$ ") else []:
            used.get(command, set()).update(re.findall(r"(?<![\w-])--?[a-zA-Z][a-z-]*", words))
    anywhere = set().union(*used.values())
    for command, pairs in helps.items():
        for option, short in pairs.items():
            where = anywhere if option in COMMON else used[command]
            expect({option, short} & where, f"no session uses {option} of {command}")


def check_formats(manual, guide):
    """Each writer of a format stands in the table of formats, and its names and extensions everywhere."""
    table = text_of("tool/rows/formats.cpp")
    for path in (source / "tool/rows").glob("*.cpp"):
        for writer in re.findall(r"^std::unique_ptr<RowWriter> (\w+)", path.read_text(), re.M):
            expect(table.count(writer) > 1, f"{writer} is in no row of the formats")
    rows = re.findall(r'^    \{"(\w+)", "([^"]*)"', table, re.M)
    words = [set(re.findall(r"\w+", text)) for text in re.findall(
        r"(?:FORMAT|KIND)[^\n]*?\s+((?:\w+(?: \(default\))?(?:, | or ))+\w+)[;\n]",
        run(mira, "export", "--help") + run(mira, "import", "--help") + run(mira, "query", "--help"))]
    words = [each - {"default", "or"} for each in words]
    expect(len(words) == 3 and {name for name, _ in rows} <= set().union(*words), f"formats of --help: {words}")
    for choices in re.findall(r"\w+(?:\|\w+){4,}", manual):
        expect(set(choices.split("|")) in words, f"docs/mira.1: {choices} is not what --help says")
    known = {extension for _, extensions in rows for extension in extensions.split()} - {".sql"}
    told = re.search(r"format follows from the name: `([^`]*)`", guide)
    expect(told and set(told[1].split()) == known, f"docs/mira.md: extensions are not {sorted(known)}")


def check_statuses(manual, guide):
    def folded(text):
        return re.sub(r"[,.]", "", text).lower()

    said = dict(re.findall(r"(\d) ([^,.]*)", re.search(r"Exit status: (.*)", run(mira, "--help"), re.S)[1].replace("\n", " ")))
    listed = dict(re.findall(r"^\| (\d+) \| (.*?) \|$", guide.split("## Messages and exit status")[1].split("\n## ")[0], re.M))
    page = dict(re.findall(r"^\.B (\d+)\n(.*)", manual.split(".SH EXIT STATUS")[1].split("\n.SH ")[0], re.M))
    expect(set(listed) == set(page), f"exit statuses: {sorted(listed)} in docs/mira.md, {sorted(page)} in docs/mira.1")
    expect({"0", "1", "2"} == set(said) <= set(listed), f"exit statuses: {sorted(said)} in --help")
    for place, statuses in {"docs/mira.md": listed, "docs/mira.1": page}.items():
        for status, meaning in said.items():
            start = " ".join(meaning.split()[:5])  # "done but something was found"
            expect(folded(statuses.get(status, "")).startswith(start), f"{place}: status {status} is not \"{meaning}\"")


def main():
    commands = re.findall(r"^  ([a-z]+) {2,}", run(mira, "--help").split("ommands:")[1], re.M)
    assert len(commands) > 10, commands
    written = {name for path in (source / "tool").rglob("*.cpp")
               for name in re.findall(r'newCommand\(\s*program, job, "([a-z]+)"', path.read_text())}
    expect(written <= set(commands), f"commands that are in no table: {written - set(commands)}")
    helps = {command: {option: short for short, option in ROW.findall(run(mira, command, "--help").split("Options:")[1])}
             for command in commands}
    manual = text_of("docs/mira.1").replace("\\-", "-")
    guide = text_of("docs/mira.md")
    check_places(helps, manual, guide)
    check_uses(helps)
    check_formats(manual, guide)
    check_statuses(manual, guide)
    print("\n".join(faults))
    return 1 if faults else 0


if __name__ == "__main__":
    sys.exit(main())
