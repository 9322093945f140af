#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Fails when an include or a link points up through the layers, and says why it must not."""
import pathlib
import re
import sys

ROOT = pathlib.Path(__file__).resolve().parent.parent
CORE = ROOT / "Sources" / "VimbrelCore"

# What each layer may include besides itself. A layer knows only what stands below it, so that any of them can be
# understood, tested and replaced without those above.
BELOW = {
    "Support": [],
    "Domain": ["Support"],
    "Platform": ["Domain", "Support"],
    "Platform/Simulated": ["Platform", "Domain", "Support"],
    "Platform/Linux": ["Platform", "Domain", "Support"],
    "Power": ["Platform", "Domain", "Support"],
    "DeepHold": ["Platform", "Domain", "Support"],
    "AgentMonitoring": ["Platform", "Domain", "Support"],
    "System": ["AgentMonitoring", "Power", "DeepHold", "Platform", "Domain", "Support"],
    "Control": ["System", "AgentMonitoring", "Power", "DeepHold", "Platform", "Domain", "Support"],
}
# Headers that may be seen by one file only, which keeps the library behind it replaceable.
CONFINED = {
    "asio.hpp": ["Support/EventLoop.cpp"],
    "spdlog/": ["Support/SystemLog.cpp"],
}
INCLUDE = re.compile(r'^\s*#\s*include\s+[<"]([^>"]+)[>"]', re.MULTILINE)


def layer_of(path: str) -> str | None:
    """The longest layer name that the path lies in."""
    matches = [layer for layer in BELOW if path == layer or path.startswith(layer + "/")]
    return max(matches, key=len, default=None)


def allowed(layer: str, other: str) -> bool:
    return other == layer or other in BELOW[layer]


def main() -> int:
    problems = []
    library_layer = {}
    for listing in sorted(CORE.rglob("CMakeLists.txt")):
        layer = layer_of(listing.parent.relative_to(CORE).as_posix())
        for name in re.findall(r"(?:vimbrel_library|add_library)\(\s*(Vimbrel\w+)", listing.read_text()):
            library_layer[name] = layer
    for source in sorted([*CORE.rglob("*.h"), *CORE.rglob("*.cpp")]):
        relative = source.relative_to(CORE).as_posix()
        layer = layer_of(relative)
        for header in INCLUDE.findall(source.read_text(errors="replace")):
            other = layer_of(header)
            if other and not allowed(layer, other):
                problems.append(f"{relative} includes {header}: {layer} stands below {other} or beside it, "
                                "so it must not know it. Move the shared part down, or invert the call with an interface.")
            for confined, places in CONFINED.items():
                if header.startswith(confined) and relative not in places:
                    problems.append(f"{relative} includes {header}, which only {', '.join(places)} may see.")
            if header.startswith("Platform/Linux/") and layer != "Platform/Linux":
                problems.append(f"{relative} includes {header}: only programs choose an operating system.")
    for listing in sorted(CORE.rglob("CMakeLists.txt")):
        layer = layer_of(listing.parent.relative_to(CORE).as_posix())
        for name in set(re.findall(r"\bVimbrel[A-Z]\w+", listing.read_text())):
            other = library_layer.get(name)
            if layer and other and not allowed(layer, other):
                problems.append(f"{listing.relative_to(ROOT)} links {name}: {layer} must not know {other}.")
    for problem in problems:
        print(f"layers: {problem}", file=sys.stderr)
    if not problems:
        print("layers: every include and link points down")
    return 1 if problems else 0


if __name__ == "__main__":
    sys.exit(main())
