#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Fails when a file of the tree does not say under which licence it is (https://spdx.dev/learn/handling-license-info)."""
import fnmatch
import pathlib
import subprocess
import sys

ROOT = pathlib.Path(__file__).resolve().parent.parent
LINE = b"SPDX-License-Identifier: Apache-2.0"
# It stands in the first lines: after a "#!" or an XML declaration at the latest.
LINES = 4

# What cannot carry a comment, or is read as it stands; LICENSE covers it.
WITHOUT = {
    "*.png": "pictures",
    "*.svg": "drawn by gnuplot",
    "*.json": "JSON has no comments",
    "*.jsonl": "JSON has no comments",
    "*.md": "documents; a comment would be shown by some readers",
    "Fuzz/corpus/*": "inputs, byte for byte",
    "Benchmarks/ratios.tsv": "written by a program",
    "docs/examples/*": "what a program prints",
    "cmake/commit.txt": "one line, which git archive writes",
    "Packaging/debian/source/format": "one line, read as it stands",
    "Packaging/debian/copyright": "says it in Debian's own form",
    "LICENSE": "the licence",
}


def main() -> int:
    listed = subprocess.run(["git", "ls-files", "-co", "--exclude-standard", "-z"], cwd=ROOT, capture_output=True, check=True)
    files = [name for name in listed.stdout.decode().split("\0") if name and (ROOT / name).is_file()]
    without = [name for name in files if any(fnmatch.fnmatch(name, pattern) for pattern in WITHOUT)]
    missing = []
    for name in sorted(set(files) - set(without)):
        with open(ROOT / name, "rb") as file:
            if not any(LINE in file.readline(1000) for _ in range(LINES)):
                missing.append(name)
    unused = [pattern for pattern in WITHOUT if not any(fnmatch.fnmatch(name, pattern) for name in files)]
    for name in missing:
        print(f"{name}: no line with {LINE.decode()} among the first {LINES}", file=sys.stderr)
    for pattern in unused:
        print(f"tools/check_headers.py: nothing is called {pattern} any more", file=sys.stderr)
    if not missing and not unused:
        print(f"headers: {len(files) - len(without)} files name their licence, {len(without)} cannot", file=sys.stderr)
    return 1 if missing or unused else 0


if __name__ == "__main__":
    sys.exit(main())
