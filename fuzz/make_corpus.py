#!/usr/bin/env python3
"""Writes the fuzzers' seed corpus (fuzz/corpus/<target>/): small archives of
every kind the reader handles, and entry names of every kind the cleaning
rules and the output-path check meet. Run again after changing it; the files
are committed, so that every fuzzing run starts from the same seeds.

    make_corpus.py [DIR]
"""
import io
import os
import sys
import zipfile


def archive(entries, zip64=False, compression=zipfile.ZIP_DEFLATED, comment=b""):
    data = io.BytesIO()
    with zipfile.ZipFile(data, "w", compression) as z:
        for name, content in entries:
            info = zipfile.ZipInfo(name, date_time=(2025, 1, 22, 12, 0, 0))
            info.compress_type = compression
            if zip64:
                with z.open(info, "w", force_zip64=True) as f:
                    f.write(content)
            else:
                z.writestr(info, content)
        z.comment = comment
    return data.getvalue()


def streamed(entries):
    """Entries written to an unseekable stream: data descriptors after the data."""
    class Unseekable(io.RawIOBase):
        def __init__(self):
            self.buffer = bytearray()

        def writable(self):
            return True

        def write(self, b):
            self.buffer += b
            return len(b)

    out = Unseekable()
    with zipfile.ZipFile(out, "w", zipfile.ZIP_DEFLATED) as z:
        for name, content in entries:
            with z.open(name, "w") as f:
                f.write(content)
    return bytes(out.buffer)


def main():
    root = sys.argv[1] if len(sys.argv) > 1 else os.path.join(os.path.dirname(__file__), "corpus")
    text = b"firmware image line\n" * 40
    zips = {
        "stored": archive([("a.txt", b"stored"), ("dir/", b""), ("dir/b.bin", bytes(range(64)))],
                          compression=zipfile.ZIP_STORED),
        "deflated": archive([("fw/image.bin", text), ("fw/empty", b"")]),
        "zip64": archive([("big.bin", text)], zip64=True),
        "descriptors": streamed([("s1.txt", text), ("s2.txt", b"x")]),
        "utf8": archive([("C\u00f4te.txt", b"1"), ("\uff0e\uff0e\uff0fx", b"2"), ("\u65e5.txt", b"3")]),
        "names": archive([("d/../../x", b"1"), ("C:\\drive.txt", b"2"), ("../up", b"3"),
                          ("CON", b"4"), ("a.txt:s", b"5"), ("trail.", b"6")],
                         compression=zipfile.ZIP_STORED),
        "comment": archive([("c.txt", b"comment")], comment=b"PK\x05\x06 inside a comment"),
        "signatures": archive([("zip64 PK\x06\x06 end.txt", b"1"), ("tail PK\x06\x07" + "x" * 16, b"2")]),
        "empty": archive([]),
    }
    names = ["a.txt", "dir/sub/file.bin", "..\\..\\x.txt", "C:\\x.txt", "d/../../x", "/abs",
             "\\\\server\\share\\f", "a/..", "../x", "x/./y", "CON", "nul.txt", "com1.log",
             "a.txt:stream", "trail.", "trail ", "\\\\.\\PhysicalDrive0", "a\x00../../b",
             ".. /x", "a\\.. \\..\\b", "LPT\xb9"]
    for target, items in (("zip_reader", zips), ("entry_name", None)):
        folder = os.path.join(root, target)
        os.makedirs(folder, exist_ok=True)
        if items is None:
            items = {"name%02d" % i: n.encode("latin-1") for i, n in enumerate(names)}
        for label, data in items.items():
            with open(os.path.join(folder, label), "wb") as f:
                f.write(data)


if __name__ == "__main__":
    main()
