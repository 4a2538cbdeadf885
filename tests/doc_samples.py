"""The programs of the documents as tests. Every ```cpp block is a whole program, and a ```text block
with its exact output follows. All of them become one program, in which the main of each is named
after its block: docs_guide_3 is the third one of docs/guide.md.

    doc_samples.py extract FOLDER SOURCE_FOLDER DOCUMENT...   writes the sources, prints the names
    doc_samples.py run FOLDER PROGRAM NAME SAMPLES            runs one of them in a folder of its own
"""

import pathlib
import re
import shutil
import subprocess
import sys

BLOCK = re.compile(r"^```cpp\n(.*?^)```\n(?:\s*^```text\n(.*?^)```\n)?", re.M | re.S)
MAIN = """// Runs the program of a document by its name.
#include <cstring>

{declarations}
static const struct {{
    const char* name;
    int (*run)();
}} programs[] = {{
{rows}}};

int main(int argc, char** argv) {{
    for (const auto& program : programs) {{
        if (argc == 2 && std::strcmp(program.name, argv[1]) == 0) return program.run();
    }}
    return 2;
}}
"""


def write(path, text):
    """Only where the text is another one, so that nothing is compiled again without need."""
    if not path.exists() or path.read_text() != text:
        path.write_text(text)


def extract(folder, source, *documents):
    folder.mkdir(parents=True, exist_ok=True)
    names = []
    for document in map(pathlib.Path, documents):
        shown = document.relative_to(source)
        text = document.read_text() + "\n"
        for number, block in enumerate(BLOCK.finditer(text), 1):
            line = text.count("\n", 0, block.start(1)) + 1
            if block[2] is None:
                sys.exit(f"{shown}:{line}: no text block follows this program")
            names.append(re.sub(r"\W", "_", f"{shown.with_suffix('')}_{number}"))
            write(folder / f"{names[-1]}.cpp", f'#define main {names[-1]}\n#line {line} "{shown}"\n{block[1]}')
            write(folder / f"{names[-1]}.txt", block[2])
    write(folder / "main.cpp", MAIN.format(
        declarations="".join(f"int {name}();\n" for name in names),
        rows="".join(f'    {{"{name}", {name}}},\n' for name in names)))
    print(";".join(names), end="")


def run(folder, program, name, samples):
    place = folder / name
    shutil.rmtree(place, ignore_errors=True)
    shutil.copytree(samples, place / "samples")
    ended = subprocess.run([program, name], cwd=place, capture_output=True, text=True)
    expected = (folder / f"{name}.txt").read_text()
    if ended.returncode != 0 or ended.stdout != expected:
        sys.exit(f"{name} ended with {ended.returncode} and printed\n{ended.stdout}\n"
                 f"instead of\n{expected}\n{ended.stderr}")


{"extract": extract, "run": run}[sys.argv[1]](pathlib.Path(sys.argv[2]), *sys.argv[3:])
