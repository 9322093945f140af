#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Makes the icon theme's files from the avatar's pixels: icons.py PIXELS OUTPUT

PIXELS is what draw_icon printed. Sizes that are a multiple of the picture's are exact; the others take the nearest
pixel, as pixel art wants. The symbolic icon is the silhouette, with the eyes cut out."""
import pathlib
import struct
import sys
import zlib

SIZES = (16, 22, 24, 32, 48, 64, 96, 128, 256, 512)
Pixel = tuple[int, int, int, int]


def chunk(kind: bytes, data: bytes) -> bytes:
    return struct.pack(">I", len(data)) + kind + data + struct.pack(">I", zlib.crc32(kind + data))


def png(rows: list[list[Pixel]]) -> bytes:
    raw = b"".join(b"\0" + b"".join(bytes(pixel) for pixel in row) for row in rows)
    header = struct.pack(">IIBBBBB", len(rows[0]), len(rows), 8, 6, 0, 0, 0)
    return b"\x89PNG\r\n\x1a\n" + chunk(b"IHDR", header) + chunk(b"IDAT", zlib.compress(raw, 9)) + chunk(b"IEND", b"")


def scaled(picture: list[list[Pixel]], size: int) -> list[list[Pixel]]:
    """Whole multiples of the picture, centred where they do not fill the size."""
    side = len(picture)
    factor = max(1, size // side)
    margin = (size - side * factor) // 2
    empty = (0, 0, 0, 0)

    def at(x: int, y: int) -> Pixel:
        column, row = (x - margin) // factor, (y - margin) // factor
        return picture[row][column] if 0 <= column < side and 0 <= row < side else empty

    return [[at(x, y) for x in range(size)] for y in range(size)]


def rectangles(picture: list[list[Pixel]], fill_of) -> str:
    """Each run of equal pixels in a row as one rectangle."""
    parts = []
    for y, row in enumerate(picture):
        x = 0
        while x < len(row):
            fill, start = fill_of(row[x]), x
            while x < len(row) and fill_of(row[x]) == fill:
                x += 1
            if fill:
                parts.append(f'<rect x="{start}" y="{y}" width="{x - start}" height="1" {fill}/>')
    return "".join(parts)


def svg(picture: list[list[Pixel]], fill_of) -> str:
    side = len(picture)
    return (f'<svg xmlns="http://www.w3.org/2000/svg" width="{side}" height="{side}" viewBox="0 0 {side} {side}" '
            f'shape-rendering="crispEdges">{rectangles(picture, fill_of)}</svg>\n')


def full_colour(pixel: Pixel) -> str:
    red, green, blue, alpha = pixel
    opacity = "" if alpha == 255 else f' fill-opacity="{alpha / 255:.3f}"'
    return f'fill="#{red:02x}{green:02x}{blue:02x}"{opacity}' if alpha else ""


def silhouette(pixel: Pixel) -> str:
    """The whole creature in one colour; its eyes are holes."""
    is_white = min(pixel[:3]) > 230
    return 'fill="#2e3436"' if pixel[3] and not is_white else ""


def main() -> int:
    text = pathlib.Path(sys.argv[1]).read_text(encoding="ascii")
    output = pathlib.Path(sys.argv[2])
    picture: list[list[Pixel]] = [[tuple(bytes.fromhex(word)) for word in line.split()] for line in text.splitlines()]
    for size in SIZES:
        directory = output / f"hicolor/{size}x{size}/apps"
        directory.mkdir(parents=True, exist_ok=True)
        (directory / "vimbrel.png").write_bytes(png(scaled(picture, size)))
    for directory, name, fill in (("scalable", "vimbrel.svg", full_colour),
                                  ("symbolic", "vimbrel-symbolic.svg", silhouette)):
        target = output / f"hicolor/{directory}/apps"
        target.mkdir(parents=True, exist_ok=True)
        (target / name).write_text(svg(picture, fill), encoding="utf-8")
    return 0


if __name__ == "__main__":
    sys.exit(main())
