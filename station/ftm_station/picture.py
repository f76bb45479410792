"""Reads pictures of the panel: PNG files of 8-bit RGB or RGBA, as the handset writes them."""

import zlib
from pathlib import Path


class NoPicture(ValueError):
    """A file is no picture of that kind."""


def one_colour(path: Path) -> tuple[int, int, int] | None:
    """The colour (red, green, blue, 0 to 255) of a picture that has only one; None of one with several.
    Raises NoPicture, and OSError."""
    width, depth, data = _content(path.read_bytes())
    row_size = 1 + width * depth
    first = None
    previous = bytes(width * depth)
    for begin in range(0, len(data), row_size):
        row = _unfiltered(data[begin], data[begin + 1 : begin + row_size], previous, depth)
        if first is None:
            first = row
            if row != row[:depth] * width:
                return None
        elif row != first:
            return None
        previous = row
    if first is None:
        raise NoPicture(f"{path} has no rows")
    return first[0], first[1], first[2]


def _content(file: bytes) -> tuple[int, int, bytes]:
    """Width, bytes of a pixel, and the filtered rows."""
    if file[:8] != b"\x89PNG\r\n\x1a\n" or file[12:16] != b"IHDR" or len(file) < 33:
        raise NoPicture("no PNG file")
    width, height = (int.from_bytes(file[i : i + 4], "big") for i in (16, 20))
    depth = {b"\x08\x02": 3, b"\x08\x06": 4}.get(file[24:26])
    if depth is None or file[28] != 0:
        raise NoPicture("neither 8-bit RGB nor RGBA, or interlaced")
    at = 8
    packed = b""
    while at + 8 <= len(file):
        size = int.from_bytes(file[at : at + 4], "big")
        if file[at + 4 : at + 8] == b"IDAT":
            packed += file[at + 8 : at + 8 + size]
        at += 12 + size
    try:
        data = zlib.decompressobj().decompress(packed, height * (1 + width * depth))
    except zlib.error as error:
        raise NoPicture(str(error)) from error
    if len(data) != height * (1 + width * depth):
        raise NoPicture("the rows are cut")
    return width, depth, data


def _unfiltered(kind: int, row: bytes, above: bytes, depth: int) -> bytes:
    if kind == 0:
        return row
    if kind == 2 and not any(row):
        return above
    out = bytearray(row)
    for i, value in enumerate(row):
        left = out[i - depth] if i >= depth else 0
        corner = above[i - depth] if i >= depth else 0
        guess = _guess(kind, left, above[i], corner)
        out[i] = (value + guess) & 0xFF
    return bytes(out)


def _guess(kind: int, left: int, above: int, corner: int) -> int:
    if kind == 4:
        near = left + above - corner
        return min((left, above, corner), key=lambda one: abs(near - one))
    try:
        return {1: left, 2: above, 3: (left + above) // 2}[kind]
    except KeyError:
        raise NoPicture(f"no filter {kind}") from None
