"""Writes a firmware-like zip package for the extraction benchmark.

    make_firmware_zip.py OUT.zip [SIZE_MIB]   (default 256)
    make_firmware_zip.py OUT.zip tiny
    make_firmware_zip.py OUT.zip huge

A few hundred entries in a folder tree, most deflated (images of tables, text
and padding mixed with noise, which deflate to about two thirds), some stored
(blobs that are compressed already), until the archive reaches SIZE_MIB. The
content is the same on every run. "tiny" writes one small deflated entry;
"huge" one 384 MiB deflated image and a small readme beside it.
"""
import os
import random
import sys
import zipfile


def image(rng, size):
    """Structured blocks with some noise in between."""
    parts = []
    left = size
    while left > 0:
        n = min(left, 4096)
        kind = rng.random()
        if kind < 0.30:
            block = rng.randbytes(n)
        elif kind < 0.55:
            base = rng.getrandbits(32)
            block = b"".join(((base + 16 * i) & 0xFFFFFFFF).to_bytes(4, "little") + b"\x00\x00\xA5\x5A"
                             + rng.randbytes(4) + b"\xFF\xFF\xFF\xFF" for i in range(n // 16 + 1))
        elif kind < 0.80:
            block = b"".join(b"cfg.%04x=%08x;" % (i, rng.getrandbits(32)) for i in range(n // 14 + 1))
        else:
            block = bytes([rng.choice((0x00, 0xFF))]) * n
        parts.append(block[:n])
        left -= n
    return b"".join(parts)


def main():
    out = sys.argv[1]
    arg = sys.argv[2] if len(sys.argv) > 2 else "256"
    if arg == "tiny":
        with zipfile.ZipFile(out, "w", zipfile.ZIP_DEFLATED) as z:
            z.writestr("readme.txt", b"tiny package\n" * 10)
        return
    rng = random.Random(2024)
    if arg == "huge":
        with zipfile.ZipFile(out + ".part", "w", zipfile.ZIP_DEFLATED, compresslevel=6) as z:
            z.writestr("readme.txt", b"one image\n")
            z.writestr("FirmwareData/modem/full.img", image(rng, 384 * 1024 * 1024))
        os.replace(out + ".part", out)
        return
    limit = int(arg) * 1024 * 1024
    tmp = out + ".part"
    with zipfile.ZipFile(tmp, "w", zipfile.ZIP_DEFLATED, compresslevel=6) as z:
        i = 0
        while os.path.getsize(tmp) < limit:
            folder = "FirmwareData/%s/%02d" % (rng.choice(("modem", "dsp", "nv", "apps", "boot")), i % 17)
            if i % 7 == 3:
                z.writestr("%s/blob%03d.lz" % (folder, i), rng.randbytes(rng.randint(256, 2048) * 1024),
                           zipfile.ZIP_STORED)
            else:
                size = rng.choice((rng.randint(1, 64), rng.randint(256, 4096))) * 1024
                z.writestr("%s/image%03d.bin" % (folder, i), image(rng, size))
            if i % 50 == 0:
                z.writestr("%s/config%03d.xml" % (folder, i), b"<cfg/>\n" * rng.randint(1, 2000))
            i += 1
            z.fp.flush()
    os.replace(tmp, out)


if __name__ == "__main__":
    main()
