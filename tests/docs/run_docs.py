"""Runs what the documents tell to run: run_docs.py BUILD-FOLDER COMPILER PROGRAM...

In README.md, CONTRIBUTING.md and docs/*.md, a block fenced as
  sh       is run in the source folder, with the programs in PATH and this build for build/release;
  cpp      is compiled, unless it goes into a file;
  python   is run;
  console  is not run, and the comment before it, <!-- not run: why -->, says why, as it may of python.
After <!-- file: NAME --> a block is written into that file, for the commands behind it.
A command may not hide in a block without any of these."""

import os
import re
import subprocess
import sys
from pathlib import Path

SOURCE = Path(__file__).resolve().parents[2]
BUILD, COMPILER, *PROGRAMS = sys.argv[1:]
BLOCK = re.compile(r"(?:<!-- ([^\n]*) -->\n)?^```([a-z]*)\n(.*?)^```$", re.M | re.S)
COMMAND = re.compile(r"^(?:    )?(?:scripts/|cmake |ctest |g\+\+ |velmora-|apt)", re.M)
environment = os.environ | {
    "PATH": ":".join([*(str(Path(program).parent) for program in PROGRAMS), os.environ["PATH"]])}
ran = []
faults = []


def run(place, command, text=None):
    ran.append(place)
    done = subprocess.run(command, cwd=SOURCE, env=environment, text=True, input=text, timeout=300,
                          stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
    if done.returncode != 0:
        faults.append(f"{place}: status {done.returncode}\n{done.stdout}")


documents = [SOURCE / "README.md", SOURCE / "CONTRIBUTING.md", *sorted(SOURCE.glob("docs/*.md"))]
for document in documents:
    content = document.read_text()
    for found in BLOCK.finditer(content):
        comment, kind, text = found.groups()
        place = f"{document.relative_to(SOURCE)}:{content.count(chr(10), 0, found.start(2)) + 1}"
        text = text.replace("build/release", os.path.relpath(BUILD, SOURCE))
        if comment and comment.startswith("file: "):
            file = SOURCE / comment.removeprefix("file: ")
            file.parent.mkdir(exist_ok=True)
            file.write_text(text)
        elif kind == "sh":
            run(place, ["bash", "-euo", "pipefail", "-c", text])
        elif kind == "cpp":
            run(place, [COMPILER, "-std=c++20", "-Wall", "-Wextra", "-Werror", "-Iinclude",
                        "-isystem/usr/include/opencv4", "-isystem/usr/include/jsoncpp",
                        "-fsyntax-only", "-x", "c++", "-"], text)
        elif kind in ("python", "console") and (comment or "").startswith("not run: "):
            continue
        elif kind == "python":
            run(place, [sys.executable, "-"], text)
        elif kind == "console":
            faults.append(f"{place}: no reason why this is not run")
        elif kind == "" and COMMAND.search(text):
            faults.append(f"{place}: a command that nothing runs")
    if hidden := COMMAND.search(BLOCK.sub("", content)):
        faults.append(f"{document.relative_to(SOURCE)}: nothing runs {hidden[0].strip()}")
    for link in re.findall(r"\]\(([^)#:]+)(?:#[^)]*)?\)", content):
        if not (document.parent / link).exists():
            faults.append(f"{document.relative_to(SOURCE)}: no {link}")

assert len(ran) > 5, "the documents have lost their commands"
print("\n".join(faults) or f"{len(ran)} blocks ran: {', '.join(ran)}")
sys.exit(1 if faults else 0)
