# Packages from every zip writer at hand, unpacked by dorvanectl under Wine and
# by Info-ZIP's unzip natively: the same names (as characters) and bytes for
# every name the Western code page can hold, the others never unpacked.
#
#     test_zip_writers.py --dorvanectl dorvanectl.exe --work DIR --base PREFIX
#
import io
import json
import os
import shutil
import subprocess
import sys
import zipfile
import zlib

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "tools"))
import winebox  # noqa: E402

UTF8 = dict(os.environ, LANG="C.UTF-8", LC_ALL="C.UTF-8")
# File names of the source tree: ASCII, Western letters, and one that the
# Western code page cannot hold.
NAMES = ["plain.txt", "C\u00f4te d'Ivoire.txt", "\u00c6r\u00f8/fil.txt", "na\u00efve.bin",
         "sub/\u00fcber.txt", "\u65e5\u672c.txt"]
WESTERN = [n for n in NAMES if all(ord(c) < 0x100 for c in n)]


OEM = [n for n in WESTERN if n.encode("cp437", "replace").decode("cp437") == n]  # "Ærø" has no ø in IBM 437


def content(name):
    return ("%s\n" % name).encode("utf-8") * 50


def names_of(folder):
    # {relative name as characters: bytes} of every file under `folder`.
    out = {}
    for root, _, files in os.walk(os.fsencode(folder)):
        for f in files:
            path = os.path.join(root, f)
            rel = os.path.relpath(path, os.fsencode(folder))
            try:
                text = rel.decode("utf-8")
            except UnicodeDecodeError:
                text = rel.decode("latin-1")  # unzip writes OEM names as Latin-1 bytes
            with open(path, "rb") as fh:
                out[text.replace(os.sep, "/")] = fh.read()
    return out


def oem_archive(names, unicode_path=False):
    """Names in IBM 437 without the UTF-8 flag, as a DOS or Windows tool writes
    them; with `unicode_path`, the raw name is mangled and an Info-ZIP Unicode
    Path field gives the real one."""
    buf = io.BytesIO()
    raw_names = []
    with zipfile.ZipFile(buf, "w", zipfile.ZIP_DEFLATED) as z:
        for i, name in enumerate(names):
            raw = ("x%02d_" % i + name.encode("ascii", "replace").decode()).encode() if unicode_path \
                else name.encode("cp437")
            # A run of one letter per entry, the raw name's length: no
            # placeholder occurs inside another or in the deflated data.
            placeholder = chr(ord("Q") + i).encode() * len(raw)
            info = zipfile.ZipInfo(placeholder.decode(), date_time=(2025, 1, 22, 12, 0, 0))
            info.create_system = 0
            if unicode_path:
                utf8 = name.encode("utf-8")
                info.extra = (b"\x75\x70" + (5 + len(utf8)).to_bytes(2, "little") + b"\x01"
                              + zlib.crc32(raw).to_bytes(4, "little") + utf8)
            z.writestr(info, content(name))
            raw_names.append((placeholder, raw))
    data = buf.getvalue()
    for placeholder, raw in raw_names:
        data = data.replace(placeholder, raw)
    return data


class Writers(winebox.BoxCase):
    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        cls.work = os.path.join(winebox.ARGS.work, "writers")
        shutil.rmtree(cls.work, ignore_errors=True)
        cls.src = os.path.join(cls.work, "src")
        for name in NAMES:
            os.makedirs(os.path.dirname(os.path.join(cls.src, name)), exist_ok=True)
            with open(os.path.join(cls.src, name), "wb") as f:
                f.write(content(name))

    def write_with(self, tool):
        out = os.path.join(self.work, tool + ".zip")
        if tool == "python":
            with zipfile.ZipFile(out, "w", zipfile.ZIP_DEFLATED) as z:
                for n in NAMES:
                    z.write(os.path.join(self.src, n), n)
        else:
            subprocess.run({"infozip": ["zip", "-q", "-r", out], "7z": ["7z", "a", "-bd", "-tzip", out],
                            "bsdtar": ["bsdtar", "--format", "zip", "-cf", out]}[tool] + NAMES, cwd=self.src,
                           env=UTF8, check=True, stdout=subprocess.DEVNULL)
        with open(out, "rb") as f:
            return f.read()

    def compare(self, label, data, expected_names=WESTERN, written=NAMES):
        archive = os.path.join(self.work, label + ".zip")
        with open(archive, "wb") as f:
            f.write(data)
        theirs_dir = os.path.join(self.work, "unzip-" + label)
        subprocess.run(["unzip", "-q", "-o", archive, "-d", theirs_dir], env=UTF8,
                       stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        theirs = names_of(theirs_dir)
        target = "C:\\out\\%s\\" % label
        result = self.ctl("--json", "unzip-all-items", target, self.box.put_file(archive, r"C:\pkg"))
        # A name with no exact form in the code page (日本) is not unpacked, and
        # the command names it: exit 1.
        failed = json.loads(result.stdout).get("failed", [])
        refused = len([n for n in written if n not in expected_names])
        self.assertEqual((1 if failed else 0, refused, [0x200] * len(failed)),
                         (result.returncode, len(failed), [f["result"] for f in failed]), result.stdout + result.stderr)
        ours = names_of(self.box.unix_path(target))
        self.assertEqual(sorted(expected_names), sorted(ours), label)
        for name in expected_names:
            self.assertEqual((content(name), content(name)), (ours[name], theirs.get(name)), "%s: %s" % (label, name))

    def test_every_writer(self):
        for tool in ("python", "infozip", "7z", "bsdtar"):
            with self.subTest(tool=tool):
                self.compare(tool, self.write_with(tool))

    def test_legacy_oem_names_and_the_unicode_path_field(self):
        self.compare("oem", oem_archive(OEM), OEM, OEM)
        # unzip reads the Unicode Path field too, so both give the real names.
        self.compare("unicode-path", oem_archive(NAMES, unicode_path=True))


if __name__ == "__main__":
    winebox.test_main("dorvanectl", "work", "base")
