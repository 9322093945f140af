#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Reads what the tests of a build with coverage executed (llvm-cov), prints one row a folder, and fails when a folder
covers fewer branches than it must. A condition that was true and false counts twice, one that was only one of them
once; the sums for a template are those of all its uses.

    tools/coverage.py BUILD [--list FOLDER]     with --list, each file of a folder and its uncovered conditions
"""
import json
import os
import subprocess
import sys
from collections import defaultdict

# Where a wrong branch leaves a machine awake, or lets it sleep, nearly every one is tried.
STRICT = {"Domain": 95, "Power": 95, "DeepHold": 95}
OTHERWISE = 85


def folder_of(path):
    parts = path.split("/")
    # What writes the reference for the manual runs while everything is built, before anything is counted.
    if parts[0] != "Sources" or parts[1:3] == ["VimbrelApp", "Reference"]:
        return None
    if parts[1] == "VimbrelCore":
        return "/".join(parts[2:4]) if parts[2] == "Platform" and len(parts) > 4 else parts[2]
    return parts[1]


def measured(build):
    """What llvm-cov knows about each source file."""
    profiles = os.path.join(build, "profiles")
    merged = os.path.join(build, "coverage.profdata")
    subprocess.check_call(["llvm-profdata-19", "merge", "--sparse", "--failure-mode=all", "-o", merged,
                           *(os.path.join(profiles, name) for name in os.listdir(profiles))])
    programs = subprocess.check_output(["find", build, "-name", "CMakeFiles", "-prune", "-o", "-type", "f", "-perm", "-u+x",
                                        "-exec", "grep", "-q", "__llvm_covmap", "{}", ";", "-print"], text=True).split()
    objects = [argument for program in programs for argument in ("-object", program)]
    exported = subprocess.run(["llvm-cov-19", "export", "-instr-profile", merged, *objects[1:], "-skip-functions",
                               "-sources", os.path.abspath("Sources")],
                              stdout=subprocess.PIPE, check=True).stdout
    return json.loads(exported)["data"][0]["files"]


def branches_of(file):
    """For each place of a condition, how often it was true and false."""
    places = defaultdict(lambda: [0, 0])
    for line, column, end_line, end_column, taken, not_taken, *_ in file["branches"]:
        place = places[line, column, end_line, end_column]
        place[0] += taken
        place[1] += not_taken
    return places


def main():
    build = sys.argv[1]
    wanted = sys.argv[3] if sys.argv[2:3] == ["--list"] else None
    root = os.getcwd()
    rows = defaultdict(lambda: [0, 0, 0, 0])
    for file in measured(build):
        name = os.path.relpath(file["filename"], root)
        folder = folder_of(name)
        if folder is None:
            continue
        places = branches_of(file)
        lines = file["summary"]["lines"]
        taken = sum((yes > 0) + (no > 0) for yes, no in places.values())
        for index, value in enumerate((lines["count"], lines["covered"], 2 * len(places), taken)):
            rows[folder][index] += value
        if folder == wanted and taken < 2 * len(places):
            missed = [f"{line}{'' if yes or no else ' (never)'}{'' if no or not yes else ' (never false)'}"
                      f"{'' if yes or not no else ' (never true)'}" for (line, *_), (yes, no) in sorted(places.items())
                      if not (yes and no)]
            print(f"{name}: {taken} of {2 * len(places)} branches; lines {', '.join(missed)}")
    if wanted:
        return 0
    status = 0
    print("| folder | lines | branches | required |\n| --- | --- | --- | --- |")
    for folder, (lines, covered, branches, taken) in sorted(rows.items()):
        share = 100 * taken / branches if branches else 100
        required = STRICT.get(folder, OTHERWISE)
        below = share < required
        status |= below
        print(f"| {folder} | {100 * covered / max(lines, 1):.1f} % of {lines} | {share:.1f} % of {branches} | "
              f"{required} %{', MISSED' if below else ''} |")
    return status


sys.exit(main())
