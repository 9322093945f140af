#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Reads what the tests of a build with coverage executed (gcovr), prints one row a folder, and fails when a folder
covers fewer branches than it must. Branches that only an exception takes are left out: this code throws nothing, and
the compiler adds one behind almost every call.

    tools/coverage.py BUILD [--list FOLDER]     with --list, each file of a folder and its uncovered lines
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
    if parts[0] != "Sources":
        return None
    if parts[1] == "VimbrelCore":
        return "/".join(parts[2:4]) if parts[2] == "Platform" and len(parts) > 4 else parts[2]
    return parts[1]


def measured(build):
    output = os.path.join(build, "coverage.json")
    subprocess.check_call(["gcovr", "--root", ".", "--filter", "Sources/", "--exclude-throw-branches",
                           "--exclude-unreachable-branches", "--gcov-ignore-parse-errors", "-j", str(os.cpu_count()),
                           "--json", output, build])
    with open(output) as file:
        return json.load(file)["files"]


def main():
    build = sys.argv[1]
    wanted = sys.argv[3] if sys.argv[2:3] == ["--list"] else None
    rows = defaultdict(lambda: [0, 0, 0, 0])
    for file in measured(build):
        folder = folder_of(file["file"])
        if folder is None:
            continue
        row = rows[folder]
        missed = []
        own = [0, 0]
        for line in file["lines"]:
            if line.get("gcovr/noncode") or line.get("gcovr/excluded"):
                continue
            row[0] += 1
            row[1] += line["count"] > 0
            for branch in line["branches"]:
                row[2] += 1
                row[3] += branch["count"] > 0
                own[0] += 1
                own[1] += branch["count"] > 0
                if branch["count"] == 0:
                    missed.append(line["line_number"])
        if folder == wanted and missed:
            print(f"{file['file']}: {own[1]} of {own[0]} branches; not all of lines "
                  f"{', '.join(map(str, sorted(set(missed))))}")
    if wanted:
        return 0
    status = 0
    print("| folder | lines | branches | required |\n| --- | --- | --- | --- |")
    for folder, (lines, covered, branches, taken) in sorted(rows.items()):
        share = 100 * taken / max(branches, 1)
        required = STRICT.get(folder, OTHERWISE)
        below = share < required
        status |= below
        print(f"| {folder} | {100 * covered / max(lines, 1):.1f} % of {lines} | {share:.1f} % of {branches} | "
              f"{required} %{', MISSED' if below else ''} |")
    return status


sys.exit(main())
