"""Holds the documents to what the program says and the library writes: check_docs.py PROGRAM"""

import re
import subprocess
import sys
from pathlib import Path

SOURCE = Path(__file__).resolve().parents[2]
PAGE = (SOURCE / "docs/man/velmora-model.1").read_text().replace("\\-", "-")
faults = []


def help_of(*command):
    return subprocess.run([sys.argv[1], *command, "--help"], check=True, text=True,
                          stdout=subprocess.PIPE).stdout


def commands(*parent):
    """Every command that takes arguments of its own, with its help text."""
    text = help_of(*parent)
    below = re.search(r"^Subcommands:\n((?: .*\n)+)", text, re.M | re.I)
    if not below:
        return {" ".join(parent): text}
    found = {"": text} if not parent else {}
    for name in re.findall(r"^  (\S+)", below[1], re.M):
        found |= commands(*parent, name)
    return found


def compare(what, said, written):
    for thing in sorted(said ^ written):
        faults.append(f"{what}: {thing} is only in " + ("--help" if thing in said else "the man page"))


# The man page: its commands, their options with value and default, examples and exit statuses. How
# --help is laid out depends on the version of CLI11; 2.1 and 2.6 were tried.
said = commands()
description, _, rest = PAGE.partition(".Sh DESCRIPTION\n")[2].partition("\n.Sh ")
parts = re.split(r"^\.Ss (.*)\n", description, flags=re.M)
written = {"": parts[0]} | dict(zip(parts[1::2], parts[2::2]))
compare("commands", set(said), set(written))
for name in set(said) & set(written):
    options = [(option, value, "".join(re.findall(r"\[(\d+)\]", text))) for option, value, text in
               re.findall(r"^ +(?:-\w, *)?(--\S+)( [A-Z]+)? +(.*\n(?: {20,}.*\n)*)", said[name], re.M)]
    items = re.findall(r"^\.It (?:Fl \w , -|Fl -)(\S+)(?: Ar (\S+))?\n((?:(?!\.It|\.El).*\n)*)",
                       written[name], re.M)
    defaults = [re.search(r"default is (\d+)", text) for *_, text in items]
    compare(name or "the program",
            {f"{option}{value} [{default}]" for option, value, default in options
             if name == "" or option != "--help"},
            {f"--{option}{value and ' '}{value} [{default[1] if default else ''}]"
             for (option, value, _), default in zip(items, defaults)})
plain = re.sub(r"^\.\w+ ?", "", PAGE, flags=re.M).replace("\n", " ")
for text in said.values():
    for line in re.findall(r"^ *(velmora-model .*\S)", text, re.M):
        if "[OPTIONS]" not in line and line not in plain:
            faults.append(f"example not in the man page: {line}")
    statuses = "".join(re.split(r"Exit status: *\n", text)[1:])
    for status, meaning in re.findall(r"^ *(\d) +(.*\S)", statuses, re.M):
        if f"{status} {meaning} " not in plain:
            faults.append(f"exit status not in the man page: {status}  {meaning}")

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
        faults.append(f"not in docs/operating.md: {line} ({source.name})")

print("\n".join(faults) or "the documents say what the program says and the library writes")
sys.exit(1 if faults else 0)
