#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Prints the rows that the benchmarks left in a file as one table; with --gate, also compares their cost ratios with
those recorded in Benchmarks/ratios.tsv and fails when one has become much worse. Only ratios are compared, because
machines differ, and with a wide margin, because they are busy: what remains is a change in kind.

    tools/bench_table.py ROWS [--gate | --record]
"""
import sys

MARGIN = 2.5
RECORDED = "Benchmarks/ratios.tsv"


def rows_of(path):
    with open(path) as file:
        return [line.rstrip("\n").split("\t") for line in file]


def main():
    rows = rows_of(sys.argv[1])
    mode = sys.argv[2] if len(sys.argv) > 2 else ""
    print("| what | ours | reference | ratio | target |\n| --- | --- | --- | --- | --- |")
    for what, ours, reference, ratio, target, verdict in rows:
        print(f"| {what} | {ours} | {reference} | {ratio} | {target}{', MISSED' if verdict == 'MISSED' else ''} |")
    ratios = {row[0]: float(row[3]) for row in rows if row[3] != "-"}
    if mode == "--record":
        with open(RECORDED, "w") as file:
            for what, ratio in ratios.items():
                file.write(f"{what}\t{ratio:.4g}\n")
        return 0
    if mode != "--gate":
        return 0
    worse = 0
    for what, recorded in rows_of(RECORDED):
        if what in ratios and ratios[what] > float(recorded) * MARGIN:
            print(f"WORSE: {what} costs {ratios[what]:.3g} of its reference; recorded was {recorded}", file=sys.stderr)
            worse += 1
    return 1 if worse else 0


sys.exit(main())
