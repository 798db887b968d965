#!/usr/bin/env python3
"""man_pages_test.py PROGRAM_FOLDER MAN_FOLDER: the pages name what the programs' own help names."""
import os
import re
import subprocess
import sys

OPTION = re.compile(r"(?<![\w.-])--?[A-Za-z][\w-]*")


def help_of(program, *words):
    run = subprocess.run([f"{programs}/{program}", *words, "--help"], capture_output=True, text=True)
    return run.stdout + run.stderr


def subcommands(text):
    found = re.search(r"^Subcommands:\n((?:  .*\n)+)", text, re.M)
    return re.findall(r"^  ([a-z][a-z-]*) ", found[1], re.M) if found else []


def page(name):
    with open(f"{manuals}/{name}") as file:
        text = re.sub(r'^\.(?:\\".*|TH .*)$', "", file.read(), flags=re.M)
    text = re.sub(r"\\f[A-Z]", "", text)  # fonts
    text = re.sub(r'^\.[A-Z]+ ?|"', "", text, flags=re.M)
    return text.replace("\\-", "-")


def same(what, documented, told):
    faults.extend(f"{what}: only one of the page and the help has {word}" for word in sorted(documented ^ told))


programs, manuals = sys.argv[1:]
faults = []

for program in ("zorvd", "zorv-check", "platformd", "notify", "zorv-ship"):
    if not os.path.exists(f"{programs}/{program}"):
        continue
    told = set(OPTION.findall(help_of(program)))
    same(program, set(OPTION.findall(page(f"{program}.8"))), told or {"no help"})

text = page("zorvctl.1")
told = set(OPTION.findall(help_of("zorvctl")))
verbs = set()
for noun in subcommands(help_of("zorvctl")):
    told |= set(OPTION.findall(help_of("zorvctl", noun)))
    for verb in subcommands(help_of("zorvctl", noun)):
        verbs.add(f"{noun} {verb}")
        for further in [[], *([word] for word in subcommands(help_of("zorvctl", noun, verb)))]:
            told |= set(OPTION.findall(help_of("zorvctl", noun, verb, *further)))
same("zorvctl", set(OPTION.findall(text)), told)
section = text[text.index("NOUNS AND VERBS"):text.index("OPTIONS")]
documented = set()
for noun, listed in re.findall(r"^([a-z-]+) ([a-z]+(?:\|[a-z]+)*)(?: .*)?$", section, re.M):
    documented |= {f"{noun} {verb}" for verb in listed.split("|")}
same("zorvctl", {pair for pair in documented if pair.split()[0] in {v.split()[0] for v in verbs}}, verbs)

print("\n".join(faults) or f"{len(told)} options and {len(verbs)} verbs of zorvctl: documented")
sys.exit(1 if faults else 0)
