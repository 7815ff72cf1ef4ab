# Reads the pixels of a PNG picture, as the tests need them: 8-bit RGB or
# RGBA, not interlaced (what headless Chromium writes), with only the standard
# library.
import struct
import zlib


def read_png(path):
    # The rows of RGB pixels: rows[y] is a bytes object of RGB triples.
    with open(path, "rb") as f:
        data = f.read()
    if data[:8] != b"\x89PNG\r\n\x1a\n":
        raise ValueError("%s: not a PNG file" % path)
    at, idat, header = 8, [], None
    while at < len(data) and data[at + 4:at + 8] != b"IEND":
        length, kind = struct.unpack(">I4s", data[at:at + 8])
        body = data[at + 8:at + 8 + length]
        header = struct.unpack(">IIBBBBB", body) if kind == b"IHDR" else header
        idat += [body] if kind == b"IDAT" else []
        at += 12 + length
    width, height, depth, colour, _, _, interlace = header
    if depth != 8 or colour not in (2, 6) or interlace:
        raise ValueError("%s: only 8-bit RGB or RGBA without interlacing is read" % path)
    step = 3 if colour == 2 else 4
    stride = width * step
    raw = zlib.decompress(b"".join(idat))
    rows, previous = [], bytearray(stride)
    for y in range(height):
        kind, line = raw[y * (stride + 1)], bytearray(raw[y * (stride + 1) + 1:(y + 1) * (stride + 1)])
        if kind == 2:  # the filters: none, left, up, average, Paeth
            line = bytearray((u + v) & 0xFF for u, v in zip(line, previous))
        for i in range(stride) if kind in (1, 3, 4) else ():
            a, b = line[i - step] if i >= step else 0, previous[i]
            if kind == 4:
                c = previous[i - step] if i >= step else 0
                p = a + b - c
                pa, pb, pc = abs(p - a), abs(p - b), abs(p - c)
                a = a if pa <= pb and pa <= pc else b if pb <= pc else c
            line[i] = (line[i] + (a, b, (a + b) >> 1, a)[kind - 1]) & 0xFF
        previous, rgb = line, line[:]
        if step == 4:
            del rgb[3::4]  # no alpha
        rows.append(bytes(rgb))
    return rows


def find(rows, colour):
    # The (y, x) of every pixel of `colour` ("rrggbb") in `rows`.
    rgb, at = bytes.fromhex(colour), []
    for y, row in enumerate(rows):
        x = row.find(rgb)
        while x >= 0:
            at += [(y, x // 3)] if x % 3 == 0 else []
            x = row.find(rgb, x + 1)
    return at
