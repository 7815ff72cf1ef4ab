# Makes the archives that the zip reader is checked against, with writers
# other than our own: Python's zipfile and Info-ZIP's zip.
#
#     make_zips.py OUTDIR
#
# Writes OUTDIR/*.zip and OUTDIR/manifest.txt, one line per entry in the order
# of each archive's central directory: archive, name (in Windows-1252, the code
# page the reader's names are handed out in under the test prefix), size and
# CRC-32 in hex (size "-" for a folder entry), separated by tabs.
#
import os
import random
import shutil
import struct
import subprocess
import sys
import zipfile

# A small firmware-like folder: text, an image larger than the reader's
# buffers (half compressible, half noise), an empty file, nested folders.
RNG = random.Random(7)
FILES = {
    "readme.txt": b"firmware package for tests\n" * 20,
    "image.bin": b"".join(b"block %06d " % i for i in range(50000)) + bytes(RNG.getrandbits(8) for _ in range(600000)),
    "empty.txt": b"",
    "sub/deeper/inner.txt": b"inner file\n",
}


class Unseekable(bytearray):
    # A write-only stream: zipfile then writes data descriptors.

    def write(self, b):
        self.extend(b)
        return len(b)

    def flush(self):
        pass


def python_archives(out):
    stored, deflated = zipfile.ZIP_STORED, zipfile.ZIP_DEFLATED
    with zipfile.ZipFile(os.path.join(out, "python.zip"), "w") as z:
        for name, data, method in (("readme.txt", FILES["readme.txt"], stored), ("image.bin", FILES["image.bin"], deflated),
                                   ("empty.txt", b"", stored), ("empty-deflated.txt", b"", deflated), ("sub/", b"", stored),
                                   ("sub/deeper/inner.txt", FILES["sub/deeper/inner.txt"], deflated),
                                   ("caf\u00e9.txt", b"utf-8 name", stored)):  # flagged as UTF-8
            z.writestr(name, data, method)
    stream = Unseekable()
    with zipfile.ZipFile(stream, "w") as z:
        for name, method in (("readme.txt", stored), ("image.bin", deflated), ("empty.txt", deflated)):
            z.writestr(name, FILES[name], method)
    with open(os.path.join(out, "python-descriptors.zip"), "wb") as f:
        f.write(stream)


def signature_archive(out):
    # Names that hold the bytes of the Zip64 end-record and locator
    # signatures, the last one ending right where a locator would sit: its
    # comment (a name holds no NUL) completes a locator of one disk that points
    # at the signature in the name before it, which begins no Zip64 record.
    # Info-ZIP's unzip and zipfile read it as the ordinary archive it is.
    path = os.path.join(out, "python-signatures.zip")

    def write(locator_rest):
        with zipfile.ZipFile(path, "w") as z:
            for name, data, comment in (("readme.txt", FILES["readme.txt"], b""),
                                        ("zip64 PK\x06\x06 end.txt", b"record", b""),
                                        ("locator PK\x06\x07", b"locator", locator_rest)):
                info = zipfile.ZipInfo(name, date_time=(2025, 1, 22, 12, 0, 0))
                info.comment = comment
                z.writestr(info, data)
        with open(path, "rb") as f:
            return f.read()

    # The comment's length fixes every position; its bytes move nothing.
    data = write(bytes(16))
    write(struct.pack("<IQI", 0, data.rfind(b"PK\x06\x06", 0, data.rfind(b"PK\x01\x02")), 1))


def infozip_archives(out, src):
    names = ["readme.txt", "image.bin", "empty.txt", "sub/", "sub/deeper/", "sub/deeper/inner.txt"]
    # -fz: Zip64 extra fields and end records although nothing needs them; -0:
    # stored; to a pipe, zip cannot seek back: data descriptors.
    for archive, options in (("infozip-zip64.zip", ["-fz"]), ("infozip-stored.zip", ["-0"]), ("infozip-piped.zip", [])):
        piped = subprocess.run(["zip", "-q", "-X"] + options + ["-" if not options else os.path.join(out, archive)] + names,
                               cwd=src, check=True, stdout=subprocess.PIPE).stdout
        if not options:
            with open(os.path.join(out, archive), "wb") as f:
                f.write(piped)


def main():
    out = os.path.abspath(sys.argv[1])
    shutil.rmtree(out, ignore_errors=True)
    src = os.path.join(out, "src")
    for name, data in FILES.items():
        os.makedirs(os.path.dirname(os.path.join(src, name)), exist_ok=True)
        with open(os.path.join(src, name), "wb") as f:
            f.write(data)
    python_archives(out)
    signature_archive(out)
    infozip_archives(out, src)
    with open(os.path.join(out, "manifest.txt"), "w", encoding="cp1252", newline="\n") as m:
        for archive in sorted(n for n in os.listdir(out) if n.endswith(".zip")):
            with zipfile.ZipFile(os.path.join(out, archive)) as z:
                for info in z.infolist():
                    size = "-" if info.is_dir() else str(info.file_size)
                    m.write("%s\t%s\t%s\t%08x\n" % (archive, info.filename, size, info.CRC))


if __name__ == "__main__":
    main()
