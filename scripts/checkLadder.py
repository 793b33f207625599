#!/usr/bin/env python3
"""Fails when a library or host file reaches up the ladder of layers.

The ladder is read from the line of ARCHITECTURE.md that chains the folders with "<-", e.g.

    base  <-  stream  <-  dxt  <-  {encoder, mpmc}  <-  codec  <-  host

A file in a folder may include "dir/..." only from its own folder or from a rung below it;
folders that share a rung ({encoder, mpmc}) don't include each other. The same holds for the
zyl_<folder> targets that each folder's CMakeLists.txt links. Prints every offence as
file:line and exits 1 when there is one.
"""
import pathlib
import re
import sys

ROOT = pathlib.Path(__file__).resolve().parent.parent
SOURCE_SUFFIXES = {".h", ".hpp", ".c", ".cc", ".cpp"}
INCLUDE = re.compile(r'^\s*#\s*include\s*"([A-Za-z0-9_]+)/')
LINK = re.compile(r"target_link_libraries\s*\(([^)]*)\)", re.S)
# Targets that carry no folder in their name: zyl_static is every library layer together.
TARGET_FOLDERS = {"static": "codec"}


def read_ladder(architecture):
    """Maps each folder to its rung, counted from 0 at the bottom."""
    for line in architecture.read_text(encoding="utf-8").splitlines():
        if "<-" not in line:
            continue
        rungs = [r.strip() for r in line.split("<-")]
        ranks = {}
        for rank, rung in enumerate(rungs):
            names = rung.strip("{}").split(",")
            for name in names:
                name = name.strip().strip("`")
                if not re.fullmatch(r"[A-Za-z0-9_]+", name):
                    sys.exit(f"{architecture}: can't read the ladder rung {rung!r}")
                ranks[name] = rank
        if len(ranks) >= 2:
            return ranks
    sys.exit(f"{architecture}: no ladder line (folders joined by '<-')")


def offence(ranks, own, other):
    """Why `own` may not use `other`, or None when it may."""
    if other not in ranks or other == own:
        return None
    if ranks[other] > ranks[own]:
        return "points up the ladder"
    if ranks[other] == ranks[own]:
        return "points across a rung"
    return None


def check_includes(ranks):
    problems = []
    for folder in ranks:
        for path in sorted((ROOT / folder).rglob("*")):
            if path.suffix not in SOURCE_SUFFIXES or not path.is_file():
                continue
            text = path.read_text(encoding="utf-8", errors="replace")
            for number, line in enumerate(text.splitlines(), 1):
                match = INCLUDE.match(line)
                if not match:
                    continue
                why = offence(ranks, folder, match.group(1))
                if why:
                    include = line.strip()
                    problems.append(f"{path.relative_to(ROOT)}:{number}: {include} {why}")
    return problems


def check_links(ranks):
    problems = []
    for folder in ranks:
        for path in sorted((ROOT / folder).rglob("CMakeLists.txt")):
            text = path.read_text(encoding="utf-8")
            for match in LINK.finditer(text):
                number = text.count("\n", 0, match.start()) + 1
                for target in re.findall(r"\bzyl_([A-Za-z0-9]+)", match.group(1)):
                    other = TARGET_FOLDERS.get(target, target)
                    why = offence(ranks, folder, other)
                    if why:
                        problems.append(f"{path.relative_to(ROOT)}:{number}: links zyl_{target} {why}")
    return problems


def main():
    ranks = read_ladder(ROOT / "ARCHITECTURE.md")
    missing = [folder for folder in ranks if not (ROOT / folder).is_dir()]
    problems = [f"ARCHITECTURE.md: the ladder names {folder}/, which does not exist"
                for folder in missing]
    problems += check_includes(ranks) + check_links(ranks)
    for problem in problems:
        print(problem)
    if problems:
        return 1
    rungs = [sorted(f for f in ranks if ranks[f] == r) for r in range(max(ranks.values()) + 1)]
    print("every include and link points down the ladder: " + "  <-  ".join(
        rung[0] if len(rung) == 1 else "{" + ", ".join(rung) + "}" for rung in rungs))
    return 0


if __name__ == "__main__":
    sys.exit(main())
