"""Holds the documents to what the programs say, the library writes and the folders hold: check_docs.py PROGRAM..."""

import re
import subprocess
import sys
from pathlib import Path

SOURCE = Path(__file__).resolve().parents[2]

# The man pages: commands and their options with value and default. How --help is laid out depends on
# the version of CLI11; 2.1 and 2.6 were tried.
said = set()
written = set()


def read_help(program, *command):
    text = subprocess.run([program, *command, "--help"], check=True, text=True,
                          stdout=subprocess.PIPE).stdout
    below = re.search(r"^Subcommands:\n((?: .*\n)+)", text, re.M | re.I)
    if not below:
        name = " ".join([Path(program).name, *command])
        said.add(name)
        for option, about in re.findall(r"^ +--(\S+(?: [A-Z]+)?) +(.*\n(?: {20,}.*\n)*)", text, re.M):
            default = re.findall(r"\[(\d+)\]", about)
            said.add(f"{name} --{option} {default}")
    for subcommand in re.findall(r"^  (\S+)", below[1], re.M) if below else ():
        read_help(program, *command, subcommand)


def read_page(program):
    page = (SOURCE / f"docs/man/{program}.1").read_text().replace("\\-", "-")
    description = page.partition(".Sh DESCRIPTION\n")[2].partition("\n.Sh ")[0]
    sections = re.split(r"^\.Ss (.*)\n", description, flags=re.M)[1:]
    for command, section in zip(sections[::2], sections[1::2]):
        name = f"{program} {command}"
        written.add(name)
        for option, value, about in re.findall(
                r"^\.It Fl -(\S+)(?: Ar (\S+))?\n((?:(?!\.It|\.El).*\n)*)", section, re.M):
            default = re.findall(r"default is (\d+)", about)
            written.add(f"{name} --{option}{value and ' '}{value} {default}")


for program in sys.argv[1:]:
    read_help(program)
    read_page(Path(program).name)
errors = [f"in only one of --help and the man page: {thing}" for thing in sorted(said ^ written)]

# The operating guide: every line of the log and every error. What stands for a value in the source, or
# is put behind it there, is any text.
guide = (SOURCE / "docs/operating.md").read_text()
lines = set()
for source in sorted(SOURCE.glob("src/**/*.cpp")) + sorted(SOURCE.glob("compat/*/*.cpp")):
    text = re.sub(r'"\s*\n\s*"', "", source.read_text())
    lines |= {(source, line) for line in re.findall(
        r'(?:syslog\(\w+,|Log(?:Info|Debug)\(|\bthrow Exception\()\s*"((?:[^"\\]|\\.)+)"', text)}
assert len(lines) > 25, lines  # or the pattern no longer fits the source
for source, line in lines:
    words = [re.escape(part) for part in re.split(r"%[sd]|\{\}", line.removeprefix("%s:%d "))]
    if not re.search("`" + r"[^`\n]+".join(words).strip() + "[^`\n]*`", guide):
        errors.append(f"not in docs/operating.md: {line} ({source.name})")

for document in [*SOURCE.glob("*.md"), *SOURCE.glob("docs/*.md"), *SOURCE.glob("models/*/*.md")]:
    errors += [f"{document.relative_to(SOURCE)}: no {link}"
               for link in re.findall(r"\]\(([^)#:]+)[)#]", document.read_text())
               if not (document.parent / link).exists()]

# The table of folders: which others the sources of each may include.
rooms = {folder: re.findall(r"`(\S+)`", may) for folder, may in re.findall(
    r"^\| `(\S+)` \|.*\| (.*)\|$", (SOURCE / "docs/architecture.md").read_text(), re.M)}
for room, may in rooms.items():
    for source in (file for file in (SOURCE / room).rglob("*") if file.suffix in (".cpp", ".h", ".hpp")):
        for name in re.findall(r'^#include ["<]((?:\w|[-/.])+)[">]', source.read_text(), re.M):
            found = [source.parent, *(SOURCE / root for root in (
                "include", "src", "guards", "compat", "compat/protobuf", "appliance", "tools"))]
            file = next((root / name for root in found if (root / name).exists()), None)
            if file and not any(f"{file.relative_to(SOURCE)}".startswith(folder) for folder in (room, *may)):
                errors.append(f"docs/architecture.md: {source.relative_to(SOURCE)} may not include {name}")

print("\n".join(errors) or "the documents say what the programs say and the library writes")
sys.exit(1 if errors else 0)
